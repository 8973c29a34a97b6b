# The lab's rows on the virtual routers (tests/vm/run.sh), one CTest test per
# row and CPU, label "vm".  Each boots qemu without KVM and builds the musl
# daemon first, so they are registered only with LANPROBE_SLOW_TESTS=ON.
if(LANPROBE_SLOW_TESTS)
  foreach(arch aarch64 mipsel)
    execute_process(COMMAND python3 ${CMAKE_SOURCE_DIR}/tests/lab/lab.py --list --target vm:${arch}
                    OUTPUT_VARIABLE rows OUTPUT_STRIP_TRAILING_WHITESPACE)
    foreach(row ${rows})
      add_test(NAME vm_${arch}_${row} COMMAND sh ${CMAKE_SOURCE_DIR}/tests/vm/run.sh ${arch} ${row})
      set_tests_properties(vm_${arch}_${row} PROPERTIES LABELS "vm;root" TIMEOUT 900 RUN_SERIAL TRUE)
    endforeach()
  endforeach()
endif()
