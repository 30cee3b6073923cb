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
# The core alone: the CMake package of prometheus-cpp wants a web server and curl as well.
if(NOT TARGET PkgConfig::PROMETHEUS)
  pkg_check_modules(PROMETHEUS REQUIRED IMPORTED_TARGET GLOBAL prometheus-cpp-core)
endif()
# Says nothing about itself to CMake or pkg-config.
if(NOT TARGET HttpParser::HttpParser)
  find_path(HTTP_PARSER_INCLUDE_DIR http_parser.h REQUIRED)
  find_library(HTTP_PARSER_LIBRARY http_parser REQUIRED)
  add_library(HttpParser::HttpParser UNKNOWN IMPORTED GLOBAL)
  set_target_properties(HttpParser::HttpParser PROPERTIES
    IMPORTED_LOCATION "${HTTP_PARSER_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${HTTP_PARSER_INCLUDE_DIR}")
endif()
