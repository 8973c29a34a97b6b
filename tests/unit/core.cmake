lp_add_test(NAME test_device_table SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_device_table.cpp
            MODULES log device_table)
lp_add_test(NAME test_log SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_log.cpp ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp MODULES log LABELS root)
lp_add_test(NAME test_cmd_option SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_cmd_option.cpp ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp
            MODULES startup log device_table LABELS root)
