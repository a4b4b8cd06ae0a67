brix_test_folder(station LIBS brix_support)
target_compile_definitions(test_station PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(test_station BrixCanonCapture)
