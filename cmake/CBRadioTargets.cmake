# Compiler settings and small helpers shared by every folder of the project.

# Warnings are errors on our own code (third-party headers come in as system headers) with the
# gcc the project is kept clean with; CBRADIO_WERROR=OFF lets a newer compiler's new warnings
# through as warnings. Clang (the fuzz build) only warns.
set(CBRADIO_WARNINGS -Wall -Wextra)
if(CBRADIO_WERROR AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND CBRADIO_WARNINGS -Werror)
endif()

set(CBRADIO_SANITIZER_FLAGS "")
if(CBRADIO_SANITIZE)
  set(CBRADIO_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
endif()
if(CBRADIO_TSAN)
  if(CBRADIO_SANITIZE OR CBRADIO_FUZZ)
    message(FATAL_ERROR "CBRADIO_TSAN cannot be combined with CBRADIO_SANITIZE or CBRADIO_FUZZ")
  endif()
  set(CBRADIO_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(CBRADIO_FUZZ)
  # Libraries get coverage instrumentation; only fuzz executables link the libFuzzer main.
  set(CBRADIO_SANITIZER_FLAGS -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  cbradio_check_runtime("-fsanitize=fuzzer" "libclang-rt-14-dev")
endif()
if(CBRADIO_SANITIZE)
  cbradio_check_runtime("-fsanitize=address,undefined" "libasan8 and libubsan1 (g++ brings them)")
elseif(CBRADIO_TSAN)
  cbradio_check_runtime("-fsanitize=thread" "libtsan2")
endif()

function(cbradio_target_defaults target)
  target_compile_options(${target} PRIVATE ${CBRADIO_WARNINGS} ${CBRADIO_SANITIZER_FLAGS})
  target_link_options(${target} PRIVATE ${CBRADIO_SANITIZER_FLAGS})
endfunction()

# Every test program includes gtest.h, whose parsing is a quarter of a test source's compile time:
# it is parsed once into a precompiled header that all test programs reuse.
function(cbradio_gtest_pch)
  set(source ${PROJECT_BINARY_DIR}/cbradio_gtest_pch.cpp)
  file(WRITE ${source} "// The precompiled GoogleTest header of the test programs is made with this.\n")
  add_library(cbradio_gtest_pch OBJECT ${source})
  cbradio_target_defaults(cbradio_gtest_pch)
  target_link_libraries(cbradio_gtest_pch PRIVATE GTest::gtest)
  target_precompile_headers(cbradio_gtest_pch PRIVATE <gtest/gtest.h>)
endfunction()

# cbradio_add_gtest(NAME <name> SOURCES ... LIBS ... [LABEL unit|integration|e2e] [TIMEOUT s])
# One GoogleTest executable; its tests are listed when ctest runs, not at build time.
function(cbradio_add_gtest)
  cmake_parse_arguments(T "" "NAME;LABEL;TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  cbradio_target_defaults(${T_NAME})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  target_include_directories(${T_NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  target_precompile_headers(${T_NAME} REUSE_FROM cbradio_gtest_pch)
  gtest_discover_tests(${T_NAME}
    DISCOVERY_MODE PRE_TEST
    TEST_LIST ${T_NAME}_TESTS
    PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT})
  # The environment goes on in a file of its own, read after the discovered tests: a list passed
  # through gtest_discover_tests' PROPERTIES is split at every semicolon, which left only the
  # first variable in the tests' environment.
  set(environment_file ${CMAKE_CURRENT_BINARY_DIR}/${T_NAME}_environment.cmake)
  file(WRITE ${environment_file}
    "if(${T_NAME}_TESTS)\n"
    "  set_tests_properties(\${${T_NAME}_TESTS} PROPERTIES ENVIRONMENT\n"
    "    [==[CBRADIO_BUILD_DIR=${PROJECT_BINARY_DIR};CBRADIO_SOURCE_DIR=${PROJECT_SOURCE_DIR}]==])\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${environment_file})
endfunction()

# cbradio_add_fuzz(NAME <name> SOURCES ... LIBS ...)
# With CBRADIO_FUZZ the target is a libFuzzer binary that ctest runs for CBRADIO_FUZZ_SECONDS;
# otherwise it is linked with a small driver that replays the seed corpus, so gcc builds keep it
# compiling and its seeds stay crash-free under the sanitizers.
function(cbradio_add_fuzz)
  cmake_parse_arguments(F "" "NAME" "SOURCES;LIBS" ${ARGN})
  set(corpus ${PROJECT_SOURCE_DIR}/fuzz/corpus/${F_NAME})
  if(CBRADIO_FUZZ)
    add_executable(${F_NAME} ${F_SOURCES})
    cbradio_target_defaults(${F_NAME})
    target_link_options(${F_NAME} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/fuzz-corpus/${F_NAME})
    add_test(NAME fuzz_${F_NAME}
      COMMAND ${F_NAME} -max_total_time=${CBRADIO_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=2048
              -print_final_stats=1 ${PROJECT_BINARY_DIR}/fuzz-corpus/${F_NAME} ${corpus})
    set_tests_properties(fuzz_${F_NAME} PROPERTIES LABELS fuzz TIMEOUT 600)
  else()
    add_executable(${F_NAME} ${F_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
    cbradio_target_defaults(${F_NAME})
    target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
    add_test(NAME replay_${F_NAME} COMMAND ${F_NAME} ${corpus})
    set_tests_properties(replay_${F_NAME} PROPERTIES LABELS fuzz TIMEOUT 120)
  endif()
endfunction()
