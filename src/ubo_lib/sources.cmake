list(APPEND HSEG_SOURCES
  src/ubo_lib/image.cpp
)
