hseg_add_test(image_test image_test.cpp)
