lp_add_test(NAME test_fdb
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_fdb.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES fdb br_port device_table log
            LABELS root)

lp_add_test(NAME test_arp_check
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_arp_check.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES arp_check arp_packet arp_sweep device_list device_table if_query log
            LABELS root)

lp_add_test(NAME test_arp_sweep
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_arp_sweep.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES arp_packet arp_sweep device_table if_query log
            LABELS root)
