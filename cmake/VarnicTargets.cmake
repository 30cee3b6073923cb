# The kinds of target that this project has, one function each. They carry the include roots, the
# language standard, the warnings and the install rules, so that a folder lists only its files.

include(GNUInstallDirs)

set(VARNIC_INCLUDE_DIR "${CMAKE_INSTALL_INCLUDEDIR}/varnic")
set(VARNIC_PROTO_DIR "${CMAKE_INSTALL_DATADIR}/varnic/proto")

# Warnings belong to our own presets: a consumer's build must not fail on a compiler newer than ours.
function(varnic_own_code target)
  if(VARNIC_WERROR)
    target_compile_options(${target} PRIVATE
      -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wvla -Wold-style-cast -Werror)
  endif()
endfunction()

# varnic_library(NAME HDRS a.h … [SRCS a.cc …] [DEPS …] [PRIVATE_DEPS …])
# Makes varnic_NAME, known to everyone as varnic::NAME. HDRS are public and get installed. One with
# neither HDRS nor SRCS is for varnic_protos().
function(varnic_library name)
  cmake_parse_arguments(arg "" "" "HDRS;SRCS;DEPS;PRIVATE_DEPS" ${ARGN})
  set(target varnic_${name})
  if(arg_SRCS OR NOT arg_HDRS)
    add_library(${target} STATIC ${arg_HDRS} ${arg_SRCS})
    set(scope PUBLIC)
    varnic_own_code(${target})
  else()
    add_library(${target} INTERFACE)
    set(scope INTERFACE)
  endif()
  add_library(varnic::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(${target} ${scope} cxx_std_17)
  target_include_directories(${target} ${scope}
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>"
    "$<INSTALL_INTERFACE:${VARNIC_INCLUDE_DIR}>")
  target_link_libraries(${target} ${scope} ${arg_DEPS})
  if(arg_PRIVATE_DEPS)
    target_link_libraries(${target} PRIVATE ${arg_PRIVATE_DEPS})
  endif()
  if(VARNIC_INSTALL)
    install(TARGETS ${target} EXPORT varnicTargets)
    foreach(header IN LISTS arg_HDRS)
      varnic_install_header("${CMAKE_CURRENT_SOURCE_DIR}/${header}" "${PROJECT_SOURCE_DIR}")
    endforeach()
  endif()
endfunction()

# Installs `header` under its path relative to `root`.
function(varnic_install_header header root)
  file(RELATIVE_PATH path "${root}" "${header}")
  cmake_path(GET path PARENT_PATH folder)
  install(FILES "${header}" DESTINATION "${VARNIC_INCLUDE_DIR}/${folder}")
endfunction()

# varnic_protos(TARGET IMPORT_ROOT dir PROTOS rpc/a.proto … PARTS …)
# varnic_generate() for a library of ours: installs the headers, and the proto files with the
# messages.
function(varnic_protos target)
  cmake_parse_arguments(arg "" "IMPORT_ROOT" "PROTOS;PARTS" ${ARGN})
  varnic_generate(TARGET ${target} ${ARGN})
  if(NOT VARNIC_INSTALL)
    return()
  endif()
  set(generated "${CMAKE_CURRENT_BINARY_DIR}/generated/${target}")
  install(DIRECTORY "${generated}/messages/" "${generated}/stubs/"
    DESTINATION "${VARNIC_INCLUDE_DIR}" FILES_MATCHING PATTERN "*.h")
  if("messages" IN_LIST arg_PARTS)
    foreach(proto IN LISTS arg_PROTOS)
      cmake_path(GET proto PARENT_PATH folder)
      install(FILES "${arg_IMPORT_ROOT}/${proto}" DESTINATION "${VARNIC_PROTO_DIR}/${folder}")
    endforeach()
  endif()
endfunction()

# varnic_test(NAME [SRCS …] [DEPS …]): NAME.cc unless SRCS says otherwise; one ctest entry.
function(varnic_test name)
  if(NOT VARNIC_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(arg "" "" "SRCS;DEPS" ${ARGN})
  if(NOT arg_SRCS)
    set(arg_SRCS ${name}.cc)
  endif()
  add_executable(${name} ${arg_SRCS})
  varnic_own_code(${name})
  target_link_libraries(${name} PRIVATE ${arg_DEPS} GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 120 ENVIRONMENT "${VARNIC_SANITIZER_ENVIRONMENT}")
endfunction()

# What every test process runs with, in whichever preset; a plain build ignores it. A trap must end
# the process as it does without a sanitizer. The suppressions name the deliberate leaks.
set(VARNIC_SANITIZER_ENVIRONMENT
  "ASAN_OPTIONS=detect_leaks=1:handle_sigill=0:handle_abort=0:strict_string_checks=1:detect_stack_use_after_return=1"
  "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/leak_suppressions.txt:print_suppressions=0"
  "UBSAN_OPTIONS=print_stacktrace=1"
  "TSAN_OPTIONS=halt_on_error=1")

# varnic_fuzzer(NAME CORPUS dir [SRCS …] [DEPS …]): NAME.cc unless SRCS says otherwise. A program for
# libFuzzer with VARNIC_BUILD_FUZZERS; without, and with any compiler, one that replays the corpus
# and a fixed choice of mutations of it, as one ctest entry.
function(varnic_fuzzer name)
  cmake_parse_arguments(arg "" "CORPUS" "SRCS;DEPS" ${ARGN})
  if(NOT arg_SRCS)
    set(arg_SRCS ${name}.cc)
  endif()
  add_executable(${name} ${arg_SRCS})
  varnic_own_code(${name})
  target_link_libraries(${name} PRIVATE ${arg_DEPS})
  if(VARNIC_BUILD_FUZZERS)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    return()
  endif()
  target_sources(${name} PRIVATE "${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc")
  string(REGEX REPLACE "_fuzzer$" "" subject "${name}")
  add_test(NAME fuzz_${subject}_replay
    COMMAND ${name} "${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS}")
  set_tests_properties(fuzz_${subject}_replay PROPERTIES
    TIMEOUT 120 ENVIRONMENT "${VARNIC_SANITIZER_ENVIRONMENT}")
endfunction()

# varnic_benchmark(NAME [SRCS …] [DEPS …])
function(varnic_benchmark name)
  cmake_parse_arguments(arg "" "" "SRCS;DEPS" ${ARGN})
  if(NOT arg_SRCS)
    set(arg_SRCS ${name}.cc)
  endif()
  add_executable(${name} ${arg_SRCS})
  varnic_own_code(${name})
  target_link_libraries(${name} PRIVATE ${arg_DEPS} benchmark::benchmark_main)
endfunction()
