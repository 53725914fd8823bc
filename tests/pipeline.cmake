hseg_add_test(image_test LIBS hseg_base SOURCES image_test.cpp)

# ---- network pass ----
# ---- end of network pass ----

# ---- segmentation entry ----
# ---- end of segmentation entry ----
