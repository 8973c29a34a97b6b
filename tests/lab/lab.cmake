# End-to-end rows in the lab router (tests/lab/lab.py), one CTest test each.
# Needs root: every row brings up a lab of namespaces of its own.
execute_process(COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/lab.py --list
                OUTPUT_VARIABLE LP_LAB_ROWS OUTPUT_STRIP_TRAILING_WHITESPACE)
foreach(row ${LP_LAB_ROWS})
  if(LANPROBE_SANITIZE AND row STREQUAL "valgrind")
    continue()  # valgrind cannot run a daemon built with AddressSanitizer
  endif()
  add_test(NAME lab_${row}
           COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/lab.py --bin $<TARGET_FILE:lanprobe> ${row})
  set_tests_properties(lab_${row} PROPERTIES LABELS "root;lab" TIMEOUT 180)
  if(LANPROBE_SANITIZE AND row MATCHES "^term_")
    # LeakSanitizer refuses to run in a traced process; the untraced rows check leaks.
    set_tests_properties(lab_${row} PROPERTIES ENVIRONMENT
                         "ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1:detect_stack_use_after_return=1")
  endif()
endforeach()
