# Warning flags shared by every target of the project.
function(brix_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-missing-field-initializers)
  if(BRIX_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# A library made of every source file in the calling folder (not its subfolders).
# Lets several people add files to one folder without editing its build file.
function(brix_folder_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  file(GLOB _srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  add_library(${name} STATIC ${_srcs})
  set_target_properties(${name} PROPERTIES AUTOMOC ON)
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_BINARY_DIR}/generated)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
  brix_warnings(${name})
endfunction()
