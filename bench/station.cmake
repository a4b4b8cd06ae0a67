# The station benchmark runs the whole shot pipeline on the simulated camera.
target_link_libraries(station_bench PRIVATE brix_app brix_camera brix_camera_simulator Qt6::Gui)
