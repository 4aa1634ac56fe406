tevix_add_test(test_ll_dispatch SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_dispatch.cpp)
