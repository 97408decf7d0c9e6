# GPU host tests run against a stand-in for the CUDA driver library (support_fake_cuda): device
# memory is host memory, and every kernel launch runs the kernel's own per-thread function
# (gpu/gpu_kernel_bodies.h) on the CPU. Three more stand-ins are drivers too old to be used.
set(fake_cuda_dir ${CMAKE_CURRENT_BINARY_DIR}/fake_cuda)
add_library(glyptora_fake_cuda SHARED ${CMAKE_CURRENT_SOURCE_DIR}/support_fake_cuda/fake_cuda.cpp)
target_include_directories(glyptora_fake_cuda PRIVATE ${CMAKE_SOURCE_DIR})
# The BC7 and BC6H stage functions reach the core's assertion handler; the stand-in carries its own copy.
target_link_libraries(glyptora_fake_cuda PRIVATE glyptora_core)
# The kernels' arithmetic as nvcc compiles it: the scalar vector backend (device code has no
# SSE) and the colour fit inline, not forwarded to the library's SSE entry points.
set(kernel_arithmetic GLYPTORA_SIMD_SCALAR=1 GLYPTORA_COLOUR_BLOCK_INLINE=1)
target_compile_definitions(glyptora_fake_cuda PRIVATE ${kernel_arithmetic})
set_target_properties(glyptora_fake_cuda PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${fake_cuda_dir}
                      CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
if(WIN32)
  # The stand-in's own symbols, as on Linux; none of the static libraries it links.
  target_link_options(glyptora_fake_cuda PRIVATE -Wl,--export-all-symbols
                      -Wl,--exclude-libs,libglyptora_core.a:libpthread.a:libstdc++.a:libgcc.a:libgcc_eh.a)
endif()

set(old_cuda_drivers)
foreach(entry_points 0 1 2)
  add_library(glyptora_old_cuda_${entry_points} SHARED ${CMAKE_CURRENT_SOURCE_DIR}/support_fake_cuda/old_driver.c)
  set_target_properties(glyptora_old_cuda_${entry_points} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${fake_cuda_dir}
                        C_VISIBILITY_PRESET hidden)
  target_compile_definitions(glyptora_old_cuda_${entry_points} PRIVATE FAKE_CUDA_ENTRY_POINTS=${entry_points})
  list(APPEND old_cuda_drivers glyptora_old_cuda_${entry_points})
endforeach()

foreach(test gpu_driver_test gpu_encode_host_test gpu_bc7_host_test gpu_bc6h_host_test)
  if(TARGET ${test})
    target_link_libraries(${test} PRIVATE glyptora_fake_cuda)
    target_include_directories(${test} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support_fake_cuda)
    add_dependencies(${test} ${old_cuda_drivers})
    target_compile_definitions(${test} PRIVATE
      GLYPTORA_FAKE_CUDA="$<TARGET_FILE:glyptora_fake_cuda>"
      GLYPTORA_CUDA_BEFORE_2_0="$<TARGET_FILE:glyptora_old_cuda_0>"
      GLYPTORA_CUDA_BEFORE_2_1="$<TARGET_FILE:glyptora_old_cuda_1>"
      GLYPTORA_CUDA_BEFORE_2_2="$<TARGET_FILE:glyptora_old_cuda_2>")
  endif()
endforeach()

# The tests compute the blocks the kernels must write with the kernels' arithmetic too.
foreach(test gpu_encode_host_test gpu_bc7_host_test gpu_bc6h_host_test gpu_device_test)
  if(TARGET ${test})
    target_compile_definitions(${test} PRIVATE ${kernel_arithmetic})
  endif()
endforeach()

# The embedding test reads the shared library itself.
if(TARGET gpu_embedding_test)
  add_dependencies(gpu_embedding_test glyptora)
  target_compile_definitions(gpu_embedding_test PRIVATE GLYPTORA_SHARED_LIBRARY="$<TARGET_FILE:glyptora>")
endif()
