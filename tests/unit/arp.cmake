lp_add_test(NAME test_arp_frame
            SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_arp_frame.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp
            MODULES arp_packet arp_sweep device_table if_query log)
