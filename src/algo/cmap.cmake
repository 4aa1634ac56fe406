target_sources(tevix_obj PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/cmap.cpp
  ${CMAKE_CURRENT_LIST_DIR}/conv.cpp
  ${CMAKE_CURRENT_LIST_DIR}/palettes.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pcl.cpp)
