lp_add_test(NAME test_startup
            SOURCES ${CMAKE_SOURCE_DIR}/tests/process/test_startup.cpp
                    ${CMAKE_SOURCE_DIR}/tests/support/netns.cpp ${CMAKE_SOURCE_DIR}/tests/support/lan.cpp
            LABELS root)
add_dependencies(test_startup lanprobe)
