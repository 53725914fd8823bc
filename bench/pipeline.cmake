# ---- network pass ----
# ---- end of network pass ----

# ---- segmentation entry ----
hseg_add_bench(segment_bench LIBS hseg_pipeline SOURCES segment_bench.cpp)
# ---- end of segmentation entry ----
