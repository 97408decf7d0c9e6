# Compiles gpu/*.cu into one fat binary and embeds it in the core library.
# Without nvcc the library still builds; GPU encoding then reports itself unavailable.
set(GLYPTORA_HAVE_CUDA_KERNELS OFF)
file(GLOB GLYPTORA_CUDA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/gpu/*.cu)
if(GLYPTORA_ENABLE_CUDA AND NOT GLYPTORA_SANITIZE AND GLYPTORA_CUDA_SOURCES)
  find_program(GLYPTORA_NVCC nvcc HINTS /usr/local/cuda/bin ENV CUDA_PATH PATH_SUFFIXES bin)
  if(GLYPTORA_NVCC)
    set(GLYPTORA_HAVE_CUDA_KERNELS ON)
  endif()
endif()
message(STATUS "Glyptora GPU kernels: ${GLYPTORA_HAVE_CUDA_KERNELS}")
