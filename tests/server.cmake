# The conversion server tests start real server processes (the glyptora-server launcher, built
# with the library); the fault tests also run client processes of their own.
add_executable(glyptora_server_test_client ${CMAKE_CURRENT_LIST_DIR}/support/server_client/server_test_client.cpp)
target_include_directories(glyptora_server_test_client PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(glyptora_server_test_client PRIVATE glyptora)
if(TARGET server_faults_test)
  add_dependencies(server_faults_test glyptora_server_test_client)
  target_compile_definitions(server_faults_test PRIVATE
    GLYPTORA_SERVER_TEST_CLIENT="$<TARGET_FILE:glyptora_server_test_client>")
endif()
