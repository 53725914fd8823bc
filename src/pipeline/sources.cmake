hseg_sources(base
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)

# ---- network pass ----
# ---- end of network pass ----

# ---- segmentation entry ----
# ---- end of segmentation entry ----
