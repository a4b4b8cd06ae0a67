brix_test_folder(station LIBS brix_support)
target_compile_definitions(test_station PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(test_station BrixCanonCapture)
# The same job through Canon's C interface, when the test library over the
# simulated body is built (tests/edsdk).
if(TARGET EDSDK-sim)
  target_compile_definitions(test_station PRIVATE BRIX_EDSDK_SIM_LIBRARY="$<TARGET_FILE:EDSDK-sim>")
  add_dependencies(test_station EDSDK-sim)
endif()
