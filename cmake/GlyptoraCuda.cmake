# Compiles gpu/*.cu into one CUDA fat binary and embeds it in the core library.
#
# The library never links the CUDA runtime or driver: the driver is loaded at run time
# (gpu/dynamic_library_*.cpp) and the kernels are loaded from the embedded fat binary with
# cuModuleLoadData; the fat binary is the same for Linux and Windows builds. Without nvcc (or
# with GLYPTORA_ENABLE_CUDA=OFF, or in sanitizer builds) the library still builds; GPU
# encoding then reports itself unavailable.
#
# The fat binary holds SASS for every architecture in GLYPTORA_CUDA_ARCHITECTURES and PTX
# for the newest of them, so that later GPUs compile it at load time.
set(GLYPTORA_HAVE_CUDA_KERNELS OFF)
file(GLOB GLYPTORA_CUDA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/gpu/*.cu)
if(GLYPTORA_ENABLE_CUDA AND NOT GLYPTORA_SANITIZE AND GLYPTORA_CUDA_SOURCES)
  find_program(GLYPTORA_NVCC nvcc HINTS /usr/local/cuda/bin ENV CUDA_PATH PATH_SUFFIXES bin)
  if(GLYPTORA_NVCC)
    set(GLYPTORA_HAVE_CUDA_KERNELS ON)
  endif()
endif()
message(STATUS "Glyptora GPU kernels: ${GLYPTORA_HAVE_CUDA_KERNELS}")

if(GLYPTORA_HAVE_CUDA_KERNELS)
  set(GLYPTORA_CUDA_ARCHITECTURES 75 80 86 89 90 CACHE STRING
      "Compute capabilities that get SASS in the embedded fat binary (the last one also gets PTX)")
  set(GLYPTORA_NVCC_THREADS 2 CACHE STRING "Architectures nvcc compiles in parallel")

  # The toolkit version in the form of CUDA_VERSION (13000 for 13.0): the oldest driver
  # version that can load the kernels.
  execute_process(COMMAND ${GLYPTORA_NVCC} --version OUTPUT_VARIABLE nvcc_version_text ERROR_QUIET)
  if(NOT nvcc_version_text MATCHES "release ([0-9]+)\\.([0-9]+)")
    message(FATAL_ERROR "Cannot read the CUDA version from ${GLYPTORA_NVCC} --version")
  endif()
  math(EXPR GLYPTORA_CUDA_KERNEL_VERSION "${CMAKE_MATCH_1} * 1000 + ${CMAKE_MATCH_2} * 10")
  message(STATUS "Glyptora GPU kernels built with CUDA ${CMAKE_MATCH_1}.${CMAKE_MATCH_2} (${GLYPTORA_CUDA_KERNEL_VERSION})")

  set(gencode_flags)
  foreach(arch IN LISTS GLYPTORA_CUDA_ARCHITECTURES)
    list(APPEND gencode_flags -gencode arch=compute_${arch},code=sm_${arch})
  endforeach()
  list(GET GLYPTORA_CUDA_ARCHITECTURES -1 newest_arch)
  list(APPEND gencode_flags -gencode arch=compute_${newest_arch},code=compute_${newest_arch})

  # One translation unit holding every .cu file, compiled whole (no device linking).
  set(kernel_dir ${CMAKE_BINARY_DIR}/glyptora_kernels)
  set(umbrella_text "// Generated: every gpu/*.cu in one translation unit.\n")
  foreach(source IN LISTS GLYPTORA_CUDA_SOURCES)
    string(APPEND umbrella_text "#include \"${source}\"\n")
  endforeach()
  file(CONFIGURE OUTPUT ${kernel_dir}/glyptora_kernels.cu CONTENT "${umbrella_text}")

  # Device code is compiled without contracting multiply-adds so that the shared block
  # functions round as they do on the CPU.
  set(fatbin ${kernel_dir}/glyptora_kernels.fatbin)
  # A build of the same sources for another host (the Linux build, for the Windows cross
  # build) has made this very file already: it may be embedded instead of compiled again.
  set(GLYPTORA_CUDA_FATBIN "" CACHE FILEPATH "Fat binary of these gpu/*.cu sources, compiled already, to embed")
  if(GLYPTORA_CUDA_FATBIN)
    set(fatbin ${GLYPTORA_CUDA_FATBIN})
  else()
    add_custom_command(
      OUTPUT ${fatbin}
      COMMAND ${GLYPTORA_NVCC} --fatbin -std=c++20 -O3 --fmad=false --threads ${GLYPTORA_NVCC_THREADS}
              -I${CMAKE_SOURCE_DIR} ${gencode_flags}
              -MD -MF ${kernel_dir}/glyptora_kernels.d -MT ${fatbin}
              -o ${fatbin} ${kernel_dir}/glyptora_kernels.cu
      DEPENDS ${GLYPTORA_CUDA_SOURCES} ${kernel_dir}/glyptora_kernels.cu
      DEPFILE ${kernel_dir}/glyptora_kernels.d
      COMMENT "Compiling the GPU kernels into a fat binary (${GLYPTORA_CUDA_ARCHITECTURES})"
      VERBATIM)
  endif()

  set(GLYPTORA_EMBEDDED_FATBIN ${fatbin})  # for the tests

  # The fat binary goes into read-only data through the assembler's .incbin.
  set(embed_source ${kernel_dir}/embedded_kernels.cpp)
  file(CONFIGURE OUTPUT ${embed_source} @ONLY CONTENT [=[
// Generated: the CUDA fat binary of the GPU kernels, embedded in the library.
#include "gpu/kernel_image.h"

// ELF: hidden symbols in .rodata; PE (Windows DLL): read-only data, not exported, and the
// COFF assembler returns to .text (it has no .previous).
#if defined(_WIN32)
#define GLYPTORA_KERNELS_SECTION "  .section .rdata$glyptora_kernels,\"dr\"\n"
#define GLYPTORA_KERNELS_HIDE(symbol) ""
#define GLYPTORA_KERNELS_HIDDEN
#define GLYPTORA_KERNELS_SECTION_END "  .text\n"
#else
#define GLYPTORA_KERNELS_SECTION "  .section .rodata.glyptora_kernels,\"a\",@progbits\n"
#define GLYPTORA_KERNELS_HIDE(symbol) "  .hidden " symbol "\n"
#define GLYPTORA_KERNELS_HIDDEN __attribute__((visibility("hidden")))
#define GLYPTORA_KERNELS_SECTION_END "  .previous\n"
#endif

__asm__(
    GLYPTORA_KERNELS_SECTION
    "  .balign 64\n"
    "  .globl glyptora_embedded_kernels_begin\n"
    GLYPTORA_KERNELS_HIDE("glyptora_embedded_kernels_begin")
    "glyptora_embedded_kernels_begin:\n"
    "  .incbin \"@fatbin@\"\n"
    "  .globl glyptora_embedded_kernels_end\n"
    GLYPTORA_KERNELS_HIDE("glyptora_embedded_kernels_end")
    "glyptora_embedded_kernels_end:\n"
    GLYPTORA_KERNELS_SECTION_END);

extern "C" GLYPTORA_KERNELS_HIDDEN const unsigned char glyptora_embedded_kernels_begin[];
extern "C" GLYPTORA_KERNELS_HIDDEN const unsigned char glyptora_embedded_kernels_end[];

namespace glyptora_internal {
KernelImage embeddedKernelImage() {
    return KernelImage{glyptora_embedded_kernels_begin,
                       size_t(glyptora_embedded_kernels_end - glyptora_embedded_kernels_begin)};
}
}  // namespace glyptora_internal
]=])
  set_source_files_properties(${embed_source} PROPERTIES OBJECT_DEPENDS ${fatbin})
  add_custom_target(glyptora_kernels DEPENDS ${fatbin})
  target_sources(glyptora_core PRIVATE ${embed_source})
  add_dependencies(glyptora_core glyptora_kernels)
  target_compile_definitions(glyptora_core PUBLIC GLYPTORA_HAVE_CUDA_KERNELS=1
                                           PRIVATE GLYPTORA_CUDA_KERNEL_VERSION=${GLYPTORA_CUDA_KERNEL_VERSION})
endif()
