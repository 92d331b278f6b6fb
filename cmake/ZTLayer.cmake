# zt_add_layer(name sources... [DEPENDS layers...])
# An object library holding one folder of the shared library. Files named
# *_avx2.cpp are the vector forms of kernels and get the AVX2/FMA flags.
function(zt_add_layer name)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  add_library(${name} OBJECT ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
  target_compile_definitions(${name} PRIVATE ZT_BUILDING_LIBRARY)
  target_link_libraries(${name} PUBLIC Threads::Threads ${ARG_DEPENDS})
  foreach(src IN LISTS ARG_UNPARSED_ARGUMENTS)
    if(src MATCHES "_avx2\\.cpp$")
      set_source_files_properties(${src} PROPERTIES COMPILE_OPTIONS "-mavx2;-mfma")
    endif()
  endforeach()
endfunction()
