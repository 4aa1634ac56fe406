tevix_add_test(test_fit SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_fit.cpp)
tevix_add_test(test_unwrap SOURCES ${CMAKE_CURRENT_LIST_DIR}/test_unwrap.cpp)
