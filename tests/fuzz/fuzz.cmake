# libFuzzer targets for what comes from outside: OFFER frames, ARP replies,
# UCI files and forwarding-database records.  Built with LANPROBE_FUZZ=ON
# (clang) and run by scripts/fuzz.sh; they enter a sandbox of their own, so
# they need root.  Their seed corpora are in tests/fuzz/corpus/<target>.
if(LANPROBE_FUZZ)
  foreach(t dhcp_offer arp uci fdb)
    add_executable(fuzz_${t} ${CMAKE_CURRENT_LIST_DIR}/fuzz_${t}.cpp ${CMAKE_CURRENT_LIST_DIR}/sandbox.cpp
                   ${CMAKE_CURRENT_LIST_DIR}/../support/namespaces.cpp)
    target_link_options(fuzz_${t} PRIVATE -fsanitize=fuzzer)
    target_include_directories(fuzz_${t} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/tests)
    target_link_libraries(fuzz_${t} PRIVATE lanprobe_core lanprobe_deps)
  endforeach()
endif()
