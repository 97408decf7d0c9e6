# End-to-end tests of the glyptora command-line tool, scripts sharing tests/cli_support.py:
# cli_roundtrip.py (every BC format, source files, command lines), cli_astc.py (every ASTC
# footprint and level, decoded by Debian's astcenc) and cli_texture_files.py (decompress, info,
# arrays and cube maps, normal maps, alpha treatments, Zstandard KTX2). They need a Python 3 with
# Pillow and NumPy (python3-pil, python3-numpy), cli_astc astcenc, cli_texture_files zstandard
# (python3-zstandard); without them a script exits with 77 and CTest reports it as skipped. The
# system interpreter is preferred because that is where the Debian packages install them.
if(TARGET glyptora_cli AND NOT WIN32)  # the scripts run the Linux tool
  find_program(GLYPTORA_CLI_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
  if(NOT GLYPTORA_CLI_PYTHON)
    find_program(GLYPTORA_CLI_PYTHON NAMES python3)
  endif()
  if(GLYPTORA_CLI_PYTHON)
    foreach(script cli_roundtrip cli_astc cli_texture_files)
      add_test(NAME ${script} COMMAND ${GLYPTORA_CLI_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/${script}.py
                                      --glyptora $<TARGET_FILE:glyptora_cli>)
    endforeach()
    set_tests_properties(cli_roundtrip cli_astc PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900 LABELS cli)
    set_tests_properties(cli_texture_files PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600 LABELS cli)
  else()
    message(WARNING "python3 not found: the command-line tool tests are not registered")
  endif()
endif()
