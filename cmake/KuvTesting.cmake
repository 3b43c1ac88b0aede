# SPDX-License-Identifier: GPL-2.0-or-later
# Test helpers: one ctest entry per GoogleTest executable, and the staged installation.
#
# One naming scheme: a test and its executable are called unit_<area>[_<part>] (tests/unit/<area>),
# integration_<area>[_<part>] (tests/integration/<area>) or fuzz_<area> (tests/fuzz/<area>), and carry
# the label unit, integration or fuzz, so `ctest -L unit` or `ctest -R integration_service` pick them.

# Tests labelled "tsan" are the threaded ones; a ThreadSanitizer build runs just those.
add_custom_target(kuv_tsan_tests)
set(KUV_STAGE_DIR ${CMAKE_BINARY_DIR}/stage)
set(KUV_SANITIZER_DIR ${CMAKE_SOURCE_DIR}/tests/sanitizer)

# Environment every test runs with: headless Qt, sanitizer settings, where the staged tree is.
set(KUV_TEST_ENV
  "QT_QPA_PLATFORM=offscreen"
  "KUV_STAGE_DIR=${KUV_STAGE_DIR}"
  "KUV_BUILD_DIR=${CMAKE_BINARY_DIR}"
  "KUV_SOURCE_DIR=${CMAKE_SOURCE_DIR}"
  "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:detect_odr_violation=0"
  "LSAN_OPTIONS=suppressions=${KUV_SANITIZER_DIR}/lsan.supp:print_suppressions=0"
  "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
  "TSAN_OPTIONS=suppressions=${KUV_SANITIZER_DIR}/tsan.supp:halt_on_error=1:second_deadlock_stack=1"
)

# kuv_add_gtest(name SOURCES a.cpp ... LIBS lib ... [LABELS l ...] [TIMEOUT s] [STAGE] [ENV K=V ...])
# STAGE: the test runs installed binaries and needs the staged installation.
function(kuv_add_gtest name)
  cmake_parse_arguments(T "STAGE;NO_MAIN" "TIMEOUT" "SOURCES;LIBS;LABELS;ENV" ${ARGN})
  if(NOT name MATCHES "^(unit|integration)_[a-z0-9_]+$")
    message(FATAL_ERROR "test ${name}: a test is named unit_<area>[_<part>] or integration_<area>[_<part>]")
  endif()
  string(REGEX REPLACE "_.*" "" kind ${name})
  set(labels ${kind} ${T_LABELS})
  add_executable(${name} ${T_SOURCES})
  kuv_strict(${name})
  if(T_NO_MAIN)
    target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock Threads::Threads)
  else()
    target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  if(KUV_SANITIZE STREQUAL "thread")
    add_test(NAME ${name} COMMAND ${KUV_SANITIZER_DIR}/tsan-retry.sh $<TARGET_FILE:${name}>)
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${KUV_TEST_ENV};${T_ENV}"
                                           LABELS "${labels}")
  if("tsan" IN_LIST T_LABELS)
    add_dependencies(kuv_tsan_tests ${name})
  endif()
  if(T_STAGE)
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED kuv_stage)
  endif()
endfunction()

# The staged installation that integration tests copy and run.
add_test(NAME integration_stage_install
  COMMAND ${CMAKE_COMMAND} -DBUILD=${CMAKE_BINARY_DIR} -DSTAGE=${KUV_STAGE_DIR}
          -P ${CMAKE_SOURCE_DIR}/cmake/StageInstall.cmake)
set_tests_properties(integration_stage_install PROPERTIES FIXTURES_SETUP kuv_stage TIMEOUT 300 LABELS integration)

# kuv_add_fuzzer(fuzz_<area> SOURCES a.cpp ... LIBS lib ... [RUNS n] [CORPUS dir] [DICT file]): a libFuzzer
# target (clang, KUV_FUZZ=ON) plus a bounded smoke run of the same name in ctest, labelled "fuzz". The
# smoke run starts from the seed corpus (read only; new units go to a scratch corpus in the build tree)
# with the dictionary.
add_custom_target(kuv_fuzz_targets)
function(kuv_add_fuzzer name)
  cmake_parse_arguments(F "" "RUNS;CORPUS;DICT" "SOURCES;LIBS" ${ARGN})
  if(NOT name MATCHES "^fuzz_[a-z0-9_]+$")
    message(FATAL_ERROR "fuzzer ${name}: a fuzzer is named fuzz_<area>")
  endif()
  if(NOT F_RUNS)
    set(F_RUNS 20000)
  endif()
  add_executable(${name} ${F_SOURCES})
  kuv_strict(${name})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${F_LIBS})
  add_dependencies(kuv_fuzz_targets ${name})
  set(args -runs=${F_RUNS} -max_len=65536)
  if(F_DICT)
    list(APPEND args -dict=${F_DICT})
  endif()
  if(F_CORPUS)
    set(scratch ${CMAKE_CURRENT_BINARY_DIR}/${name}_corpus)
    file(MAKE_DIRECTORY ${scratch})
    list(APPEND args ${scratch} ${F_CORPUS})
  endif()
  add_test(NAME ${name} COMMAND ${name} ${args})
  set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 300 ENVIRONMENT "${KUV_TEST_ENV}")
endfunction()
