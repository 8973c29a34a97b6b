# End-to-end lab: lanprobe in a lab router (network, mount and PID namespaces)
# with real DHCP servers and crafted responders behind its ports.  Needs root.
# Each scenario brings up and tears down its own lab; see tests/lab/scenarios.py.
# The fault runs (tests/faults) register theirs with the same function.
include_guard(GLOBAL)

# One test PREFIX_NAME per scenario NAME: DRIVER --bin <daemon> NAME.
function(lp_add_scenario_tests prefix driver labels timeout)
  foreach(s ${ARGN})
    add_test(NAME ${prefix}_${s}
             COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/${driver} --bin $<TARGET_FILE:lanprobe> ${s})
    set_tests_properties(${prefix}_${s} PROPERTIES LABELS "${labels}" TIMEOUT ${timeout})
  endforeach()
endfunction()

set(LP_LAB_SCENARIOS
  runner       # the namespace runner itself
  selftest     # every lab server answers a DISCOVER on its port
  default_lan  # four servers found, silent and empty ports absent, ends by the deadline
  v_server     # -v on a server port
  v_silent     # -v on the silent port: passes until the deadline, empty result
  v_unknown    # -v naming no LAN port: Error line, all ports probed
  owner        # a host that also holds 192.168.1.1
  parser       # two routers, leading pad, wrong xid, br-lan's own MAC
  late         # found in the second pass (-t 1000)
  no_switch    # no switch package: placeholder kept, exit 0
  no_members   # br-lan without members: nothing probed, empty result
  first_poll   # ends at the first poll after every port answered
)
lp_add_scenario_tests(lab tests/lab/scenarios.py "root;lab" 120 ${LP_LAB_SCENARIOS})
