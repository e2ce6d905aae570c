# The line console, and the login daemon that offers it, as processes of their
# own.
add_library(program STATIC ${CMAKE_CURRENT_LIST_DIR}/program.cpp)
target_link_libraries(program PUBLIC system_support)
ttyline_test_headers(program)

foreach(name IN ITEMS rl_con consoled)
  add_executable(${name}_test ${CMAKE_CURRENT_LIST_DIR}/${name}_test.cpp)
  target_compile_definitions(${name}_test PRIVATE
      RL_CON_PATH="$<TARGET_FILE:rl-con>"
      CONSOLED_PATH="$<TARGET_FILE:consoled>")
  target_link_libraries(${name}_test PRIVATE program)
  ttyline_test_headers(${name}_test)
  add_dependencies(${name}_test rl-con consoled)
  gtest_discover_tests(${name}_test
      PROPERTIES TIMEOUT 120
      DISCOVERY_MODE PRE_TEST)
endforeach()
