# End-to-end lab: lanprobe in a lab router (network, mount and PID namespaces)
# with real DHCP servers and crafted responders behind its ports.  Needs root.
# Each scenario brings up and tears down its own lab; see tests/lab/scenarios.py.
set(LP_LAB_SCENARIOS
  runner      # the namespace runner itself
  selftest    # every lab server answers a DISCOVER on its port
)
foreach(s ${LP_LAB_SCENARIOS})
  add_test(NAME lab_${s}
           COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tests/lab/scenarios.py
                   --bin $<TARGET_FILE:lanprobe> ${s})
  set_tests_properties(lab_${s} PROPERTIES LABELS "root;lab" TIMEOUT 120)
endforeach()
