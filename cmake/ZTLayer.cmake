# Layers. Each source folder of the library is one layer and may use only the
# layers below it:
#
#   foundation  <-  packets, raster, colour  <-  screening
#
# The build holds that rule: a layer's files are compiled against a view of the
# tree (build/layer_views/<layer>/) holding only its own folder, the folders it
# may use, and the public headers of those layers. An include that reaches up
# finds nothing and fails to compile. The packaging tests prove this with a
# deliberately upward include.

# Who each layer may use, directly or through another.
set(ZT_LAYER_USES_foundation "")
set(ZT_LAYER_USES_packets foundation)
set(ZT_LAYER_USES_raster foundation)
set(ZT_LAYER_USES_colour foundation)
set(ZT_LAYER_USES_screening foundation raster colour)

# The layer of every public header. A header that is not listed stops the
# configure step, so a new family must say where it belongs.
set(ZT_HEADERS_foundation api.h cpu.h init.h lists.h log.h membuf.h periodic.h random.h
  threadpool.h threads.h zttime.h)
set(ZT_HEADERS_packets packets.h ztrpc.h)
set(ZT_HEADERS_raster buf.h compress.h dither_context.h imagebuf.h interleave.h scanlinebuf.h vlimg.h
  ztrect.h)
set(ZT_HEADERS_colour colourspace.h dotpercent.h table_interpolator.h ztcms.h)
set(ZT_HEADERS_screening dither.h resample.h screening.h)
set(ZT_LAYERS_ALL foundation packets raster colour screening)

function(zt_check_public_headers)
  file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR}/include/zt ${PROJECT_SOURCE_DIR}/include/zt/*.h)
  set(listed "")
  foreach(layer IN LISTS ZT_LAYERS_ALL)
    list(APPEND listed ${ZT_HEADERS_${layer}})
  endforeach()
  foreach(header IN LISTS headers)
    if(NOT header IN_LIST listed)
      message(FATAL_ERROR "include/zt/${header} belongs to no layer: add it to the header lists in "
        "cmake/ZTLayer.cmake")
    endif()
  endforeach()
  # A public header may include only headers of its own layer and below, so
  # that a caller of a lower family never pulls in a higher one.
  foreach(layer IN LISTS ZT_LAYERS_ALL)
    set(visible "")
    foreach(used IN LISTS layer ZT_LAYER_USES_${layer})
      list(APPEND visible ${ZT_HEADERS_${used}})
    endforeach()
    foreach(header IN LISTS ZT_HEADERS_${layer})
      set(path ${PROJECT_SOURCE_DIR}/include/zt/${header})
      if(NOT EXISTS ${path})
        continue()
      endif()
      file(STRINGS ${path} includes REGEX "^#[ \t]*include[ \t]*<zt/")
      foreach(line IN LISTS includes)
        string(REGEX REPLACE ".*<zt/([^>]+)>.*" "\\1" included "${line}")
        if(NOT included IN_LIST visible)
          message(FATAL_ERROR "include/zt/${header} (${layer}) includes <zt/${included}>, which "
            "belongs to a layer ${layer} may not use")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()
zt_check_public_headers()

# zt_layer_view(layer OUT_VAR): makes the view directory of a layer and
# returns its path. Symbolic links keep the real files in one place, so
# diagnostics and debuggers still show the source tree's contents.
function(zt_layer_view layer out_var)
  set(view ${PROJECT_BINARY_DIR}/layer_views/${layer})
  file(REMOVE_RECURSE ${view})
  file(MAKE_DIRECTORY ${view}/zt)
  foreach(visible IN LISTS layer ZT_LAYER_USES_${layer})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${visible} ${view}/${visible} SYMBOLIC)
    foreach(header IN LISTS ZT_HEADERS_${visible})
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/include/zt/${header} ${view}/zt/${header} SYMBOLIC)
    endforeach()
  endforeach()
  set(${out_var} ${view} PARENT_SCOPE)
endfunction()

# zt_layer_compile_against(target layer): compiles a target's own sources
# against a layer's view (used by the layers and by the packaging probes).
function(zt_layer_compile_against target layer)
  zt_layer_view(${layer} view)
  target_include_directories(${target} PRIVATE ${view})
  target_compile_definitions(${target} PRIVATE ZT_BUILDING_LIBRARY)
endfunction()

# zt_add_layer(layer sources... [LIBS libraries...])
# An object library zt_<layer> holding one folder of the shared library. Files
# named *_avx2.cpp are the vector forms of kernels and get the AVX2/FMA flags.
function(zt_add_layer layer)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  set(name zt_${layer})
  add_library(${name} OBJECT ${ARG_UNPARSED_ARGUMENTS})
  zt_layer_compile_against(${name} ${layer})
  set(uses "")
  foreach(used IN LISTS ZT_LAYER_USES_${layer})
    list(APPEND uses zt_${used})
  endforeach()
  # The used layers come for their link requirements (zlib, LZ4, threads);
  # their include paths are private, so they do not widen this layer's view.
  target_link_libraries(${name} PUBLIC Threads::Threads ${uses} ${ARG_LIBS})
  foreach(src IN LISTS ARG_UNPARSED_ARGUMENTS)
    if(src MATCHES "_avx2\\.cpp$")
      set_source_files_properties(${src} PROPERTIES COMPILE_OPTIONS "-mavx2;-mfma")
    endif()
  endforeach()
endfunction()
