# Camera tests run against the simulated camera when it is part of the build.
set(_camera_test_libs brix_camera Qt6::Gui)
if(TARGET brix_camera_simulator)
  list(APPEND _camera_test_libs brix_camera_simulator)
endif()
brix_test_folder(camera LIBS ${_camera_test_libs})
