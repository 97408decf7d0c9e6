# glyptora_bench: throughput and PSNR per format and quality (bench/run.sh runs it).
if(TARGET glyptora_tools_support)
  add_executable(glyptora_bench ${CMAKE_CURRENT_LIST_DIR}/glyptora_bench.cpp)
  target_link_libraries(glyptora_bench PRIVATE glyptora_tools_support glyptora_core)
endif()

# glyptora_bc7_modes_bench: single-thread speed and block hash of the BC7 mode search.
if(TARGET glyptora_tools_support)
  add_executable(glyptora_bc7_modes_bench ${CMAKE_CURRENT_LIST_DIR}/bc7_modes_bench.cpp)
  target_link_libraries(glyptora_bc7_modes_bench PRIVATE glyptora_tools_support glyptora_core)
endif()

# glyptora_bc6h_bench: single-thread speed and block hash of the BC6H encoders.
if(TARGET glyptora_tools_support)
  add_executable(glyptora_bc6h_bench ${CMAKE_CURRENT_LIST_DIR}/bc6h_bench.cpp)
  target_link_libraries(glyptora_bc6h_bench PRIVATE glyptora_tools_support glyptora_core)
endif()

# glyptora_server_bench: added cost per request of the server route against in process.
add_executable(glyptora_server_bench ${CMAKE_CURRENT_LIST_DIR}/server_bench.cpp)
target_include_directories(glyptora_server_bench PRIVATE ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(glyptora_server_bench PRIVATE glyptora)
