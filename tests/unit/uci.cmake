lp_add_test(NAME test_uci_parse SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci_parse.cpp)
lp_add_test(NAME test_uci_lookup SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci_lookup.cpp)
lp_add_test(NAME test_uci_change SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci_change.cpp)
lp_add_test(NAME test_uci_access SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci_access.cpp
            MODULES log uci_access LABELS root)
