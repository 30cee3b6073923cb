# varnic_generate(): C++ from proto files, by protoc and protoc-gen-varnic, as sources of a target.
# Comes with the package and with add_subdirectory().
#
#   varnic_generate(TARGET target PROTOS a.proto b/c.proto …
#     [IMPORT_ROOT dir] [IMPORT_DIRS dir …] [PARTS messages skeleton client])
#
# PARTS are all three, unless some are named; the last two are made of files that declare a service:
#   messages  x.pb.h, x.pb.cc          needs protobuf::libprotobuf
#   skeleton  x.rpc.h, x.rpc.cc        needs varnic::rpc, which comes with varnic::server
#   client    x.client.h, x.client.cc  needs varnic::client
# The caller links what they need; messages may also come from a target that this one links.
#
# IMPORT_ROOT, the current source directory by default, is where the names of PROTOS begin and where
# imports are looked for first; then come IMPORT_DIRS, then Varnic's own proto files, such as
# "rpc/identifiers.proto", whose messages are in varnic::rpc.
#
# Call it in the CMakeLists.txt that makes the target, as often as needed. What is written stands in
# generated/TARGET of the current binary directory, and the target and whoever links it can include
# it. It is written anew when the proto file, one that it imports, protoc or the plugin has changed.
include_guard(GLOBAL)
cmake_policy(VERSION 3.25)

function(varnic_generate)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "TARGET;IMPORT_ROOT" "PROTOS;IMPORT_DIRS;PARTS")
  if(NOT arg_PARTS)
    set(arg_PARTS messages skeleton client)
  endif()
  if(NOT arg_IMPORT_ROOT)
    set(arg_IMPORT_ROOT "${CMAKE_CURRENT_SOURCE_DIR}")
  endif()
  _varnic_check_arguments()
  if(NOT TARGET protobuf::protoc)  # What add_subdirectory() finds is not seen outside its folder.
    find_package(Protobuf REQUIRED)
  endif()
  cmake_path(ABSOLUTE_PATH arg_IMPORT_ROOT NORMALIZE)
  _varnic_import_options(import_options "${arg_IMPORT_ROOT}" ${arg_IMPORT_DIRS})

  # Apart, because protoc's code is not ours to make warning-free.
  set(messages "generated/${arg_TARGET}/messages")
  set(stubs "generated/${arg_TARGET}/stubs")
  _varnic_include(${messages} SYSTEM)
  if(VARNIC_WERROR)
    _varnic_include(${stubs})
  else()
    _varnic_include(${stubs} SYSTEM)
  endif()

  set(plugin "--plugin=protoc-gen-varnic=$<TARGET_FILE:varnic::protoc-gen-varnic>")
  foreach(proto IN LISTS arg_PROTOS)
    _varnic_find_proto(file "${arg_IMPORT_ROOT}" "${proto}")
    if("messages" IN_LIST arg_PARTS)
      _varnic_run_protoc("${file}" pb "${messages}" "--cpp_out=${messages}")
    endif()
    _varnic_declares_service(has_service "${file}")
    if(has_service AND "skeleton" IN_LIST arg_PARTS)
      _varnic_run_protoc("${file}" rpc "${stubs}"
        "${plugin}" "--varnic_out=${stubs}" "--varnic_opt=skeleton")
    endif()
    if(has_service AND "client" IN_LIST arg_PARTS)
      _varnic_run_protoc("${file}" client "${stubs}"
        "${plugin}" "--varnic_out=${stubs}" "--varnic_opt=client")
    endif()
  endforeach()
endfunction()

# What follows is varnic_generate()'s own, and sees its variables.

function(_varnic_generate_error text)
  message(FATAL_ERROR "varnic_generate(TARGET ${arg_TARGET}): ${text}")
endfunction()

