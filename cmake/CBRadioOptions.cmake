# The build's options, the check that the chosen compiler can honour them, and the parts that
# need a package the machine may lack. Every part left out says so once, on a line starting with
# "cbradio:" (scripts/build.sh shows those lines); cbradio_summary() lists what will be built.

option(CBRADIO_WERROR "Treat compiler warnings in the project's own code as errors (gcc)" ON)
option(CBRADIO_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(CBRADIO_TSAN "Build with ThreadSanitizer (not together with CBRADIO_SANITIZE or CBRADIO_FUZZ)" OFF)
option(CBRADIO_FUZZ "Build the fuzz targets with libFuzzer (needs clang); no benchmarks then" OFF)
# ON builds the part or fails, OFF leaves it out, AUTO builds it when its framework is installed.
set(CBRADIO_TESTS AUTO CACHE STRING "Build the tests and the fuzz replays: ON, OFF or AUTO (when GoogleTest is installed)")
set(CBRADIO_BENCHMARKS AUTO CACHE STRING "Build the benchmarks: ON, OFF or AUTO (when Google Benchmark is installed)")
set_property(CACHE CBRADIO_TESTS PROPERTY STRINGS ON OFF AUTO)
set_property(CACHE CBRADIO_BENCHMARKS PROPERTY STRINGS ON OFF AUTO)
set(CBRADIO_FUZZ_SECONDS 15 CACHE STRING "How long ctest runs each fuzz target")

set_property(GLOBAL PROPERTY CBRADIO_BUILT "")

# cbradio_built(<what>...): adds to the summary's list of what is built.
function(cbradio_built)
  set_property(GLOBAL APPEND PROPERTY CBRADIO_BUILT ${ARGN})
endfunction()

# cbradio_left_out(<what> <why>): one line saying a part is not built and why.
function(cbradio_left_out what why)
  message(STATUS "cbradio: ${what}: not built, because ${why}")
endfunction()

# cbradio_optional_part(<result-var> <option-var> <what> <found> <why-missing>)
# Sets <result-var> to whether <what> is built: never when the option is OFF, always when it is
# ON (and fails when <found> is false), otherwise when <found>.
function(cbradio_optional_part result option what found why_missing)
  set(value "${${option}}")
  if(value STREQUAL "AUTO")
    set(wanted AUTO)
  elseif(value)
    set(wanted ON)
  else()
    set(wanted OFF)
  endif()
  if(wanted STREQUAL "OFF")
    cbradio_left_out("${what}" "${option}=${value}")
    set(${result} OFF PARENT_SCOPE)
  elseif(found)
    cbradio_built("${what}")
    set(${result} ON PARENT_SCOPE)
  elseif(wanted STREQUAL "ON")
    message(FATAL_ERROR "cbradio: ${what} cannot be built, because ${why_missing}; "
                        "install it (bash scripts/setup.sh --no-build) or configure with -D${option}=OFF")
  else()
    cbradio_left_out("${what}" "${why_missing}; -D${option}=OFF silences this")
    set(${result} OFF PARENT_SCOPE)
  endif()
endfunction()

# A sanitizer or libFuzzer build needs its run-time libraries; without them every link would fail
# with a message about a missing library, so say which package holds them.
function(cbradio_check_runtime flags package)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "${flags}")
  set(CMAKE_REQUIRED_LINK_OPTIONS ${flags})
  set(CMAKE_REQUIRED_QUIET ON)
  if(flags MATCHES "fuzzer")
    set(source "#include <cstdint>\n#include <cstddef>\nextern \"C\" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }")
  else()
    set(source "int main() { return 0; }")
  endif()
  string(MAKE_C_IDENTIFIER "CBRADIO_RUNTIME_${flags}" var)
  check_cxx_source_compiles("${source}" ${var})
  if(NOT ${var})
    message(FATAL_ERROR "cbradio: ${CMAKE_CXX_COMPILER} cannot link with ${flags}: install ${package} "
                        "(bash scripts/setup.sh --no-build)")
  endif()
endfunction()

if(CBRADIO_FUZZ AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "cbradio: CBRADIO_FUZZ needs clang, not ${CMAKE_CXX_COMPILER_ID}: configure with "
                      "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ (bash scripts/build.sh build-fuzz does)")
endif()

# Lists, at the end of the configure step, what `ninja` will build in this folder.
function(cbradio_summary)
  get_property(built GLOBAL PROPERTY CBRADIO_BUILT)
  list(JOIN built ", " built)
  set(flavour "${CMAKE_BUILD_TYPE}, ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}")
  if(CBRADIO_SANITIZE)
    string(APPEND flavour ", AddressSanitizer + UBSan")
  elseif(CBRADIO_TSAN)
    string(APPEND flavour ", ThreadSanitizer")
  elseif(CBRADIO_FUZZ)
    string(APPEND flavour ", libFuzzer")
  endif()
  if(CBRADIO_WARNINGS MATCHES "-Werror")
    string(APPEND flavour ", warnings are errors")
  endif()
  message(STATUS "cbradio: building (${flavour}): ${built}")
endfunction()
