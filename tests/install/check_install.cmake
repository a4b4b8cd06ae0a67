# Run by the install.resources test; see tests.cmake.
set(prefix ${BUILD_DIR}/install-check)
file(REMOVE_RECURSE ${prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${rc})")
endif()
set(resources ${prefix}/${DATA_SUBDIR})
if(NOT EXISTS ${resources}/FactoryDefault.plist)
  message(FATAL_ERROR "FactoryDefault.plist is not installed in ${resources}")
endif()
file(COPY ${TEST_BINARY} DESTINATION ${prefix}/bin)
get_filename_component(name ${TEST_BINARY} NAME)
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env BRIX_EXPECT_RESOURCES_DIR=${resources} --unset=BRIX_RESOURCES_DIR
          ${prefix}/bin/${name} --gtest_filter=PrefsFactory.*
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "factory defaults not found from the installed tree:\n${out}")
endif()
file(REMOVE_RECURSE ${prefix})
message(STATUS "installed resources found in ${resources}")
