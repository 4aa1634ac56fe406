target_sources(tevix_obj PRIVATE ${CMAKE_CURRENT_LIST_DIR}/fit.cpp)
tevix_link(Eigen3::Eigen)
