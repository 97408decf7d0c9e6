# End-to-end ASTC tests of the glyptora command-line tool (tests/cli_astc.py): every footprint
# and level through `glyptora convert`, decoded by Debian's astcenc. They need a Python 3 with
# Pillow and NumPy (python3-pil, python3-numpy) and astcenc; without them CTest reports the
# test as skipped.
if(TARGET glyptora_cli AND NOT WIN32)  # the scripts run the Linux tool
  find_program(GLYPTORA_CLI_ASTC_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
  if(NOT GLYPTORA_CLI_ASTC_PYTHON)
    find_program(GLYPTORA_CLI_ASTC_PYTHON NAMES python3)
  endif()
  if(GLYPTORA_CLI_ASTC_PYTHON)
    add_test(NAME cli_astc
             COMMAND ${GLYPTORA_CLI_ASTC_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/cli_astc.py
                     --glyptora $<TARGET_FILE:glyptora_cli>)
    # Exit code 77: Pillow, NumPy or astcenc missing.
    set_tests_properties(cli_astc PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900 LABELS cli)
  else()
    message(WARNING "python3 not found: the ASTC command-line tests are not registered")
  endif()
endif()
