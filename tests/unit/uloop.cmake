lp_add_test(NAME test_uloop SOURCES ${CMAKE_SOURCE_DIR}/tests/unit/test_uloop.cpp ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp)
