add_executable(ttylined_test
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_admin_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_command_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_parts_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_run.cpp
    ${PROJECT_SOURCE_DIR}/examples/ttylined_pool.cpp
    ${PROJECT_SOURCE_DIR}/examples/ttylined_record.cpp
    ${PROJECT_SOURCE_DIR}/examples/ttylined_request.cpp)
target_include_directories(ttylined_test PRIVATE
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/examples)
target_compile_definitions(ttylined_test PRIVATE
    TTYLINED_PATH="$<TARGET_FILE:ttylined>")
target_link_libraries(ttylined_test PRIVATE
    tty_static ttyline_options GTest::gtest_main)
add_dependencies(ttylined_test ttylined)
ttyline_test_headers(ttylined_test)
gtest_discover_tests(ttylined_test
    PROPERTIES TIMEOUT 60 DISCOVERY_MODE PRE_TEST)
