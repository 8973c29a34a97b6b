lp_add_test(NAME test_dhcp_sweep
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_dhcp_sweep.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES log if_query device_table device_list dhcp_packet dhcp_offer dhcp_sweep
            LABELS root)
lp_add_test(NAME test_dhcp_server
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_dhcp_server.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/dnsmasq.cpp
            MODULES log if_query device_table device_list dhcp_packet dhcp_offer dhcp_sweep
                    result_file
            LABELS root)
