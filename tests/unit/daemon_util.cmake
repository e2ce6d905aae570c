add_executable(daemon_util_test
    daemon_util_test.cpp
    daemon_relay_test.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_util.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_relay.cpp)
target_include_directories(daemon_util_test PRIVATE
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(daemon_util_test PRIVATE
    GTest::gtest_main ttyline_options)
ttyline_test_headers(daemon_util_test)
gtest_discover_tests(daemon_util_test
    PROPERTIES TIMEOUT 30
    DISCOVERY_MODE PRE_TEST)

# What needs the libraries besides.
add_executable(daemon_control_test
    daemon_control_test.cpp
    rl_con_command_test.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_control.cpp
    ${PROJECT_SOURCE_DIR}/examples/daemon_util.cpp
    ${PROJECT_SOURCE_DIR}/examples/rl_con_command.cpp
    ${PROJECT_SOURCE_DIR}/examples/rl_con_terminal.cpp
    ${PROJECT_SOURCE_DIR}/examples/ttylined_socket.cpp
    ${PROJECT_SOURCE_DIR}/examples/ttylined_text.cpp)
target_include_directories(daemon_control_test PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(daemon_control_test PRIVATE
    vc_static tty_static GTest::gtest_main ttyline_options)
ttyline_test_headers(daemon_control_test)
gtest_discover_tests(daemon_control_test
    PROPERTIES TIMEOUT 30
    DISCOVERY_MODE PRE_TEST)
