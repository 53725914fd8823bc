hseg_add_test(image_test LIBS hseg_base SOURCES image_test.cpp)

# ---- network pass ----
# ---- end of network pass ----

# ---- segmentation entry ----
# Runs the full pipeline a few times (seconds each), four at once in the
# threaded test.
hseg_add_test(segment_test LIBS hseg_pipeline SOURCES segment_test.cpp)
if(TARGET hseg-segment)
  hseg_add_test(segment_tool_test SOURCES segment_tool_test.cpp)
  target_compile_definitions(segment_tool_test PRIVATE
    HSEG_SEGMENT_TOOL="$<TARGET_FILE:hseg-segment>")
  add_dependencies(segment_tool_test hseg-segment)
endif()
# ---- end of segmentation entry ----
