brix_test_folder(ui MAIN brix_testmain_widgets LIBS brix_app Qt6::Test)
# The window's end-to-end test runs the real executable.
target_compile_definitions(test_ui PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(test_ui BrixCanonCapture)
