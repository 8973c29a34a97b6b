add_test(NAME footprint_binary COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_binary.sh $<TARGET_FILE:lanprobe>)
