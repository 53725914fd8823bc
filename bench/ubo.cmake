# Image toolkit, timed beside OpenCV where it is installed.
hseg_add_bench(ubo_bench OPENCV LIBS hseg_ubo SOURCES ubo_bench.cpp)
