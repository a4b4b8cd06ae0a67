# The soak of the real station under faults. The short run is part of the test
# command (label "soak"); the long one is run by hand (see the README).
add_executable(brix_soak ${CMAKE_CURRENT_LIST_DIR}/soak.cpp ${CMAKE_CURRENT_LIST_DIR}/../common/TestSupport.cpp)
target_include_directories(brix_soak PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../common)
target_link_libraries(brix_soak PRIVATE brix_support Qt6::Core Qt6::DBus)
target_compile_definitions(brix_soak PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(brix_soak BrixCanonCapture)
brix_warnings(brix_soak)
add_test(NAME soak_short COMMAND brix_soak --short)
set_tests_properties(soak_short PROPERTIES LABELS "soak" TIMEOUT 300 SKIP_RETURN_CODE 77)
