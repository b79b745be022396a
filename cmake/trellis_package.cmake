# What `cmake --install` puts in place besides the bundles themselves: the runtime, the compiler, the headers that
# generated sources need, and the package files for CMake and pkg-config.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/trellis")

set_target_properties(loom_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(loom_runtime PROPERTIES EXPORT_NAME runtime INSTALL_RPATH "$ORIGIN")
set_target_properties(trellis_families PROPERTIES EXPORT_NAME families)
install(TARGETS loom_platform loom_runtime EXPORT loom_targets LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(TARGETS trellisc trellis_families EXPORT trellis_targets)
install(EXPORT loom_targets NAMESPACE loom:: DESTINATION "${package_dir}")
install(EXPORT trellis_targets NAMESPACE trellis:: DESTINATION "${package_dir}")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/platform/loom" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/runtime/include/loom_runtime" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")
foreach(family frame instance codec tables messages diag)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/${family}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/trellis"
    FILES_MATCHING PATTERN "*.h")
endforeach()

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/trellisConfig.cmake.in"
  "${CMAKE_CURRENT_BINARY_DIR}/trellisConfig.cmake" INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/trellisConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/trellisConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/trellisConfigVersion.cmake"
  "${PROJECT_SOURCE_DIR}/cmake/trellis_bundle.cmake"
  "${PROJECT_SOURCE_DIR}/cmake/bundle.pc.in"
  DESTINATION "${package_dir}")
file(RELATIVE_PATH UP_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file("${PROJECT_SOURCE_DIR}/cmake/loom.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/loom.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/loom.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
