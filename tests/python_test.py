"""The Python module: its masks against hseg-segment's, arrays read in place
or copied, blurs against numpy references, the background effects, bad input,
the GIL and threads.

CTest runs it with PYTHONPATH at the build's python/ directory and
HSEG_SEGMENT_TOOL and HSEG_EXAMPLES_DIR set. Six network passes in all: two
by the tool, four by the module.
"""
import array
import itertools
import math
import os
import subprocess
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

import numpy as np
from PIL import Image

import hseg
from hseg import _images, _native, _segment

TOOL = os.environ["HSEG_SEGMENT_TOOL"]
PHOTO = os.path.join(os.environ["HSEG_EXAMPLES_DIR"], "astronaut.png")


def image_view(a):
    return _images.image_view(a, "image", _segment._BGR, "BGR")


def box_ref(img, r):
    """Exact (2r+1) squared window means of each channel, edges replicated,
    rounded to nearest (the count is odd: no ties)."""
    if img.ndim == 3:
        return np.dstack([box_ref(img[..., c], r) for c in range(img.shape[2])])
    (h, w), n = img.shape, 2 * r + 1
    c = np.pad(np.pad(img.astype(np.int64), r, mode="edge"), ((1, 0), (1, 0))).cumsum(0).cumsum(1)
    return (c[n:, n:] - c[:h, n:] - c[n:, :w] + c[:h, :w] + n * n // 2) // (n * n)


def padded(shape, dtype, fill):
    """A view of `shape` inside a larger array of `fill`: its rows are
    strided, and the bytes around them show stray writes."""
    big = np.full((shape[0] + 2, shape[1] + 3, *shape[2:]), fill, dtype)
    return big, big[1:-1, 2:-1]


def erode(region, r):
    """Pixels whose whole (2r+1) squared window lies in `region`."""
    p = np.pad(region, r, constant_values=False)
    return np.lib.stride_tricks.sliding_window_view(p, (2 * r + 1, 2 * r + 1)).all(axis=(2, 3))


class BadInput(unittest.TestCase):
    def test_raises_before_the_library_is_called(self):
        img = np.zeros((8, 8, 3), np.uint8)
        mask, shared = np.zeros((8, 8), np.uint8), np.zeros((9, 8, 3), np.uint8)
        nv21 = bytes(27)  # 5x3: 15 bytes of Y, 2 rows of 3 V,U pairs
        cases = [
            ("float picture", lambda: hseg.segment(img.astype(np.float32)), TypeError),
            ("grey picture", lambda: hseg.segment(img[:, :, 0]), ValueError),
            ("no columns", lambda: hseg.segment(img[:, :0]), ValueError),
            ("one mask side", lambda: hseg.segment(img, mask_size=(5,)), ValueError),
            ("unknown format", lambda: hseg.segment_yuv(nv21, "rgb", 5, 3), ValueError),
            ("odd yuy2 width", lambda: hseg.segment_yuv(bytes(30), hseg.YUY2, 5, 3), ValueError),
            ("short frame", lambda: hseg.segment_yuv(nv21[:-1], hseg.NV21, 5, 3), ValueError),
            ("zero width", lambda: hseg.segment_yuv(b"", hseg.NV21, 0, 3), ValueError),
            ("float height", lambda: hseg.segment_yuv(nv21, hseg.NV21, 5, 3.0), TypeError),
            ("16-bit buffer", lambda: hseg.segment_yuv(array.array("H", nv21 + b"\0"), "nv21", 5, 3),
             TypeError),
            # Blurs and effects; the effects get a mask, so a missed check costs no
            # network pass.
            ("odd yuy2 array", lambda: hseg.blur(np.zeros((4, 5, 2), np.uint8), 1), ValueError),
            ("sigma 0 as float", lambda: hseg.blur(img, 1e-46), ValueError),
            ("mask before sigma", lambda: hseg.blur_background(img, mask, 2), TypeError),
            ("negative radius", lambda: hseg.box_blur(img, -1), ValueError),
            ("out of another shape", lambda: hseg.blur(img, 1, out=img[1:]), ValueError),
            ("read-only out", lambda: hseg.blur(img, 1, out=np.broadcast_to(img, img.shape)),
             ValueError),
            ("reversed out", lambda: hseg.blur(img, 1, out=img[:, :, ::-1]), ValueError),
            ("mask too wide", lambda: hseg.blur_background(img, 2, np.zeros((1, 65537), np.uint8)),
             ValueError),
            ("grey without a mask", lambda: hseg.blur_background(mask, 2), ValueError),
            ("background of another shape",
             lambda: hseg.replace_background(img, img[:, :, 0], mask), ValueError),
            ("out overlapping the image",
             lambda: hseg.blur_background(shared[:8], 2, mask, out=shared[1:]), ValueError),
            ("bytes out", lambda: hseg.blur_background_yuv(nv21, "nv21", 5, 3, 2, mask, out=nv21),
             ValueError),
            ("short background",
             lambda: hseg.replace_background_yuv(nv21, "nv21", 5, 3, nv21[1:], mask), ValueError),
        ]
        for what, call, error in cases:
            with self.subTest(what), self.assertRaises(error):
                call()

    def test_library_status_raises_error(self):
        with self.assertRaises(hseg.Error) as caught:
            _native.check(_native.lib.HsegEx(None, None, None, None), "segmentation")
        self.assertEqual(caught.exception.status, hseg.ERR_BAD_ARGUMENT)
        self.assertEqual(str(caught.exception), "segmentation failed: status 2 (bad argument)")


class Layout(unittest.TestCase):
    def test_packed_rows_are_read_in_place_other_layouts_copied(self):
        padded = np.zeros((6, 9, 3), np.uint8)
        for view, pitch in [(padded[1:, 2:7], 27), (padded[:1, 3:], 18), (padded[::2], 54)]:
            d, _ = image_view(view)
            self.assertEqual((d.planes[0], d.pitches[0], d.width, d.height),
                             (view.ctypes.data, pitch, view.shape[1], view.shape[0]))
        img = np.arange(5 * 4 * 3, dtype=np.uint8).reshape(5, 4, 3)
        for view in [img[:, :, ::-1], img[:, ::2], img[::-1], np.broadcast_to(img[:1], (5, 4, 3))]:
            d, copy = image_view(view)
            self.assertEqual((d.planes[0], d.pitches[0]), (copy.ctypes.data, 3 * view.shape[1]))
            np.testing.assert_array_equal(copy, view)

    def test_yuv_planes_follow_each_other(self):
        for fmt, offsets, pitches in [("i420", [0, 15, 21], [5, 3, 3]), ("nv21", [0, 15], [5, 6])]:
            d, data = _images.yuv_view(bytes(27), fmt, 5, 3)
            self.assertEqual(list(d.planes[:len(offsets)]), [data.ctypes.data + o for o in offsets])
            self.assertEqual(list(d.pitches[:len(pitches)]), pitches)


class Blur(unittest.TestCase):
    def test_box_blur_is_the_exact_window_mean_written_in_place(self):
        rng = np.random.default_rng(15)
        cases = [((1, 1), np.uint8, 3), ((5, 7, 3), np.uint8, 2), ((6, 9), np.uint16, 4),
                 ((17, 33), np.uint8, 40), ((4, 6), np.uint8, 0)]
        for shape, dtype, r in cases:
            with self.subTest(shape=shape, dtype=dtype, radius=r):
                _, img = padded(shape, dtype, 0)
                img[...] = rng.integers(0, np.iinfo(dtype).max, shape, endpoint=True)
                want = box_ref(img, r)
                outer, out = padded(shape, dtype, 77)
                self.assertIs(hseg.box_blur(img, r, out=out), out)
                np.testing.assert_array_equal(out, want)
                out[...] = 77
                self.assertTrue((outer == 77).all(), "written outside out")
                np.testing.assert_array_equal(hseg.box_blur(img, r, out=img), want)

    def test_gaussian_spreads_an_impulse_by_sigma(self):
        x = np.arange(-200, 201)
        for sigma in (6.5, 12):
            spread = hseg.blur(np.where(x == 0, 65535, 0).astype(np.uint16)[None], sigma)[0]
            self.assertAlmostEqual(math.sqrt((spread * x * x).sum() / spread.sum()), sigma,
                                   delta=0.03 * sigma)


class Effects(unittest.TestCase):
    rng = np.random.default_rng(11)

    def random(self, shape):
        return self.rng.integers(0, 256, shape, np.uint8)

    def test_pictures_keep_the_person_and_show_the_background_around(self):
        for shape in [(37, 50, 3), (37, 50)]:
            image, background = self.random(shape), self.random(shape)
            blurred = hseg.blur(image, 3)
            for mask_shape, person in itertools.product([(1, 1), (37, 50), (9, 500)], (1, 0)):
                mask = np.full(mask_shape, 255 * person, np.uint8)
                with self.subTest(shape=shape, mask=mask_shape, person=person):
                    np.testing.assert_array_equal(hseg.blur_background(image, 3, mask),
                                                  image if person else blurred)
                    np.testing.assert_array_equal(hseg.replace_background(image, background, mask),
                                                  image if person else background)
            self.assertIs(hseg.blur_background(image, 3, mask, out=image), image)  # mask: all 0
            np.testing.assert_array_equal(image, blurred)

    def test_camera_frames_keep_their_format(self):
        w, h = 10, 7
        person, nobody = np.full((3, 3), 255, np.uint8), np.zeros((3, 3), np.uint8)
        for fmt in (hseg.YUY2, hseg.I420, hseg.NV21):
            n = sum(row * rows for row, rows in _images.yuv_planes(fmt, w, h))
            frame, background = self.random(n), self.random(n)
            with self.subTest(fmt=hex(fmt)):
                np.testing.assert_array_equal(
                    hseg.blur_background_yuv(frame.tobytes(), fmt, w, h, 2, person), frame)
                in_place = bytearray(frame.tobytes())
                self.assertIs(hseg.replace_background_yuv(in_place, fmt, w, h, background,
                                                          nobody, out=in_place), in_place)
                self.assertEqual(bytes(in_place), background.tobytes())
        yuy2 = self.random((h, w, 2))
        np.testing.assert_array_equal(hseg.blur_background_yuv(yuy2, "yuy2", w, h, 2, nobody),
                                      hseg.blur(yuy2, 2).reshape(-1))


class Segmentation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.rgb = np.asarray(Image.open(PHOTO).convert("RGB"))
        mask = os.path.join(cls.tmp.name, "photo-mask.png")
        cls.run_tool("-o", mask, PHOTO)
        cls.tool_photo = np.asarray(Image.open(mask))

        # An NV21 frame from a crop with odd sides (the chroma rounds up), less
        # than 473 high (both enlarge it first), and a mask of another shape.
        crop = cls.rgb[:301, :511]
        vu = np.stack([crop[::2, ::2, 0], crop[::2, ::2, 2]], axis=-1)
        cls.nv21 = crop[:, :, 1].tobytes() + vu.tobytes()
        frame, mask = os.path.join(cls.tmp.name, "frame.nv21"), os.path.join(cls.tmp.name, "m.gray")
        with open(frame, "wb") as f:
            f.write(cls.nv21)
        cls.run_tool("--raw", "nv21", "--size", "511x301", "--mask-size", "200x300", "-o", mask,
                     frame)
        cls.tool_nv21 = np.fromfile(mask, np.uint8).reshape(300, 200)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @staticmethod
    def run_tool(*args):
        run = subprocess.run([TOOL, *args], capture_output=True, text=True)
        if run.returncode != 0:
            raise RuntimeError(f"hseg-segment {' '.join(args)}: {run.stderr}")

    def test_picture_read_in_place_matches_the_tool_while_other_threads_run(self):
        padded = np.zeros((512, 520, 3), np.uint8)
        padded[:, :512] = self.rgb[:, :, ::-1]
        ticks, done = [], threading.Event()

        def count():
            while not done.is_set():
                ticks.append(time.monotonic())
                time.sleep(0.001)

        counter = threading.Thread(target=count)
        counter.start()
        start = time.monotonic()
        try:
            mask = hseg.segment(padded[:, :512])
        finally:
            end = time.monotonic()
            done.set()
            counter.join()
        np.testing.assert_array_equal(mask, self.tool_photo)
        gaps = np.diff([start] + [t for t in ticks if start < t < end] + [end])
        self.assertLess(gaps.max(), (end - start) / 2, "the GIL was held during the call")

    def test_one_call_blur_keeps_the_person_and_blurs_the_rest(self):
        bgr = self.rgb[:, :, ::-1]
        out = hseg.blur_background(bgr, 12)
        # Away from the mask's edge, where neither the two masks' resizes
        # (bilinear here, nearest in the tool) nor the feathering reach.
        person, rest = erode(self.tool_photo == 255, 12), erode(self.tool_photo == 0, 12)
        self.assertTrue(person.sum() > 10000 and rest.sum() > 10000)
        np.testing.assert_array_equal(out[person], bgr[person])
        np.testing.assert_array_equal(out[rest], hseg.blur(bgr, 12)[rest])

    def test_two_threads_at_once_give_the_serial_masks(self):
        with ThreadPoolExecutor(2) as pool:
            photo = pool.submit(hseg.segment, self.rgb[:, :, ::-1])  # copied: reversed channels
            frame = pool.submit(hseg.segment_yuv, self.nv21, hseg.NV21, 511, 301, (300, 200))
            np.testing.assert_array_equal(photo.result(), self.tool_photo)
            np.testing.assert_array_equal(frame.result(), self.tool_nv21)


if __name__ == "__main__":
    unittest.main()
