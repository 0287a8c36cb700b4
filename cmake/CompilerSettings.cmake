# Settings of every target: warnings are errors, sanitizers as the preset asks, ccache where there
# is one.

# Without a sanitizer: for what is loaded into programs that are not the project's.
add_library(ipsla_warnings INTERFACE)
target_compile_options(ipsla_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fno-omit-frame-pointer
  # A product is rounded before it is added to something, on every processor: with fused operations
  # the same run would come to other last digits on 64-bit ARM than on x86-64.
  -ffp-contract=off
  # GCC 12 takes inserts into a vector for overflows when it optimises; the sanitized builds find
  # the real ones.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds> $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overread>)
# Boost 1.74's Asio does not compile with GCC 12's coroutines.
target_compile_definitions(ipsla_warnings
  INTERFACE BOOST_ASIO_DISABLE_CO_AWAIT BOOST_ASIO_NO_DEPRECATED)
# Its functions are compiled once, in env/asio.cpp, and not anew in every file that includes it.
target_compile_definitions(ipsla_warnings INTERFACE BOOST_ASIO_SEPARATE_COMPILATION)
# Boost as system headers, our own sources by their place below src.
target_include_directories(ipsla_warnings INTERFACE ${CMAKE_SOURCE_DIR}/src)

add_library(ipsla_settings INTERFACE)
target_link_libraries(ipsla_settings INTERFACE ipsla_warnings)

if(IPSLA_SANITIZE)
  target_compile_options(ipsla_settings
    INTERFACE -fsanitize=${IPSLA_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(ipsla_settings INTERFACE -fsanitize=${IPSLA_SANITIZE})
  if(IPSLA_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # Asio's fences, which GCC says it does not model, are not what orders handlers: the scheduler's
    # mutex does.
    target_compile_options(ipsla_settings INTERFACE -Wno-tsan)
  endif()
endif()

if(IPSLA_COVERAGE)
  # Several threads count: without atomic counters some counts would even be negative.
  target_compile_options(ipsla_settings INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(ipsla_settings INTERFACE --coverage)
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  # Without this the cache refuses whatever uses precompiled headers.
  set(launcher ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
endif()
