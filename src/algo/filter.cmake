target_sources(tevix_obj PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/simd.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bpf2d_iir.cpp
  ${CMAKE_CURRENT_LIST_DIR}/spatial.cpp
  ${CMAKE_CURRENT_LIST_DIR}/median.cpp
  ${CMAKE_CURRENT_LIST_DIR}/flypix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/fhole.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gauss_iir.cpp
  ${CMAKE_CURRENT_LIST_DIR}/undistort.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box.cpp
  ${CMAKE_CURRENT_LIST_DIR}/unwrap.cpp)
