hseg_sources(base
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)
