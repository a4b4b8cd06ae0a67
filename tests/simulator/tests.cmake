brix_test_folder(simulator LIBS brix_camera_simulator brix_camera_sdk brix_support Qt6::Gui Qt6::DBus)
foreach(t test_simulator test_simulator_concurrency)
  if(TARGET ${t})
    target_include_directories(${t} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/camera_contract
                                            ${CMAKE_SOURCE_DIR}/camera/simulator)
  endif()
endforeach()
target_compile_definitions(test_simulator PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>")
add_dependencies(test_simulator BrixCanonCapture)
