# A daemon under a tracer. The sanitizers' runtimes cannot be traced.
if(TTYLINE_SANITIZE OR TTYLINE_COVERAGE)
  return()
endif()

add_executable(fault_daemon ${CMAKE_CURRENT_LIST_DIR}/fault_daemon.cpp)
target_link_libraries(fault_daemon PRIVATE system_support)
add_executable(system_faults_test ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp)
target_link_libraries(system_faults_test PRIVATE program system_support)
target_compile_definitions(system_faults_test PRIVATE
    FAULT_DAEMON="$<TARGET_FILE:fault_daemon>")
add_dependencies(system_faults_test fault_daemon)
ttyline_test_headers(fault_daemon system_faults_test)
gtest_discover_tests(system_faults_test
    PROPERTIES TIMEOUT 120
    DISCOVERY_MODE PRE_TEST)
