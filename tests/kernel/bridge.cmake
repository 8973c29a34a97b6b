lp_add_test(NAME test_br_port
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_br_port.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES br_port device_table log
            LABELS root)
lp_add_test(NAME test_if_query
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_if_query.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES if_query log
            LABELS root)
lp_add_test(NAME test_lan_discovery
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_lan_discovery.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            MODULES lan_discovery br_port device_table uci_access log
            LABELS root)
