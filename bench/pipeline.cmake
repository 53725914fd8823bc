# ---- network pass ----
# ---- end of network pass ----

# ---- segmentation entry ----
# ---- end of segmentation entry ----
