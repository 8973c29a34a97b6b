lp_add_test(NAME test_fdb
            SOURCES ${CMAKE_SOURCE_DIR}/tests/kernel/test_fdb.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp
            MODULES fdb br_port device_table log
            LABELS root)
