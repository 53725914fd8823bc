# ---- area resize to BGR ----
# ---- end of area resize ----

# ---- nearest, bilinear and bicubic ----
# ---- end of nearest, bilinear and bicubic ----
