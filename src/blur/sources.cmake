hseg_sources(blur
  src/blur/blur.cpp
  src/blur/box_blur.cpp
  src/blur/gaussian_blur.cpp
  src/blur/blur_rows_ref.cpp
  src/blur/blur_rows_sse2.cpp
  src/blur/blur_rows_avx2.cpp
)
# The AVX2 kernels are compiled for AVX2 and called only where the CPU has it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
  set_source_files_properties(src/blur/blur_rows_avx2.cpp PROPERTIES COMPILE_OPTIONS -mavx2)
endif()
