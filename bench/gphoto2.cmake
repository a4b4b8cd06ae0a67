# gphoto2 backend benchmark: the backend and its tables; with the tests built,
# also a shot through the real libgphoto2 on the emulated EOS body (the bench
# links the tests' emulated libusb-1.0.so.0).
if(TARGET gphoto2_bench)
  target_link_libraries(gphoto2_bench PRIVATE brix_camera_gphoto2 brix_camera_sdk)
  if(TARGET brix_eosbody)
    target_link_libraries(gphoto2_bench PRIVATE brix_eosbody)
    target_compile_definitions(gphoto2_bench PRIVATE BRIX_HAVE_EOSBODY=1)
  endif()
endif()
