hseg_sources(base
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)

# Network pass on weights handed to it: its own component, because the
# weights tool runs it too (to calibrate the synthetic weights).
hseg_sources(network
  src/pipeline/network.cpp
  src/pipeline/net_arena.cpp
  src/pipeline/net_gemm.cpp
  src/pipeline/net_kernels.cpp
  src/pipeline/net_layers.cpp
  src/pipeline/net_pool.cpp
  src/pipeline/net_winograd.cpp
)

# The network on the linked weights
hseg_sources(pipeline
  src/pipeline/network_entry.cpp
)

# Segmentation entry
hseg_sources(pipeline
  src/pipeline/segment.cpp
)

# Background effects
hseg_sources(pipeline
  src/pipeline/effects.cpp
)
