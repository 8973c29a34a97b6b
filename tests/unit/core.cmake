lp_add_test(NAME test_device_table SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_device_table.cpp
            MODULES log device_table)
