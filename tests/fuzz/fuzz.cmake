# Fuzz targets for every parser of outside data (see docs/RELIABILITY.md).
#  - LANPROBE_FUZZ=ON (clang): libFuzzer executables fuzz_<name>, run by
#    scripts/fuzz.sh.
#  - otherwise: fuzz_replay_<name>, the same target driven by replay_main.cpp,
#    and a test fuzz_corpus_<name> that runs the corpus kept in
#    tests/fuzz/corpus/<name> (regressions included) through it.
# The targets enter namespaces of their own, so they need root.
set(LP_FUZZ_DIR ${CMAKE_SOURCE_DIR}/tests/fuzz)
set(LP_FUZZ_TARGETS dhcp_offer arp_check arp_sweep uci fdb cmdline)
set(LP_FUZZ_EXTRA_arp_check ${LP_FUZZ_DIR}/arp_wire.cpp ${LP_FUZZ_DIR}/fast_waits.cpp)
set(LP_FUZZ_EXTRA_arp_sweep ${LP_FUZZ_DIR}/arp_wire.cpp ${LP_FUZZ_DIR}/fast_waits.cpp)

foreach(t ${LP_FUZZ_TARGETS})
  set(srcs ${LP_FUZZ_DIR}/fuzz_${t}.cpp ${LP_FUZZ_DIR}/fuzz_env.cpp ${LP_FUZZ_EXTRA_${t}})
  if(LANPROBE_FUZZ)
    set(exe fuzz_${t})
    add_executable(${exe} ${srcs})
    target_link_options(${exe} PRIVATE -fsanitize=fuzzer)
  else()
    set(exe fuzz_replay_${t})
    add_executable(${exe} ${srcs} ${LP_FUZZ_DIR}/replay_main.cpp)
    add_test(NAME fuzz_corpus_${t} COMMAND ${exe} ${LP_FUZZ_DIR}/corpus/${t})
    set_tests_properties(fuzz_corpus_${t} PROPERTIES LABELS "root;fuzz" TIMEOUT 300)
  endif()
  target_include_directories(${exe} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${exe} PRIVATE lanprobe_core lanprobe_deps)
endforeach()
