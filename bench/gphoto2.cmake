# gphoto2 backend benchmark: the backend and its tables.
if(TARGET gphoto2_bench)
  target_link_libraries(gphoto2_bench PRIVATE brix_camera_gphoto2 brix_camera_sdk)
endif()
