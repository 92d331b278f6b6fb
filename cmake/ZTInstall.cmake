include(CMakePackageConfigHelpers)

install(TARGETS zt EXPORT ZTTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zt
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

set(ZT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZT)
install(EXPORT ZTTargets NAMESPACE ZT:: DESTINATION ${ZT_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ZTConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZTConfig.cmake
  INSTALL_DESTINATION ${ZT_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZTConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZTConfig.cmake ${PROJECT_BINARY_DIR}/ZTConfigVersion.cmake
  DESTINATION ${ZT_CMAKE_DIR})

# zt.pc names its directories relative to its own place, so that a tree
# installed with `cmake --install --prefix` or moved afterwards still resolves.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ZT_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(ZT_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(ZT_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH zt_pc_up "/zt/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/zt")
  string(REGEX REPLACE "/$" "" zt_pc_up "${zt_pc_up}")
  set(ZT_PC_PREFIX "\${pcfiledir}/${zt_pc_up}")
  set(ZT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(ZT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/zt.pc.in ${PROJECT_BINARY_DIR}/zt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
