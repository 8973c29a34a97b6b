lp_add_test(NAME test_dhcp_frame SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_dhcp_frame.cpp
            MODULES log if_query dhcp_packet dhcp_offer)
lp_add_test(NAME test_dhcp_offer SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_dhcp_offer.cpp
            MODULES log if_query dhcp_packet dhcp_offer)
lp_add_test(NAME test_result_file SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_result_file.cpp
            MODULES log device_table result_file)
