# ONI reader, writer and codecs; the replay backend; OpenNI2 interop.
set(TEVIX_TESTDATA_DIR ${PROJECT_SOURCE_DIR}/../shared/testdata CACHE PATH "external sample files")
tevix_add_test(test_ll_oni
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/oni/test_oni_codec.cpp
          ${CMAKE_CURRENT_LIST_DIR}/oni/test_oni_file.cpp
          ${CMAKE_CURRENT_LIST_DIR}/oni/test_oni_repair.cpp)
target_compile_definitions(test_ll_oni PRIVATE TEVIX_TESTDATA_DIR="${TEVIX_TESTDATA_DIR}")
tevix_add_test(test_ll_file SOURCES ${CMAKE_CURRENT_LIST_DIR}/file/test_file_ll.cpp)
target_compile_definitions(test_ll_file PRIVATE TEVIX_TESTDATA_DIR="${TEVIX_TESTDATA_DIR}")
