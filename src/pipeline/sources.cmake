hseg_sources(base
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)

# ---- network pass ----
hseg_sources(pipeline
  src/pipeline/network.cpp
  src/pipeline/network_entry.cpp
  src/pipeline/net_arena.cpp
  src/pipeline/net_kernels.cpp
  src/pipeline/net_layers.cpp
  src/pipeline/net_pool.cpp
  src/pipeline/net_winograd.cpp
)
# ---- end of network pass ----

# ---- segmentation entry ----
hseg_sources(pipeline
  src/pipeline/segment.cpp
)
# ---- end of segmentation entry ----