function(_varnic_check_arguments)
  if(arg_UNPARSED_ARGUMENTS)
    _varnic_generate_error("what is ${arg_UNPARSED_ARGUMENTS}?")
  endif()
  if(NOT CMAKE_CXX_COMPILER_LOADED)
    _varnic_generate_error("the project has no C++; add CXX to the LANGUAGES of its project()")
  endif()
  if(NOT TARGET "${arg_TARGET}")
    _varnic_generate_error("there is no such target")
  endif()
  get_target_property(folder ${arg_TARGET} SOURCE_DIR)
  if(NOT folder STREQUAL CMAKE_CURRENT_SOURCE_DIR)
    _varnic_generate_error("the target is made in ${folder}, so call this there")
  endif()
  get_target_property(type ${arg_TARGET} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    _varnic_generate_error("an INTERFACE library compiles nothing; make it STATIC or OBJECT")
  endif()
  if(NOT arg_PROTOS)
    _varnic_generate_error("PROTOS names no file")
  endif()
  foreach(part IN LISTS arg_PARTS)
    if(NOT part MATCHES "^(messages|skeleton|client)$")
      _varnic_generate_error("no PARTS are called ${part}; there are messages, skeleton and client")
    endif()
  endforeach()
endfunction()

# protoc's options for where to look for files: in the given folders, then in Varnic's own.
function(_varnic_import_options result)
  get_property(own_folders GLOBAL PROPERTY VARNIC_PROTO_DIRS)
  set(options "")
  foreach(folder IN LISTS ARGN own_folders)
    cmake_path(ABSOLUTE_PATH folder NORMALIZE)
    if(NOT IS_DIRECTORY "${folder}")
      _varnic_generate_error("there is no folder ${folder} to import from")
    endif()
    if(folder MATCHES " ")
      _varnic_link(folder "${folder}")
    endif()
    list(APPEND options "--proto_path=${folder}")
  endforeach()
  list(REMOVE_DUPLICATES options)
  set(${result} "${options}" PARENT_SCOPE)
endfunction()

# A name without spaces for a folder: protoc does not escape them where it tells of dependencies.
function(_varnic_link result folder)
  string(MD5 name "${folder}")
  file(MAKE_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/generated/imports")
  file(CREATE_LINK "${folder}" "${CMAKE_CURRENT_BINARY_DIR}/generated/imports/${name}" SYMBOLIC)
  set(${result} "generated/imports/${name}" PARENT_SCOPE)
endfunction()

# `folder` stands in the current binary directory; `ARGN` may be SYSTEM.
function(_varnic_include folder)
  file(MAKE_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/${folder}")
  target_include_directories(${arg_TARGET} ${ARGN} PUBLIC
    "$<BUILD_INTERFACE:${CMAKE_CURRENT_BINARY_DIR}/${folder}>")
endfunction()

function(_varnic_find_proto result root proto)
  cmake_path(ABSOLUTE_PATH proto BASE_DIRECTORY "${root}" NORMALIZE OUTPUT_VARIABLE file)
  if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
    _varnic_generate_error("there is no proto file ${file}")
  endif()
  cmake_path(IS_PREFIX root "${file}" NORMALIZE is_below)
  if(NOT is_below)
    _varnic_generate_error("${file} is not below the import root ${root}")
  endif()
  cmake_path(RELATIVE_PATH file BASE_DIRECTORY "${root}" OUTPUT_VARIABLE name)
  # protoc does not escape it where it tells of dependencies.
  if(name MATCHES "[ \t$#%:*?|\"']" OR NOT name MATCHES "\\.proto$")
    _varnic_generate_error("the name ${name} cannot stand in a build file; proto files end in .proto, \
and have no space and none of $ # % : * ? | \" ' below their import root")
  endif()
  set(${result} "${file}" PARENT_SCOPE)
endfunction()

# Looks again, at the next build, when the file has changed.
function(_varnic_declares_service result file)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
  file(READ "${file}" text)
  set(line_comment "//[^\n]*")
  set(block_comment "/\\*[^*]*\\*+([^/*][^*]*\\*+)*/")
  set(quoted "\"(\\\\.|[^\"\\\n])*\"|'(\\\\.|[^'\\\n])*'")
  string(REGEX REPLACE "${line_comment}|${block_comment}|${quoted}" " " text "${text}")
  string(REGEX MATCH "(^|[^A-Za-z0-9_.])service[ \t\r\n]+[A-Za-z_][A-Za-z0-9_]*[ \t\r\n]*{" found
    "${text}")
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

# Lets protoc write x.KIND.cc and x.KIND.h to `folder`, as the options in `ARGN` say, and compiles
# them. It runs in the current binary directory.
function(_varnic_run_protoc file kind folder)
  cmake_path(RELATIVE_PATH file BASE_DIRECTORY "${arg_IMPORT_ROOT}" OUTPUT_VARIABLE name)
  string(REGEX REPLACE "\\.proto$" "" stem "${name}")
  set(output "${folder}/${stem}.${kind}")
  # As protoc orders them; Ninja compares the first one.
  set(outputs "${CMAKE_CURRENT_BINARY_DIR}/${output}.cc" "${CMAKE_CURRENT_BINARY_DIR}/${output}.h")
  set(generators "$<TARGET_FILE:protobuf::protoc>")
  if(NOT kind STREQUAL "pb")
    list(APPEND generators "$<TARGET_FILE:varnic::protoc-gen-varnic>")
  endif()
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND protobuf::protoc ${import_options} ${ARGN} "--dependency_out=${output}.d" "${name}"
    DEPENDS "${file}" ${generators}
    DEPFILE "${CMAKE_CURRENT_BINARY_DIR}/${output}.d"
    COMMENT "protoc ${name}: ${kind}"
    VERBATIM)
  target_sources(${arg_TARGET} PRIVATE ${outputs})
  if(kind STREQUAL "pb" OR NOT VARNIC_WERROR)
    set_source_files_properties(${outputs} PROPERTIES COMPILE_OPTIONS "-w")
  endif()
endfunction()
