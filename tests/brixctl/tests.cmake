brix_test_folder(brixctl LIBS brix_support)
target_compile_definitions(test_brixctl PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>"
                                                BRIXCTL_EXECUTABLE="$<TARGET_FILE:brixctl>")
add_dependencies(test_brixctl BrixCanonCapture brixctl)
