# What every target of this project is compiled with.
add_library(tembrix_options INTERFACE)
target_compile_definitions(tembrix_options INTERFACE _GNU_SOURCE)
target_compile_options(tembrix_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>)
target_link_options(tembrix_options INTERFACE -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)

# What is installed is hardened. Checked on the built files by Install.HasHardenedPrograms.
include(CheckPIESupported)
check_pie_supported()
set(release $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
target_compile_definitions(tembrix_options INTERFACE $<${release}:_FORTIFY_SOURCE=3>)
target_compile_options(tembrix_options INTERFACE
  $<${release}:-fstack-protector-strong> $<${release}:-fstack-clash-protection>)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  target_compile_options(tembrix_options INTERFACE $<${release}:-fcf-protection>)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  target_compile_options(tembrix_options INTERFACE $<${release}:-mbranch-protection=standard>)
endif()

# Line numbers are all that a report needs of debugging information; the rest takes a fifth of the
# compiling. Left out of UBSan: "vptr", which examines objects through a pipe and so condemns good ones
# in every test that has used up the descriptors.
if(TEMBRIX_SANITIZE)
  target_compile_options(tembrix_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined
    -fno-omit-frame-pointer -g1)
  target_link_options(tembrix_options INTERFACE -fsanitize=address,undefined)
endif()
if(TEMBRIX_COVERAGE)
  target_compile_options(tembrix_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tembrix_options INTERFACE --coverage)
  target_sources(tembrix_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${CMAKE_CURRENT_LIST_DIR}/coverage.c>)
endif()
# The analysis of gcc 12 does not know C++: what a routine returns in its caller's memory reads as
# uninitialised, "new" as possibly null, and what a destructor or a new owner frees as leaked. What is
# left for C++ is use after free, double free and close, and the like; C gets everything.
if(TEMBRIX_ANALYZER)
  target_compile_options(tembrix_options INTERFACE -fanalyzer $<$<COMPILE_LANGUAGE:CXX>:
    -Wno-analyzer-use-of-uninitialized-value -Wno-analyzer-malloc-leak
    -Wno-analyzer-file-leak -Wno-analyzer-null-dereference -Wno-analyzer-null-argument
    -Wno-analyzer-possible-null-dereference -Wno-analyzer-possible-null-argument>)
endif()
if(TEMBRIX_FUZZ)
  target_compile_options(tembrix_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
    -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(tembrix_options INTERFACE -fsanitize=address,undefined)
endif()
