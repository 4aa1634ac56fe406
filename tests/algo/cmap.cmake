tevix_add_test(test_pcl SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_pcl_points.cpp)
tevix_add_test(test_cmap SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_cmap_colour.cpp)
tevix_add_test(test_conv SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_conv_kernels.cpp)
