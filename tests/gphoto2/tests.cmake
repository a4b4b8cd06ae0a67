# gphoto2 backend: value tables, the backend replaying a recorded EOS body
# through the adapter's test double, and libgphoto2 itself on its directory driver.
brix_test_folder(gphoto2 LIBS brix_camera_gphoto2)
foreach(t test_gphoto2 test_gphoto2_concurrency)
  if(TARGET ${t})
    target_compile_definitions(${t} PRIVATE BRIX_GPHOTO2_TEST_DATA="${CMAKE_CURRENT_LIST_DIR}/data")
  endif()
endforeach()
