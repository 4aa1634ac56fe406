find_package(OpenCV REQUIRED COMPONENTS core imgproc calib3d)
tevix_add_test(test_filter
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_filter_bpf.cpp
          ${CMAKE_CURRENT_LIST_DIR}/test_filter_spatial.cpp
          ${CMAKE_CURRENT_LIST_DIR}/test_filter_undistort.cpp
  LIBS ${OpenCV_LIBS})
target_include_directories(test_filter SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
