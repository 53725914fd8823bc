hseg_add_test(flatnn_test LIBS hseg_flatnn SOURCES flatnn_test.cpp)
