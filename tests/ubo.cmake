# ---- image toolkit ----
hseg_add_test(ubo_geometry_test LIBS hseg_ubo SOURCES ubo_geometry_test.cpp)
hseg_add_test(ubo_pixels_test LIBS hseg_ubo SOURCES ubo_pixels_test.cpp)
hseg_add_test(ubo_colour_rows_test LIBS hseg_ubo SOURCES ubo_colour_rows_test.cpp)
hseg_add_test(ubo_nv21_test LIBS hseg_ubo stb SOURCES ubo_nv21_test.cpp)
target_compile_definitions(ubo_nv21_test PRIVATE HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
hseg_add_test(ubo_masks_test LIBS hseg_ubo SOURCES ubo_masks_test.cpp)
hseg_add_test(ubo_resize_test LIBS hseg_ubo SOURCES ubo_resize_test.cpp)
hseg_add_test(ubo_sobel_test LIBS hseg_ubo SOURCES ubo_sobel_test.cpp)
hseg_add_test(ubo_matrix_test LIBS hseg_ubo SOURCES ubo_matrix_test.cpp)
hseg_add_test(ubo_bmp_test LIBS hseg_ubo SOURCES ubo_bmp_test.cpp)
target_compile_definitions(ubo_bmp_test PRIVATE HSEG_BMP_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data/bmp")
# ---- end of image toolkit ----
