# glyptora_gpu_benchmark: BC1/BC3 GPU throughput on a GPU machine (see docs/gpu-validation.md).
add_executable(glyptora_gpu_benchmark ${CMAKE_CURRENT_LIST_DIR}/gpu_benchmark.cpp)
target_link_libraries(glyptora_gpu_benchmark PRIVATE glyptora_core)
