# The soak of the real station under faults. Its long runs are what the README's
# soak table comes from; the short run is part of the test command (label "soak").
add_executable(brix_soak ${CMAKE_CURRENT_SOURCE_DIR}/soak.cpp ${PROJECT_SOURCE_DIR}/tests/common/TestSupport.cpp)
target_include_directories(brix_soak PRIVATE ${PROJECT_SOURCE_DIR}/tests/common)
target_link_libraries(brix_soak PRIVATE brix_support Qt6::Core Qt6::DBus)
target_compile_definitions(brix_soak PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(brix_soak BrixCanonCapture)
brix_warnings(brix_soak)
if(BRIX_BUILD_TESTS)
  add_test(NAME soak_short COMMAND brix_soak --short)
  set_tests_properties(soak_short PROPERTIES LABELS "soak" TIMEOUT 300 SKIP_RETURN_CODE 77)
endif()
