hseg_add_test(image_test LIBS hseg_base SOURCES image_test.cpp)
