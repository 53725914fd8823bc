hseg_sources(base
  src/ubo_lib/image.cpp
)

# Image toolkit
hseg_sources(ubo
  src/ubo_lib/geometry.cpp
  src/ubo_lib/colour_rows.cpp
  src/ubo_lib/pixels.cpp
  src/ubo_lib/nv21.cpp
  src/ubo_lib/masks.cpp
  src/ubo_lib/simple_resize.cpp
  src/ubo_lib/sobel.cpp
  src/ubo_lib/matrix.cpp
  src/ubo_lib/bmp.cpp
)
