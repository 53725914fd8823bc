# Network pass
hseg_add_bench(network_bench LIBS hseg_pipeline stb ${CMAKE_DL_LIBS} SOURCES network_bench.cpp)
target_include_directories(network_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
target_compile_definitions(network_bench PRIVATE HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")

# Segmentation entry
hseg_add_bench(segment_bench LIBS hseg_pipeline SOURCES segment_bench.cpp)

# Background effects
hseg_add_bench(effects_bench LIBS hseg_pipeline SOURCES effects_bench.cpp)
