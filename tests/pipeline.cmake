# Network pass
# Whole passes on the linked weights take a few seconds each; the suite runs a
# handful (one of them the reference route, which holds 1.5 GB).
hseg_add_test(network_test LIBS hseg_pipeline stb SOURCES network_test.cpp)
target_compile_definitions(network_test PRIVATE
  HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
# The fast network's Winograd convolution and filter cache, without passes.
hseg_add_test(net_winograd_test LIBS hseg_pipeline SOURCES net_winograd_test.cpp)

# The weights file reader on small files, and the hseg-weights program on the
# build's weights file and data library, and on small generated data libraries.
hseg_add_test(weights_tool_test LIBS hseg_network SOURCES weights_tool_test.cpp
  ${PROJECT_SOURCE_DIR}/tools/hseg_weights_io.cpp)
target_include_directories(weights_tool_test PRIVATE ${PROJECT_SOURCE_DIR}/tools ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(weights_tool_test PRIVATE hseg_tool_files nlohmann_json::nlohmann_json)
if(HSEG_WEIGHTS)
  set(synthetic 0)
else()
  set(synthetic 1)
endif()
target_compile_definitions(weights_tool_test PRIVATE
  HSEG_WEIGHTS_TOOL="$<TARGET_FILE:hseg-weights>"
  HSEG_WEIGHTS_FILE="${HSEG_WEIGHTS_FILE}"
  HSEG_DATA_LIBRARY="$<TARGET_FILE:deeplab_data>"
  HSEG_WEIGHTS_SYNTHETIC=${synthetic}
  HSEG_C_COMPILER="${CMAKE_C_COMPILER}")
add_dependencies(weights_tool_test hseg-weights deeplab_data)

# Importing the public Caffe model: one full-size round trip through the tool
# and two network passes (seconds), then damaged files, mostly in process.
hseg_add_test(caffe_import_test LIBS hseg_pipeline SOURCES caffe_import_test.cpp
  ${PROJECT_SOURCE_DIR}/tools/caffe_model.cpp
  ${PROJECT_SOURCE_DIR}/tools/caffe_import.cpp
  ${PROJECT_SOURCE_DIR}/tools/hseg_weights_io.cpp)
target_include_directories(caffe_import_test PRIVATE ${PROJECT_SOURCE_DIR}/tools)
target_link_libraries(caffe_import_test PRIVATE hseg_tool_files nlohmann_json::nlohmann_json
  ${CMAKE_DL_LIBS})
target_compile_definitions(caffe_import_test PRIVATE
  HSEG_WEIGHTS_TOOL="$<TARGET_FILE:hseg-weights>"
  HSEG_WEIGHTS_FILE="${HSEG_WEIGHTS_FILE}"
  HSEG_WEIGHTS_SYNTHETIC=${synthetic}
  HSEG_C_COMPILER="${CMAKE_C_COMPILER}")
add_dependencies(caffe_import_test hseg-weights)

# Segmentation entry
# Runs the full pipeline, exact and fast, fifteen times (seconds each), four
# of them at once in the threaded test.
hseg_add_test(segment_test LIBS hseg_pipeline stb SOURCES segment_test.cpp)
target_compile_definitions(segment_test PRIVATE HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
# Under ThreadSanitizer the test script runs the lattice tests (crf_test), the
# network's thread pool alone, and only the threaded test of the stages around
# the network: a network pass takes minutes there, and OpenBLAS, which is not
# instrumented, synchronises its worker threads in ways the sanitizer cannot
# see.
if(HSEG_TSAN)
  add_test(NAME segment_threads_test
           COMMAND segment_test --gtest_filter=AroundTheNetwork.FourThreadsGiveTheSerialMasks)
  add_test(NAME net_pool_threads_test COMMAND network_test --gtest_filter=NetPool.*)
endif()
if(HSEG_BUILD_TOOLS)
  hseg_add_test(segment_tool_test SOURCES segment_tool_test.cpp)
  target_compile_definitions(segment_tool_test PRIVATE
    HSEG_SEGMENT_TOOL="$<TARGET_FILE:hseg-segment>"
    HSEG_EXAMPLE_PROGRAM="$<TARGET_FILE:blur_background>"
    HSEG_EXAMPLES_DIR="${PROJECT_SOURCE_DIR}/examples")
  add_dependencies(segment_tool_test hseg-segment blur_background)
endif()

# Background effects
hseg_add_test(effects_test LIBS hseg_pipeline SOURCES effects_test.cpp)
