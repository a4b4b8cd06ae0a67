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
# The watchdog where an installed station looks for it, and the kiosk unit
# naming the installed station (checked by systemd when it is there).
if(NOT EXISTS ${prefix}/libexec/BrixCanonCapture/watchdog)
  message(FATAL_ERROR "the watchdog is not installed in ${prefix}/libexec/BrixCanonCapture")
endif()
set(unit ${prefix}/lib/systemd/user/com.lumetra.BrixCanonCapture.service)
file(READ ${unit} text)
if(NOT text MATCHES "\nExecStart=BrixCanonCapture -fromlaunchagent\n" OR NOT text MATCHES "\nExitType=cgroup\n")
  message(FATAL_ERROR "the user unit does not start the station as expected:\n${text}")
endif()
# systemd checks the unit with the station where this check installed it.
find_program(SYSTEMD_ANALYZE systemd-analyze)
if(SYSTEMD_ANALYZE)
  string(REPLACE "ExecStart=BrixCanonCapture" "ExecStart=${prefix}/bin/BrixCanonCapture" text "${text}")
  file(WRITE ${BUILD_DIR}/install-check-unit/com.lumetra.BrixCanonCapture.service "${text}")
  execute_process(COMMAND ${SYSTEMD_ANALYZE} verify ${BUILD_DIR}/install-check-unit/com.lumetra.BrixCanonCapture.service
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  file(REMOVE_RECURSE ${BUILD_DIR}/install-check-unit)
  if(NOT rc EQUAL 0 OR NOT out STREQUAL "")
    message(FATAL_ERROR "systemd-analyze verify ${unit}:\n${out}")
  endif()
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
