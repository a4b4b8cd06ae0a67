# The live-view benchmark runs the real window on the simulated camera.
target_link_libraries(liveview_bench PRIVATE brix_app brix_camera brix_camera_simulator Qt6::Widgets)
