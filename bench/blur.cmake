# Blur library, timed beside OpenCV where it is installed.
hseg_add_bench(blur_bench OPENCV LIBS hseg_blur SOURCES blur_bench.cpp)
