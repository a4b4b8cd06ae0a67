# gphoto2 backend: value tables, the backend replaying an EOS widget tree
# through the adapter's test double (also under the shared backend contract),
# and libgphoto2 itself on its directory driver.
brix_test_folder(gphoto2 LIBS brix_camera_gphoto2 brix_camera_sdk brix_support Qt6::Gui)
foreach(t test_gphoto2 test_gphoto2_concurrency)
  if(TARGET ${t})
    target_compile_definitions(${t} PRIVATE BRIX_GPHOTO2_TEST_DATA="${CMAKE_CURRENT_LIST_DIR}/data")
    target_include_directories(${t} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../camera_contract)
  endif()
endforeach()
