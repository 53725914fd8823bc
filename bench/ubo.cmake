# ---- image toolkit ----
# With OpenCV at hand, the same operations are timed through it in the same
# run (HSEG_HAVE_OPENCV).
hseg_add_bench(ubo_bench LIBS hseg_ubo SOURCES ubo_bench.cpp)
if(OpenCV_FOUND)
  target_compile_definitions(ubo_bench PRIVATE HSEG_HAVE_OPENCV)
  target_include_directories(ubo_bench PRIVATE ${OpenCV_INCLUDE_DIRS})
  target_link_libraries(ubo_bench PRIVATE ${OpenCV_LIBS})
endif()
# ---- end of image toolkit ----
