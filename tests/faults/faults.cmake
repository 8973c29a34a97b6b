# Fault runs in the lab: lanprobe in a lab router while servers die, ports and
# the bridge go away, /etc/config and /tmp are broken, SIGTERM arrives from
# outside and a hostile host floods a port.  Needs root.  Each test makes a few
# runs; scripts/faults.sh makes the full counts.  See tests/faults/faults.py.
set(LP_FAULT_SCENARIOS
  port_deleted    # a probed port deleted while its pass waits
  port_down       # a probed port set down while its pass waits
  server_killed   # a DHCP server killed while its pass waits
  brlan_deleted   # br-lan deleted mid-run
  brlan_down      # br-lan set down mid-run
  brlan_no_ipv4   # br-lan without an IPv4 address
  config          # corrupt, missing and unreadable files in /etc/config
  tmp_full        # /tmp without room for data, or for a new file
  term_random     # SIGTERM from outside at random moments
  term_targeted   # SIGTERM inside discovery, the ARP check, a send, the result write
  self_signals    # our own SIGTERM still ends the process at once
  hostile_lan     # crafted replies flooding a port while a real server answers
)
include(${CMAKE_SOURCE_DIR}/tests/lab/lab.cmake)   # lp_add_scenario_tests
lp_add_scenario_tests(faults tests/faults/faults.py "root;lab;faults" 240 ${LP_FAULT_SCENARIOS})

if(LANPROBE_SANITIZE)
  # These runs put the daemon under strace to deliver the signal inside a
  # chosen call; LeakSanitizer refuses to run in a traced process and ends it
  # with status 1.  Leaks of those paths are checked by the untraced SIGTERM
  # runs (term_random) and the valgrind lab run.
  set_tests_properties(faults_term_targeted PROPERTIES
                       ENVIRONMENT "ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1:detect_stack_use_after_return=1")
endif()
