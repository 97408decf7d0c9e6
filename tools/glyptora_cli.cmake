# The glyptora command-line tool and the image, mip, container and decode code it shares
# with the bench.
if(WIN32)
  # Windows cross builds: Debian's libstb is a Linux library, so its two headers are copied
  # into the build and compiled here (stb_implementation_windows.c).
  find_path(GLYPTORA_STB_HEADERS stb/stb_image.h PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH)
  if(GLYPTORA_STB_HEADERS)
    file(COPY ${GLYPTORA_STB_HEADERS}/stb/stb_image.h ${GLYPTORA_STB_HEADERS}/stb/stb_image_write.h
         DESTINATION ${CMAKE_BINARY_DIR}/stb_headers/stb)
    add_library(glyptora_stb STATIC ${CMAKE_CURRENT_LIST_DIR}/stb_implementation_windows.c)
    target_include_directories(glyptora_stb PUBLIC ${CMAKE_BINARY_DIR}/stb_headers)
    set(GLYPTORA_STB_INCLUDE_DIR ${CMAKE_BINARY_DIR}/stb_headers)
    set(GLYPTORA_STB_LIBRARY glyptora_stb)
  endif()
endif()
find_path(GLYPTORA_STB_INCLUDE_DIR stb/stb_image.h)
find_library(GLYPTORA_STB_LIBRARY stb)
find_package(OpenEXR CONFIG QUIET)

if(NOT GLYPTORA_STB_INCLUDE_DIR OR NOT GLYPTORA_STB_LIBRARY)
  message(WARNING "stb_image (libstb-dev) not found: the glyptora tool and the bench are not built")
  return()
endif()

add_library(glyptora_tools_support STATIC
  ${CMAKE_CURRENT_LIST_DIR}/alpha_coverage.cpp
  ${CMAKE_CURRENT_LIST_DIR}/block_decode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/container_read.cpp
  ${CMAKE_CURRENT_LIST_DIR}/containers.cpp
  ${CMAKE_CURRENT_LIST_DIR}/formats.cpp
  ${CMAKE_CURRENT_LIST_DIR}/image_io.cpp
  ${CMAKE_CURRENT_LIST_DIR}/image_write.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ktx2_zstd.cpp
  ${CMAKE_CURRENT_LIST_DIR}/mip_chain.cpp
  ${CMAKE_CURRENT_LIST_DIR}/normal_maps.cpp
  ${CMAKE_CURRENT_LIST_DIR}/output_file.cpp
  ${CMAKE_CURRENT_LIST_DIR}/premultiplied_alpha.cpp
  ${CMAKE_CURRENT_LIST_DIR}/quality_metrics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/texture_decode.cpp)
target_include_directories(glyptora_tools_support PUBLIC ${CMAKE_SOURCE_DIR} ${GLYPTORA_STB_INCLUDE_DIR})
if(WIN32)
  # The Windows twin of the all-or-nothing output file.
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/output_file.cpp PROPERTIES HEADER_FILE_ONLY ON)
  target_sources(glyptora_tools_support PRIVATE ${CMAKE_CURRENT_LIST_DIR}/output_file_windows.cpp)
endif()
# The block decoders come from the core library.
target_link_libraries(glyptora_tools_support PUBLIC glyptora_core ${GLYPTORA_STB_LIBRARY})
if(OpenEXR_FOUND)
  target_link_libraries(glyptora_tools_support PRIVATE OpenEXR::OpenEXR)
  # Public: the tool's help says whether it handles EXR images (Windows builds do not).
  target_compile_definitions(glyptora_tools_support PUBLIC GLYPTORA_TOOLS_HAVE_OPENEXR=1)
else()
  message(WARNING "OpenEXR (libopenexr-dev) not found: the glyptora tool reads and writes no EXR images")
endif()
# Zstandard supercompression of KTX2 files (libzstd-dev).
find_path(GLYPTORA_ZSTD_INCLUDE_DIR zstd.h)
find_library(GLYPTORA_ZSTD_LIBRARY zstd)
if(GLYPTORA_ZSTD_INCLUDE_DIR AND GLYPTORA_ZSTD_LIBRARY)
  target_include_directories(glyptora_tools_support PRIVATE ${GLYPTORA_ZSTD_INCLUDE_DIR})
  target_link_libraries(glyptora_tools_support PRIVATE ${GLYPTORA_ZSTD_LIBRARY})
  target_compile_definitions(glyptora_tools_support PRIVATE GLYPTORA_TOOLS_HAVE_ZSTD=1)
else()
  message(WARNING "libzstd (libzstd-dev) not found: the glyptora tool reads and writes no Zstandard KTX2 files")
endif()

add_executable(glyptora_cli
  ${CMAKE_CURRENT_LIST_DIR}/glyptora_main.cpp
  ${CMAKE_CURRENT_LIST_DIR}/command_line.cpp
  ${CMAKE_CURRENT_LIST_DIR}/decompress_command.cpp
  ${CMAKE_CURRENT_LIST_DIR}/info_command.cpp)
set_target_properties(glyptora_cli PROPERTIES OUTPUT_NAME glyptora)
# GlyptoraConvert from the shared library; decoders and helpers from the support code.
target_link_libraries(glyptora_cli PRIVATE glyptora glyptora_tools_support)
