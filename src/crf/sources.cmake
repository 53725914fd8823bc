hseg_sources(crf
  src/crf/lattice_hash.cpp
  src/crf/permutohedral.cpp
  src/crf/lattice_filter.cpp
  src/crf/fast_math.cpp
  src/crf/dense_crf.cpp
  src/crf/upsampling.cpp
)
