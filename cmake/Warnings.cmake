# One place for what the compilers are asked to say, and for what they are asked not to.  A compiler that this
# system has not met may warn of what is none of its user's business: only the presets make errors of it.
option(KOLMO_WERROR "Treat warnings as errors" OFF)
set(CMAKE_COMPILE_WARNING_AS_ERROR ${KOLMO_WERROR})
option(KOLMO_SANITIZE "Build with the sanitizers" OFF)
set(KOLMO_SANITIZERS address,undefined CACHE STRING "Which sanitizers, as -fsanitize= takes them")

add_library(kolmo_warnings INTERFACE)
target_compile_options(kolmo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Wnull-dereference)

add_library(kolmo_build INTERFACE)
target_compile_features(kolmo_build INTERFACE cxx_std_20)
if(KOLMO_SANITIZE)
  # Address sanitizer reports what a test process leaks or overruns; undefined behaviour ends it at once.
  target_compile_options(kolmo_build INTERFACE
    -fsanitize=${KOLMO_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kolmo_build INTERFACE -fsanitize=${KOLMO_SANITIZERS})
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    # What the fuzzers of tests/fuzz steer by.
    target_compile_options(kolmo_build INTERFACE -fsanitize=fuzzer-no-link)
  endif()
endif()

# What makes the compiler count which code is run: tools/coverage.
set(KOLMO_COUNTERS "" CACHE STRING "Options for the compiler and the linker, for what is measured")
target_compile_options(kolmo_build INTERFACE ${KOLMO_COUNTERS})
target_link_options(kolmo_build INTERFACE ${KOLMO_COUNTERS})
