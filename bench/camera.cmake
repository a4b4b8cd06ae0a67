# The camera benchmark runs the camera code against the simulated camera, under
# the station's memory policy (app/).
target_link_libraries(camera_bench PRIVATE brix_app brix_camera brix_camera_simulator Qt6::Gui)
target_include_directories(camera_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests/camera)
