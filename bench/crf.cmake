hseg_add_bench(crf_bench LIBS hseg_crf hseg_base SOURCES crf_bench.cpp)
