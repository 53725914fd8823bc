list(APPEND HSEG_SOURCES
  src/pipeline/mem_alloc.cpp
  src/pipeline/mem_ops.cpp
)
