hseg_add_test(crf_test LIBS hseg_crf hseg_base SOURCES crf_test.cpp)
