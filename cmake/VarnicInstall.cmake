# What `cmake --install` writes besides the targets: the package that find_package(varnic) finds.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/varnic")
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/varnicConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/varnicConfig.cmake"
  INSTALL_DESTINATION "${package_dir}"
  PATH_VARS VARNIC_PROTO_DIR)
# Before 1.0 every minor version may change the interface.
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/varnicConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/varnicConfig.cmake"
  "${PROJECT_BINARY_DIR}/varnicConfigVersion.cmake"
  "${PROJECT_SOURCE_DIR}/cmake/VarnicDependencies.cmake"
  "${PROJECT_SOURCE_DIR}/cmake/VarnicGenerate.cmake"
  DESTINATION "${package_dir}")
install(EXPORT varnicTargets NAMESPACE varnic:: DESTINATION "${package_dir}")
