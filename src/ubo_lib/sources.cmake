hseg_sources(base
  src/ubo_lib/image.cpp
)
