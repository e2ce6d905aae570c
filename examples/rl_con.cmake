# The vocabulary of keys is the line library's own table: a library hides it,
# and a copy would fall behind.
add_executable(rl-con
    ${CMAKE_CURRENT_LIST_DIR}/rl_con.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rl_con_command.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rl_con_terminal.cpp
    ${CMAKE_CURRENT_LIST_DIR}/daemon_util.cpp
    ${PROJECT_SOURCE_DIR}/tty/keys.cpp)
target_include_directories(rl-con PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(rl-con PRIVATE ttyline::tty ttyline_options)
