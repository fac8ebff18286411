# Warnings, hardening and sanitizers for all code of this repository: link orvexd::options.
set(ORVEXD_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize= (empty: none)")

add_library(orvexd_options INTERFACE)
add_library(orvexd::options ALIAS orvexd_options)

target_compile_options(orvexd_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Finds overlaps that do not exist in "text" + std::string (GCC bug 105651, mended in 13).
  target_compile_options(orvexd_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Files above 2 GiB, and a clock that goes on after January 2038.
  target_compile_definitions(orvexd_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

if(ORVEXD_SANITIZE)
  # Reports name lines, not variables: -g1 is enough and much quicker to build.
  add_compile_options(-fsanitize=${ORVEXD_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${ORVEXD_SANITIZE})
  if(ORVEXD_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# Takes the thread sanitizer from programs whose only second thread is GDBus's own: it hands messages over
# under locks that are futexes, which the sanitizer does not see.
function(orvexd_without_thread_sanitizer)
  if(ORVEXD_SANITIZE MATCHES "thread")
    foreach(target IN LISTS ARGN)
      target_compile_options(${target} PRIVATE -fno-sanitize=thread)
      target_link_options(${target} PRIVATE -fno-sanitize=thread)
    endforeach()
  endif()
endfunction()

if(CMAKE_BUILD_TYPE STREQUAL "Release")
  # _FORTIFY_SOURCE is set anew: some distributions predefine another level.
  target_compile_options(orvexd_options INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    -U_FORTIFY_SOURCE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:ORVEXD_TEST_CODE>>>:-D_FORTIFY_SOURCE=2>)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64|i.86")
    target_compile_options(orvexd_options INTERFACE -fcf-protection=full)
  endif()
  target_link_options(orvexd_options INTERFACE
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
else()
  target_compile_definitions(orvexd_options INTERFACE _GLIBCXX_ASSERTIONS)
endif()

# Position-independent executables; without this check CMake compiles for PIE but does not link one.
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

# Test code is compiled for a short build; what it tests keeps the flags of its preset. Fuzzers are tests,
# too, but time spent in them counts.
function(orvexd_test_code)
  if(NOT ORVEXD_FUZZ)
    foreach(target IN LISTS ARGN)
      target_compile_options(${target} PRIVATE -O0)
      # Fortified library calls want an optimised build.
      set_target_properties(${target} PROPERTIES ORVEXD_TEST_CODE ON)
    endforeach()
  endif()
endfunction()
