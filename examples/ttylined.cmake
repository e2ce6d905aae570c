add_executable(ttylined
    ${CMAKE_CURRENT_LIST_DIR}/ttylined.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_admin.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_assign.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_client.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_command.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_loop.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_pool.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_record.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_request.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_socket.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ttylined_text.cpp)
target_include_directories(ttylined PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(ttylined PRIVATE
    TTYLINE_VERSION="${PROJECT_VERSION}")
target_link_libraries(ttylined PRIVATE ttyline_options)
