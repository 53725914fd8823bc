hseg_add_test(crf_test LIBS hseg_crf hseg_base SOURCES
  crf_lattice_hash_test.cpp
  crf_lattice_test.cpp
  crf_fast_math_test.cpp
  crf_dense_crf_test.cpp
  crf_upsampling_test.cpp)
