# tovad_add_test(NAME src... LIBS lib...)
# One GoogleTest executable, its cases registered with CTest one by one.
include(GoogleTest)
function(tovad_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    TOVAD_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
  # Parameterised cases keep their gtest names (NO_PRETTY_VALUES): the
  # printed parameter values make unreadable CTest names.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
    PROPERTIES ENVIRONMENT "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0")
endfunction()
