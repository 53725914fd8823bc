# Area resize to BGR.
hseg_add_test(area_resize_test LIBS hseg_resize SOURCES area_resize_test.cpp)

# Nearest, bilinear and bicubic, and every resizer on buffers that end or
# begin at a guard page.
hseg_add_test(resize_test LIBS hseg_resize SOURCES resize_test.cpp)
