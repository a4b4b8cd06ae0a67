# The edsdk backend measured over the test library libEDSDK-sim.so, beside the
# in-process simulator it wraps.
target_link_libraries(edsdk_bench PRIVATE brix_camera_edsdk brix_camera_simulator brix_camera_sdk Qt6::Gui
                                          ${CMAKE_DL_LIBS})
target_include_directories(edsdk_bench PRIVATE ${CMAKE_SOURCE_DIR}/camera/edsdk)
if(TARGET EDSDK-sim)
  target_compile_definitions(edsdk_bench PRIVATE BRIX_EDSDK_SIM_LIBRARY="$<TARGET_FILE:EDSDK-sim>")
  add_dependencies(edsdk_bench EDSDK-sim)
endif()
