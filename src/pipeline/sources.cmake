hseg_sources(base
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)

# Network pass
hseg_sources(pipeline
  src/pipeline/network.cpp
  src/pipeline/network_entry.cpp
  src/pipeline/net_arena.cpp
  src/pipeline/net_kernels.cpp
  src/pipeline/net_layers.cpp
  src/pipeline/net_pool.cpp
  src/pipeline/net_winograd.cpp
)

# Segmentation entry
hseg_sources(pipeline
  src/pipeline/segment.cpp
)

# Background effects
hseg_sources(pipeline
  src/pipeline/effects.cpp
)
