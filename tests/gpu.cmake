# GPU host tests: a scripted stand-in for the CUDA driver library, built several times with
# one entry point left out each, so that the driver checks can be exercised without a GPU.
set(fake_cuda_dir ${CMAKE_CURRENT_BINARY_DIR}/fake_cuda)
set(fake_cuda_variants "" cuStreamCreate cuModuleLoadDataEx cuDriverGetVersion)
foreach(missing IN LISTS fake_cuda_variants)
  if(missing)
    set(target glyptora_fake_cuda_without_${missing})
  else()
    set(target glyptora_fake_cuda)
  endif()
  add_library(${target} SHARED ${CMAKE_CURRENT_SOURCE_DIR}/support_fake_cuda/fake_cuda.c)
  set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${fake_cuda_dir} C_VISIBILITY_PRESET hidden)
  target_link_libraries(${target} PRIVATE Threads::Threads)
  if(missing)
    target_compile_definitions(${target} PRIVATE FAKE_CUDA_WITHOUT_${missing})
  endif()
endforeach()

foreach(test gpu_driver_test gpu_encode_host_test)
  if(TARGET ${test})
    target_link_libraries(${test} PRIVATE glyptora_fake_cuda)
    target_include_directories(${test} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support_fake_cuda)
    add_dependencies(${test} glyptora_fake_cuda glyptora_fake_cuda_without_cuStreamCreate
                     glyptora_fake_cuda_without_cuModuleLoadDataEx glyptora_fake_cuda_without_cuDriverGetVersion)
    target_compile_definitions(${test} PRIVATE
      GLYPTORA_FAKE_CUDA="$<TARGET_FILE:glyptora_fake_cuda>"
      GLYPTORA_FAKE_CUDA_WITHOUT_STREAM="$<TARGET_FILE:glyptora_fake_cuda_without_cuStreamCreate>"
      GLYPTORA_FAKE_CUDA_WITHOUT_LOADEX="$<TARGET_FILE:glyptora_fake_cuda_without_cuModuleLoadDataEx>"
      GLYPTORA_FAKE_CUDA_WITHOUT_VERSION="$<TARGET_FILE:glyptora_fake_cuda_without_cuDriverGetVersion>")
  endif()
endforeach()

# The kernels compile the scalar vector backend (device code has no SSE); the tests that run or
# check the kernels' arithmetic on the host use it as well.
foreach(test gpu_encode_host_test gpu_device_test)
  if(TARGET ${test})
    target_compile_definitions(${test} PRIVATE GLYPTORA_SIMD_SCALAR=1)
  endif()
endforeach()

# The embedding test reads the shared library itself.
if(TARGET gpu_embedding_test)
  add_dependencies(gpu_embedding_test glyptora)
  target_compile_definitions(gpu_embedding_test PRIVATE GLYPTORA_SHARED_LIBRARY="$<TARGET_FILE:glyptora>")
endif()
