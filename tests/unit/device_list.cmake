lp_add_test(NAME test_device_list
            SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_device_list.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp
            MODULES device_list device_table log)
