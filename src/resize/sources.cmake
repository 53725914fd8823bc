# Area resize to BGR
hseg_sources(resize
  src/resize/area_table.cpp
  src/resize/area_resize.cpp
  src/resize/area_resize_sp.cpp
)

# Nearest, bilinear and bicubic
hseg_sources(resize
  src/resize/nearest.cpp
  src/resize/bilinear.cpp
  src/resize/bilinear_rows.cpp
  src/resize/bicubic.cpp
)
