# The 25 MB test picture is a simulator shot grown to size.
target_link_libraries(watch_tag_bench PRIVATE brix_camera_simulator brix_camera_sdk Qt6::Gui)
