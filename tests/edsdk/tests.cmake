# The edsdk backend, run through its real dlopen path over test libraries that
# export Canon's C functions: libEDSDK-sim.so over the simulated camera, and
# libEDSDK-incomplete.so, which lacks one function and must be refused.
set(_edsdk_out ${CMAKE_CURRENT_BINARY_DIR}/edsdk)

add_library(EDSDK-incomplete SHARED ${CMAKE_CURRENT_LIST_DIR}/library/IncompleteEdsdk.c)
set_target_properties(EDSDK-incomplete PROPERTIES C_VISIBILITY_PRESET hidden LIBRARY_OUTPUT_DIRECTORY ${_edsdk_out})

set(_edsdk_libs brix_camera_edsdk brix_camera brix_support Qt6::Gui)
set(_edsdk_defs BRIX_EDSDK_INCOMPLETE_LIBRARY="$<TARGET_FILE:EDSDK-incomplete>")
set(_edsdk_deps EDSDK-incomplete)

if(TARGET brix_camera_simulator)
  add_library(EDSDK-sim SHARED ${CMAKE_CURRENT_LIST_DIR}/library/SimulatorEdsdk.cpp)
  target_include_directories(EDSDK-sim PRIVATE ${CMAKE_SOURCE_DIR}/camera/edsdk)
  target_link_libraries(EDSDK-sim PRIVATE brix_camera_simulator brix_camera_sdk brix_support)
  set(_edsdk_map ${CMAKE_CURRENT_LIST_DIR}/library/exports.map)
  target_link_options(EDSDK-sim PRIVATE -Wl,--version-script=${_edsdk_map} -Wl,--no-undefined)
  set_target_properties(EDSDK-sim PROPERTIES LINK_DEPENDS ${_edsdk_map} LIBRARY_OUTPUT_DIRECTORY ${_edsdk_out})
  brix_warnings(EDSDK-sim)
  list(APPEND _edsdk_libs brix_camera_simulator)
  list(APPEND _edsdk_defs BRIX_EDSDK_SIM_LIBRARY="$<TARGET_FILE:EDSDK-sim>")
  list(APPEND _edsdk_deps EDSDK-sim)
endif()

brix_test_folder(edsdk LIBS ${_edsdk_libs})
foreach(_t test_edsdk test_edsdk_concurrency)
  target_include_directories(${_t} PRIVATE ${CMAKE_SOURCE_DIR}/camera/edsdk ${CMAKE_CURRENT_SOURCE_DIR}/camera_contract)
  target_compile_definitions(${_t} PRIVATE ${_edsdk_defs})
  add_dependencies(${_t} ${_edsdk_deps})
endforeach()
