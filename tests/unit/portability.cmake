# Byte order and word size of the bridge requests and forwarding-database
# records; runs natively and under qemu-user in the cross builds.
lp_add_test(NAME test_portability
            SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_portability.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp
            MODULES fdb br_port device_table log)
# The bridge side of SIOCDEVPRIVATE is played by the test (see the source).
target_link_options(test_portability PRIVATE -Wl,--wrap=ioctl)
# What the machine the build targets looks like, for the test to compare with
# the machine it runs on.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(mips|mips32|ppc|powerpc|s390x)$")
  set(lp_big_endian 1)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|aarch64|arm.*|mipsel|riscv64|i.86)$")
  set(lp_big_endian 0)
elseif(CMAKE_CXX_BYTE_ORDER STREQUAL "BIG_ENDIAN")
  set(lp_big_endian 1)
else()
  set(lp_big_endian 0)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|aarch64|riscv64|s390x|ppc64.*|mips64.*)$")
  set(lp_long_size 8)
else()
  set(lp_long_size 4)
endif()
target_compile_definitions(test_portability PRIVATE LANPROBE_TEST_BIG_ENDIAN=${lp_big_endian}
                                                    LANPROBE_TEST_LONG_SIZE=${lp_long_size})

# The daemon sources use only the public API of the real libubox and libuci.
add_test(NAME portability_platform_api
         COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/scripts/cross/platform_api.py ${CMAKE_SOURCE_DIR})
add_test(NAME portability_platform_api_selftest
         COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/scripts/cross/platform_api.py --self-test)
