# ---- area resize to BGR ----
hseg_add_test(area_resize_test LIBS hseg_resize SOURCES area_resize_test.cpp)
# ---- end of area resize ----

# ---- nearest, bilinear and bicubic ----
# ---- end of nearest, bilinear and bicubic ----
