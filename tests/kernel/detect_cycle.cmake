lp_add_test(NAME test_detect_cycle
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_detect_cycle.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/dnsmasq.cpp
            ALL_MODULES
            LABELS root)
