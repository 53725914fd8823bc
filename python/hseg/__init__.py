"""Person/background segmentation of photos and video frames with libhseg,
the background effects built on it, and its blur library.

numpy in, numpy out. A picture is an H x W x 3 uint8 array in BGR order (as
OpenCV reads it); a camera frame is a YUY2, I420 or NV21 buffer. The mask that
comes back is an H x W uint8 array: 255 where the person is, 0 for the
background.

    import cv2, hseg
    picture = cv2.imread("photo.jpg")
    mask = hseg.segment(picture)                 # picture.shape[:2]
    small = hseg.segment(picture, mask_size=(120, 160))
    mask = hseg.segment_yuv(nv21_bytes, hseg.NV21, 1280, 720)

    blurred = hseg.blur_background(picture, 12, mask)    # person sharp
    beach = hseg.replace_background(picture, beach_picture, mask)
    frame = hseg.blur_background_yuv(nv21_bytes, hseg.NV21, 1280, 720, 12)

Without a mask the effects segment the picture themselves. The blur library
works on grey (uint8 or uint16), BGR and YUY2 arrays:

    soft = hseg.blur(picture, 2.5)               # Gaussian, sigma in pixels
    mean = hseg.box_blur(depth_map, 4)           # (2r+1) squared window means
    hseg.blur(picture, 2.5, out=picture)         # in place

A segmentation resizes the frame to 473x473, runs the network and a dense
CRF, and resizes the mask to the size asked for; it takes a few seconds and a
few hundred megabytes. An effect given a mask, and a blur, take milliseconds.
Nothing is kept between calls. The GIL is released while the library works,
so other threads go on, and calls from several threads run at once.

Errors: a wrong dtype or buffer type raises TypeError and a wrong shape, size
or format ValueError, before the library is called; a failure inside the
library raises hseg.Error, whose `status` is one of the ERR_* codes.
"""
from ._native import (ERR_BAD_ARGUMENT, ERR_FILE, ERR_FORMAT, ERR_NO_MEMORY,
                      ERR_SINGULAR, ERR_TABLE, VERSION as __version__, Error)
from ._native import PIXFMT_I420 as I420
from ._native import PIXFMT_NV21 as NV21
from ._native import PIXFMT_YUY2 as YUY2
from ._blur import blur, box_blur
from ._effects import (blur_background, blur_background_yuv, replace_background,
                       replace_background_yuv)
from ._segment import segment, segment_yuv

__all__ = [
    "segment", "segment_yuv",
    "blur_background", "replace_background", "blur_background_yuv", "replace_background_yuv",
    "blur", "box_blur", "Error",
    "YUY2", "I420", "NV21",
    "ERR_BAD_ARGUMENT", "ERR_FORMAT", "ERR_NO_MEMORY", "ERR_TABLE", "ERR_FILE", "ERR_SINGULAR",
]
