hseg_add_test(blur_test LIBS hseg_blur stb SOURCES blur_test.cpp)
target_compile_definitions(blur_test PRIVATE HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
