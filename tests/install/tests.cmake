# After `cmake --install`, the installed layout must hold the resources where an
# installed executable looks for them. The check installs into a scratch prefix
# inside the build tree, puts a copy of the support tests into <prefix>/bin and
# runs their factory-defaults tests there.
add_test(NAME install.resources
  COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${CMAKE_BINARY_DIR} -DTEST_BINARY=$<TARGET_FILE:test_support>
          -DDATA_SUBDIR=${BRIX_DATA_SUBDIR} -P ${CMAKE_CURRENT_LIST_DIR}/check_install.cmake)
set_tests_properties(install.resources PROPERTIES LABELS "unit;install" TIMEOUT 300)
