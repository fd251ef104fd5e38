find_package(GTest REQUIRED)
include(GoogleTest)

# fontrix_add_test(NAME SOURCES... LIBS ...) builds one GoogleTest binary and registers its cases
# with CTest, run from the source tree so tests can reach their golden data by relative path.
function(fontrix_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} DISCOVERY_TIMEOUT 60)
endfunction()

# fontrix_python_tests(NAME...) gives Python tests the import path they share: the training
# package (training/) and the tests' own helpers (tests/), set here once rather than in each file.
function(fontrix_python_tests)
  set_tests_properties(${ARGN} PROPERTIES ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR}/training:${PROJECT_SOURCE_DIR}/tests")
endfunction()
