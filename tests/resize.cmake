# Area resize to BGR.
hseg_add_test(area_resize_test LIBS hseg_resize SOURCES area_resize_test.cpp)

# Nearest, bilinear and bicubic.
hseg_add_test(nearest_test LIBS hseg_resize SOURCES nearest_test.cpp)
hseg_add_test(bilinear_test LIBS hseg_resize SOURCES bilinear_test.cpp)
hseg_add_test(bicubic_test LIBS hseg_resize SOURCES bicubic_test.cpp)
# Every resizer on buffers that end or begin at a guard page.
hseg_add_test(resize_guard_test LIBS hseg_resize SOURCES resize_guard_test.cpp)
