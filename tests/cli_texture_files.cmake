# End-to-end tests of `glyptora decompress` and `glyptora info`, arrays and cube maps, normal
# maps, alpha treatments and Zstandard KTX2 files (tests/cli_texture_files.py), run by the
# interpreter that tests/cli.cmake found. They need Pillow, NumPy and zstandard (python3-pil,
# python3-numpy, python3-zstandard), the ASTC cases astcenc; CTest reports the test as skipped
# without them (exit code 77).
if(TARGET glyptora_cli AND NOT WIN32 AND GLYPTORA_CLI_PYTHON)  # the scripts run the Linux tool
  add_test(NAME cli_texture_files
           COMMAND ${GLYPTORA_CLI_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/cli_texture_files.py
                   --glyptora $<TARGET_FILE:glyptora_cli>)
  set_tests_properties(cli_texture_files PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600 LABELS cli)
endif()
