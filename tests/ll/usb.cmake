# USB backend tests against the virtual camera: the umockdev preload library is linked into the
# binary so that libusb in this process sees the emulated device nodes.
if(TARGET tevix_emu)
  tevix_add_test(test_ll_usb SOURCES ${CMAKE_CURRENT_LIST_DIR}/usb/test_usb_ll.cpp
                 LIBS tevix_emu "-Wl,--push-state,--no-as-needed -lumockdev-preload -Wl,--pop-state"
                 LABELS usb TIMEOUT 90)
  target_include_directories(test_ll_usb PRIVATE ${CMAKE_CURRENT_LIST_DIR}/usb)
endif()
