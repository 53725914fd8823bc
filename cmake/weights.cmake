# Weights of the network: the hseg-weights tool, the weights file and the data
# library libdeeplab_data.so made from it.
#
# By default the build writes deterministic synthetic weights into the build
# tree (they exercise every stage but segment nothing meaningfully);
# -DHSEG_WEIGHTS=path/to/file.safetensors builds the data library from that
# file instead. The file is validated first: a missing or extra tensor, a
# wrong shape or dtype, a non-finite value, a truncated file or a malformed
# header fails the build with the tool's message.
#
# Outputs:
#   deeplab_data       shared library target, ${CMAKE_BINARY_DIR}/libdeeplab_data.so,
#                      one read-only data symbol per weight tensor
#   hseg_pipeline      gets the generated table of references to those symbols
#   HSEG_WEIGHTS_FILE  the weights file the data library was made from

find_package(nlohmann_json 3 REQUIRED)

set(HSEG_WEIGHTS "" CACHE FILEPATH
    "Weights file (safetensors) for libdeeplab_data.so; empty for synthetic weights")

# Owning stdio streams and file messages, shared by both tools.
add_library(hseg_tool_files STATIC tools/stdio_file.cpp)
target_include_directories(hseg_tool_files PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools)

# Built for the machine that runs the build. It runs the network pass itself
# (without the linked weights) to calibrate the synthetic weights, so it links
# the network component, the same objects as libhseg's.
add_executable(hseg-weights
  tools/hseg_weights.cpp
  tools/hseg_weights_io.cpp
  tools/hseg_weights_synth.cpp
  tools/caffe_model.cpp
  tools/caffe_import.cpp
  tools/elf_symbols.cpp)
target_include_directories(hseg-weights PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tools)
target_link_libraries(hseg-weights PRIVATE hseg_network hseg_tool_files
  nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})
set_target_properties(hseg-weights PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tools)

set(HSEG_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${HSEG_GENERATED_DIR})

if(HSEG_WEIGHTS)
  if(NOT EXISTS ${HSEG_WEIGHTS})
    message(FATAL_ERROR "HSEG_WEIGHTS: no such file: ${HSEG_WEIGHTS}")
  endif()
  set(HSEG_WEIGHTS_FILE ${HSEG_WEIGHTS})
  message(STATUS "Network weights: ${HSEG_WEIGHTS_FILE}")
else()
  set(HSEG_WEIGHTS_FILE ${HSEG_GENERATED_DIR}/synthetic.safetensors)
  add_custom_command(OUTPUT ${HSEG_WEIGHTS_FILE}
    COMMAND hseg-weights generate ${HSEG_WEIGHTS_FILE}
    DEPENDS hseg-weights
    COMMENT "Writing the synthetic network weights"
    VERBATIM)
  message(STATUS "Network weights: synthetic (no meaningful person mask; see docs/weights.md)")
endif()

add_custom_command(OUTPUT ${HSEG_GENERATED_DIR}/deeplab_data.s
  COMMAND hseg-weights asm ${HSEG_WEIGHTS_FILE} ${HSEG_GENERATED_DIR}/deeplab_data.s
  DEPENDS hseg-weights ${HSEG_WEIGHTS_FILE}
  COMMENT "Validating the network weights"
  VERBATIM)
add_custom_command(OUTPUT ${HSEG_GENERATED_DIR}/net_weight_refs.s
  COMMAND hseg-weights refs ${HSEG_GENERATED_DIR}/net_weight_refs.s
  DEPENDS hseg-weights
  VERBATIM)

# The assembly pulls the tensors out of the weights file with .incbin.
set_source_files_properties(${HSEG_GENERATED_DIR}/deeplab_data.s PROPERTIES
  OBJECT_DEPENDS ${HSEG_WEIGHTS_FILE})
add_library(deeplab_data SHARED ${HSEG_GENERATED_DIR}/deeplab_data.s)
set_target_properties(deeplab_data PROPERTIES LINKER_LANGUAGE C
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
install(TARGETS deeplab_data EXPORT hsegTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

hseg_sources(pipeline ${HSEG_GENERATED_DIR}/net_weight_refs.s)
