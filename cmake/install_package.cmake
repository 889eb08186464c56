# The installed package: the CMake package lumregion (imported targets
# lumregion::lumregion and lumregion::lum_rs) and the pkg-config files
# lumregion.pc and lum_rs.pc. The libraries and headers install themselves
# in libs/*/CMakeLists.txt into the export set lumregionTargets; this file
# runs after every target is defined.
include(CMakePackageConfigHelpers)

# The lumregion command: a program to run, not a target to link.
if(TARGET lumregion_cli)
  install(TARGETS lumregion_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(lum_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/lumregion)
install(EXPORT lumregionTargets NAMESPACE lumregion:: DESTINATION ${lum_package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/lumregionConfig.cmake.in
  ${PROJECT_BINARY_DIR}/lumregionConfig.cmake INSTALL_DESTINATION ${lum_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/lumregionConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/lumregionConfig.cmake
  ${PROJECT_BINARY_DIR}/lumregionConfigVersion.cmake DESTINATION ${lum_package_dir})

# The .pc files name their directories relative to their own place
# (${pcfiledir}), so an installation moved as a whole, or made with
# `cmake --install --prefix`, still finds itself.
set(lum_pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH lum_pc_prefix ${lum_pc_dir} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH lum_pc_libdir ${lum_pc_dir} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH lum_pc_includedir ${lum_pc_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
foreach(pc lumregion lum_rs)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
