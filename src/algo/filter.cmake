target_sources(tevix_obj PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/simd.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bpf2d_iir.cpp)
