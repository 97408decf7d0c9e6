# End-to-end tests of the glyptora command-line tool (tests/cli_roundtrip.py). They need a
# Python 3 with Pillow and NumPy (Debian: python3-pil, python3-numpy); the system interpreter
# is preferred because that is where the Debian packages install them.
if(TARGET glyptora_cli AND NOT WIN32)  # the scripts run the Linux tool
  find_program(GLYPTORA_CLI_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
  if(NOT GLYPTORA_CLI_PYTHON)
    find_program(GLYPTORA_CLI_PYTHON NAMES python3)
  endif()
  if(GLYPTORA_CLI_PYTHON)
    add_test(NAME cli_roundtrip
             COMMAND ${GLYPTORA_CLI_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/cli_roundtrip.py
                     --glyptora $<TARGET_FILE:glyptora_cli>)
    # Exit code 77: Pillow or NumPy missing.
    set_tests_properties(cli_roundtrip PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900 LABELS cli)
  else()
    message(WARNING "python3 not found: the command-line tool tests are not registered")
  endif()
endif()
