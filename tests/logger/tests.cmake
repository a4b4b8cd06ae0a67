brix_test_folder(logger LIBS brix_support)

# The soak test's child: descriptor 2 is redirected process-wide, so the real
# redirection runs in a process of its own.
add_executable(logger_soak_child ${CMAKE_CURRENT_LIST_DIR}/soak_child/logger_soak_child.cpp)
target_link_libraries(logger_soak_child PRIVATE brix_support Qt6::Core)
brix_warnings(logger_soak_child)
target_compile_definitions(test_logger_concurrency PRIVATE BRIX_LOGGER_SOAK_CHILD="$<TARGET_FILE:logger_soak_child>")
add_dependencies(test_logger_concurrency logger_soak_child)
