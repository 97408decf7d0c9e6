# The block dump (tests/windows/block_dump.cpp) is built everywhere: a Windows build compares
# the blocks of its Glyptora.dll, run under wine, with those of the Linux library's dump.
add_executable(glyptora_block_dump ${CMAKE_CURRENT_LIST_DIR}/windows/block_dump.cpp)
target_include_directories(glyptora_block_dump PRIVATE ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_SOURCE_DIR}/include)
target_link_libraries(glyptora_block_dump PRIVATE glyptora)

# Windows-only tests, run through wine in cross builds (see cmake/mingw-w64-x86_64.cmake).
if(NOT WIN32)
  return()
endif()

# The Win32 server and client, with rundll32.exe server processes of Glyptora.dll.
add_executable(server_win32_test ${CMAKE_CURRENT_LIST_DIR}/windows/server_win32_test.cpp)
target_link_libraries(server_win32_test PRIVATE glyptora glyptora_core GTest::gtest_main)
add_dependencies(server_win32_test glyptora_server_test_client)
target_compile_definitions(server_win32_test PRIVATE
  GLYPTORA_SERVER_TEST_CLIENT="$<TARGET_FILE:glyptora_server_test_client>")
add_test(NAME server_win32_test COMMAND server_win32_test)
set_tests_properties(server_win32_test PROPERTIES LABELS windows TIMEOUT 300 RUN_SERIAL ON)

# The other platform twins.
add_executable(platform_win32_test ${CMAKE_CURRENT_LIST_DIR}/windows/platform_win32_test.cpp)
target_link_libraries(platform_win32_test PRIVATE glyptora_core GTest::gtest_main)
add_test(NAME platform_win32_test COMMAND platform_win32_test)
set_tests_properties(platform_win32_test PROPERTIES LABELS windows)

# A C host program that loads Glyptora.dll by name at run time.
add_executable(glyptora_host_program ${CMAKE_CURRENT_LIST_DIR}/windows/host_program.c)
add_dependencies(glyptora_host_program glyptora)
add_test(NAME windows_host_program COMMAND glyptora_host_program $<TARGET_FILE:glyptora>)
set_tests_properties(windows_host_program PROPERTIES LABELS windows PASS_REGULAR_EXPRESSION "\nok")

# Every format and quality gives the bytes of the Linux library. The Linux build to compare
# with is the one scripts/test.sh makes first; without its block dump the test is skipped.
set(GLYPTORA_LINUX_REFERENCE_BUILD ${CMAKE_SOURCE_DIR}/build/release CACHE PATH
    "Linux build of the same sources whose glyptora_block_dump the Windows blocks are compared with")
add_test(NAME windows_blocks_match_linux
         COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/windows/compare_blocks.sh
                 ${GLYPTORA_LINUX_REFERENCE_BUILD}/bin/glyptora_block_dump
                 "${CMAKE_CROSSCOMPILING_EMULATOR}" $<TARGET_FILE:glyptora_block_dump> ${CMAKE_CURRENT_BINARY_DIR})
set_tests_properties(windows_blocks_match_linux PROPERTIES LABELS windows SKIP_RETURN_CODE 77 TIMEOUT 600)

# glyptora.exe: the Linux tool's bytes, and nothing left behind by a failed conversion.
if(TARGET glyptora_cli)
  add_test(NAME windows_cli
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/windows/cli_windows.sh "${CMAKE_CROSSCOMPILING_EMULATOR}"
                   $<TARGET_FILE:glyptora_cli> ${GLYPTORA_LINUX_REFERENCE_BUILD}/bin/glyptora ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(windows_cli PROPERTIES LABELS windows PASS_REGULAR_EXPRESSION "\nok")
endif()

# The DLL's export and import tables.
find_program(GLYPTORA_MINGW_OBJDUMP NAMES ${GLYPTORA_MINGW_PREFIX}-objdump objdump)
add_test(NAME windows_dll_interface
         COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/windows/dll_interface_check.sh ${GLYPTORA_MINGW_OBJDUMP}
                 $<TARGET_FILE:glyptora>)
set_tests_properties(windows_dll_interface PROPERTIES LABELS windows)

# The CUDA fat binary lies whole in Glyptora.dll.
if(GLYPTORA_HAVE_CUDA_KERNELS)
  find_program(GLYPTORA_HOST_PYTHON NAMES python3 NO_CMAKE_FIND_ROOT_PATH)
  add_test(NAME windows_embedded_kernels
           COMMAND ${GLYPTORA_HOST_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/windows/embedded_kernels_check.py
                   $<TARGET_FILE:glyptora> ${GLYPTORA_EMBEDDED_FATBIN})
  set_tests_properties(windows_embedded_kernels PROPERTIES LABELS windows)
endif()
