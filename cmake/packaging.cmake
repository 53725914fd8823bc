# Debian packages, made by `cpack -G DEB` in the build directory (see
# scripts/package.sh). Build with -DCMAKE_INSTALL_PREFIX=/usr for packages
# laid out as Debian's own; a package installs exactly what `cmake --install`
# would, under the build's prefix.
#
#   hseg          libhseg, the weights' data library libdeeplab_data.so and
#                 the tools hseg-segment and hseg-weights (component runtime)
#   hseg-dev      headers, the libhseg.so link, hseg.pc and the CMake package
#                 (component dev)
#   python3-hseg  the Python module (component python)
#
# Split so that a program linking the library pulls in neither Python nor the
# headers. The tools ride with the library: they are small, and installing
# hseg alone gives a working hseg-segment. The run-time dependencies of the
# binaries (OpenBLAS, the C++ runtime) are read from them by dpkg-shlibdeps.
# Each package's description follows the project's one-line summary.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hseg)
set(CPACK_PACKAGE_VENDOR hseg)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL runtime dev python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "hseg maintainers")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The weights are floats and hardly compress: gzip leaves them within 2 % of
# xz's size at a fifteenth of its time.
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)

set(exact "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME hseg)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "libhseg separates a person from the background in a BGR, YUY2, I420 or
NV21 frame: a PSPNet network on OpenBLAS and a dense CRF give a mask of any
size. This package holds the library, the network's weights
(libdeeplab_data.so) and the tools hseg-segment and hseg-weights.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME hseg-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "hseg ${exact}")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Development files of libhseg: the headers of its C interface, the
libhseg.so link, the pkg-config file hseg.pc and the CMake package
(find_package(hseg), target hseg::hseg).")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hseg)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "hseg ${exact}, python3, python3-numpy")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-opencv | python3-pil")
# Byte-compiles the module on installation and removes the compiled files
# before removal, as Debian's own Python packages do.
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/debian/python/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/python/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "The Python module hseg segments numpy pictures and camera frames with
libhseg: hseg.segment(bgr_array) and hseg.segment_yuv(frame, hseg.NV21, w, h)
return the mask as a numpy array.")

include(CPack)
