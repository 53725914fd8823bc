hseg_add_test(ubo_test LIBS hseg_ubo SOURCES ubo_test.cpp)
hseg_add_test(ubo_bmp_test LIBS hseg_ubo SOURCES ubo_bmp_test.cpp)
target_compile_definitions(ubo_bmp_test PRIVATE HSEG_BMP_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data/bmp")
