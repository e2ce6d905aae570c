add_executable(daemon_util_test
    daemon_util_test.cpp
    daemon_relay_test.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_util.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_relay.cpp)
target_include_directories(daemon_util_test PRIVATE
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(daemon_util_test PRIVATE
    GTest::gtest_main ttyline_options)
gtest_discover_tests(daemon_util_test
    PROPERTIES TIMEOUT 30
    DISCOVERY_MODE PRE_TEST)
