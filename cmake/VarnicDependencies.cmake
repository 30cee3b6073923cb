# What the libraries link. Read here when building, and by varnicConfig.cmake after installation, so
# that both find the same packages.
include(CMakeFindDependencyMacro)

find_dependency(Threads)
find_dependency(Protobuf)
find_dependency(absl)
find_dependency(OpenSSL)
find_dependency(PkgConfig)
# Global, because a consumer may look for the package in a folder other than the one that links it.
if(NOT TARGET PkgConfig::NGHTTP2)
  pkg_check_modules(NGHTTP2 REQUIRED IMPORTED_TARGET GLOBAL libnghttp2)
endif()
if(NOT TARGET PkgConfig::ICU_UC)
  pkg_check_modules(ICU_UC REQUIRED IMPORTED_TARGET GLOBAL icu-uc)
endif()
