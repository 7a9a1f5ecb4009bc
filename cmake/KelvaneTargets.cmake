# SPDX-License-Identifier: Apache-2.0
# How a target of this project is made: one interface target carries the warnings, the sanitizers
# and the hardening, and every library folder becomes one static library with its own include folder.

add_library(kelvane_build_options INTERFACE)
add_library(kelvane::build_options ALIAS kelvane_build_options)

target_compile_options(kelvane_build_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${KELVANE_WARNINGS_AS_ERRORS}>:-Werror>)
# g++ 12 warns about its own std::string when that is inlined (overlaps of impossible sizes).
target_compile_options(kelvane_build_options INTERFACE
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
# Two builds of one source state are equal, wherever the source lies.
target_compile_options(kelvane_build_options INTERFACE
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(KELVANE_SANITIZE)
  target_compile_options(kelvane_build_options INTERFACE
    -fsanitize=${KELVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kelvane_build_options INTERFACE -fsanitize=${KELVANE_SANITIZE})
endif()

if(KELVANE_HARDEN)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  target_compile_options(kelvane_build_options INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  target_link_options(kelvane_build_options INTERFACE -pie -Wl,-z,relro,-z,now)
endif()

# The headers that a caller of the installed libraries needs, and those that these include. All others
# are for the folders above, inside the tree.
set(KELVANE_INSTALLED_HEADERS
  debug_print.h exit_status.h indgen_memory.h indgen_message.h indgeninit.h
  indgadr.h
  elf32.h image.h indelfio.h indmagic.h indobjio.h
  comcoff.h comcoff2.h indbsdio.h pecoff.h
  bd_checksum.h command_lists.h diffout.h engine_settings.h increment_stream.h indzip.h patch_buffer.h
  patch_writer.h
  block_search.h diffshared.h
  applier.h byte_source.h)

# kelvane_add_library(<target> ALIAS <alias> SOURCES ... HEADERS ... [LINKS ...])
# A static library whose headers are the public interface of its folder.
function(kelvane_add_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "ALIAS" "SOURCES;HEADERS;LINKS")
  string(REPLACE ";" "|" installed_pattern "${KELVANE_INSTALLED_HEADERS}")
  add_library(${target} STATIC ${arg_SOURCES})
  add_library(${arg_ALIAS} ALIAS ${target})
  set(installed ${arg_HEADERS})
  list(FILTER installed INCLUDE REGEX "^(${installed_pattern})$")
  target_sources(${target} PUBLIC FILE_SET HEADERS
    BASE_DIRS ${CMAKE_CURRENT_SOURCE_DIR} FILES ${installed})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
  target_link_libraries(${target} PUBLIC ${arg_LINKS} PRIVATE $<BUILD_INTERFACE:kelvane::build_options>)
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
endfunction()

# kelvane_add_program(<target> SOURCES ... [LINKS ...])
function(kelvane_add_program target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINKS")
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LINKS} kelvane::build_options)
endfunction()
