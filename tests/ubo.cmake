# Image records and the image toolkit.
hseg_add_test(ubo_test LIBS hseg_ubo hseg_base SOURCES ubo_test.cpp)
target_compile_definitions(ubo_test PRIVATE HSEG_BMP_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data/bmp")
