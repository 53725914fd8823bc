# Area resize to BGR
hseg_add_bench(area_resize_bench LIBS hseg_resize SOURCES area_resize_bench.cpp)

# Nearest, bilinear and bicubic
hseg_add_bench(scale_bench LIBS hseg_resize SOURCES scale_bench.cpp)
