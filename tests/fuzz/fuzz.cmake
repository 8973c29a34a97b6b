# libFuzzer targets for what comes from outside: OFFER frames, ARP replies,
# UCI files, forwarding-database records and the survey's reply options.  Built with LANPROBE_FUZZ=ON
# (clang); each is a CTest test (label "fuzz") that fuzzes for
# LANPROBE_FUZZ_SECONDS from its seed corpus in tests/fuzz/corpus/<target>,
# new inputs going to the build's fuzz/corpus/<target>.  They enter a sandbox
# of their own, so they need root.  tests/fuzz/run.sh prints their figures.
if(LANPROBE_FUZZ)
  set(LANPROBE_FUZZ_SECONDS 8 CACHE STRING "seconds each fuzz test runs")
  foreach(t dhcp_offer arp uci fdb survey_options)
    if(t STREQUAL survey_options AND NOT TARGET lanprobe_survey)
      continue()
    endif()
    add_executable(fuzz_${t} ${CMAKE_CURRENT_LIST_DIR}/fuzz_${t}.cpp ${CMAKE_CURRENT_LIST_DIR}/sandbox.cpp
                   ${CMAKE_CURRENT_LIST_DIR}/../support/namespaces.cpp)
    target_link_options(fuzz_${t} PRIVATE -fsanitize=fuzzer)
    target_include_directories(fuzz_${t} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/tests)
    target_link_libraries(fuzz_${t} PRIVATE lanprobe_core lanprobe_deps)
    if(t STREQUAL survey_options)
      target_link_libraries(fuzz_${t} PRIVATE lanprobe_survey)
    endif()
    set(out ${CMAKE_BINARY_DIR}/fuzz/corpus/${t})
    file(MAKE_DIRECTORY ${out} ${CMAKE_BINARY_DIR}/fuzz/artifacts)
    # -close_fd_mask=3: the daemon's log and libuci's error lines would drown
    # libFuzzer's figures; sanitizer reports and failed checks still come out.
    add_test(NAME fuzz_${t} COMMAND fuzz_${t} -max_total_time=${LANPROBE_FUZZ_SECONDS} -timeout=20
             -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1
             -artifact_prefix=${CMAKE_BINARY_DIR}/fuzz/artifacts/${t}- ${out} ${CMAKE_CURRENT_LIST_DIR}/corpus/${t})
    set_tests_properties(fuzz_${t} PROPERTIES LABELS "fuzz;root" TIMEOUT 600
                         FAIL_REGULAR_EXPRESSION "fuzz check failed|ERROR: (AddressSanitizer|libFuzzer)|runtime error")
  endforeach()
endif()
