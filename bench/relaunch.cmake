# The relaunch benchmark runs the real station and its watchdog.
target_compile_definitions(relaunch_bench PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(relaunch_bench BrixCanonCapture)
