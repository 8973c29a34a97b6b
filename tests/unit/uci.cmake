lp_add_test(NAME test_uci SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci.cpp
            ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp)
lp_add_test(NAME test_uci_access SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uci_access.cpp
            ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp MODULES log uci_access LABELS root)
