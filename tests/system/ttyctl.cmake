add_executable(ttyctl_test
    ${CMAKE_CURRENT_LIST_DIR}/ttyctl_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttyctl_guard_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttyctl_run.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/wait.cpp
    ${PROJECT_SOURCE_DIR}/tools/ttyctl_guard.cpp
    ${PROJECT_SOURCE_DIR}/tools/ttyctl_text.cpp)
target_include_directories(ttyctl_test PRIVATE
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tools)
target_compile_definitions(ttyctl_test PRIVATE
    TTYCTL_PATH="$<TARGET_FILE:ttyctl>"
    TTYLINE_VERSION="${PROJECT_VERSION}")
target_link_libraries(ttyctl_test PRIVATE
    tty_static ttyline_options GTest::gtest_main)
add_dependencies(ttyctl_test ttyctl)
ttyline_test_headers(ttyctl_test)
gtest_discover_tests(ttyctl_test
    PROPERTIES TIMEOUT 120 DISCOVERY_MODE PRE_TEST)
