hseg_add_bench(flatnn_bench LIBS hseg_flatnn SOURCES flatnn_bench.cpp)
