# gphoto2 backend: value tables, libgphoto2 itself on its directory driver,
# and the real libgphoto2 with its ptp2 driver on an EOS body emulated below
# it (also under the shared backend contract), in a replacement
# libusb-1.0.so.0 (eosbody/) that the test executable links.
set(_eosbody_out ${CMAKE_CURRENT_BINARY_DIR}/eosbody)
add_library(brix_eosbody SHARED ${CMAKE_CURRENT_LIST_DIR}/eosbody/EosBody.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/eosbody/FakeLibusb.cpp
                                ${CMAKE_CURRENT_LIST_DIR}/eosbody/EosBody.h)
pkg_check_modules(LIBUSB REQUIRED IMPORTED_TARGET libusb-1.0)
# Only the headers of libusb: the library itself is what this one replaces.
target_include_directories(brix_eosbody PUBLIC ${CMAKE_CURRENT_LIST_DIR}/eosbody PRIVATE ${LIBUSB_INCLUDE_DIRS})
target_link_libraries(brix_eosbody PRIVATE brix_camera_simulator Qt6::Core)
set_target_properties(brix_eosbody PROPERTIES OUTPUT_NAME usb-1.0 SOVERSION 0 VERSION 0.3.0
                      LIBRARY_OUTPUT_DIRECTORY ${_eosbody_out})
brix_warnings(brix_eosbody)

brix_test_folder(gphoto2 LIBS brix_camera_gphoto2 brix_camera_sdk brix_support Qt6::Gui)
target_compile_definitions(test_gphoto2 PRIVATE BRIX_GPHOTO2_TEST_DATA="${CMAKE_CURRENT_LIST_DIR}/data")
target_include_directories(test_gphoto2 PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../camera_contract)
target_link_libraries(test_gphoto2 PRIVATE brix_eosbody)
target_compile_definitions(test_gphoto2 PRIVATE BRIX_EXECUTABLE="$<TARGET_FILE:BrixCanonCapture>"
                           BRIX_EOSBODY_DIR="${_eosbody_out}")
add_dependencies(test_gphoto2 BrixCanonCapture)
# The backend on the real library once more on a German desktop: libgphoto2's
# translations are installed (scripts/setup.sh) and would be in use.
add_test(NAME gphoto2_german_desktop
         COMMAND test_gphoto2 --gtest_filter=EmulatedBody.*:Gphoto2Library.*)
set_tests_properties(gphoto2_german_desktop PROPERTIES
                     ENVIRONMENT "LANG=de_DE.UTF-8;LC_ALL=de_DE.UTF-8;LANGUAGE=de"
                     LABELS "unit;gphoto2" TIMEOUT 300)
