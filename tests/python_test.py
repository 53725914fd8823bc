"""The Python module: its masks against hseg-segment's, arrays read in place
or copied, bad input, the GIL and threads.

CTest runs it with PYTHONPATH at the build's python/ directory and
HSEG_SEGMENT_TOOL and HSEG_EXAMPLES_DIR set. Five network passes in all: two
by the tool, three by the module.
"""
import array
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


class BadInput(unittest.TestCase):
    def test_raises_before_the_library_is_called(self):
        img = np.zeros((8, 8, 3), np.uint8)
        nv21 = bytes(27)  # 5x3: 15 bytes of Y, 2 rows of 3 V,U pairs
        cases = [
            ("float picture", lambda: hseg.segment(img.astype(np.float32)), TypeError),
            ("text", lambda: hseg.segment("photo.png"), TypeError),
            ("grey picture", lambda: hseg.segment(img[:, :, 0]), ValueError),
            ("four channels", lambda: hseg.segment(np.zeros((8, 8, 4), np.uint8)), ValueError),
            ("four dimensions", lambda: hseg.segment(img[None]), ValueError),
            ("no rows", lambda: hseg.segment(img[:0]), ValueError),
            ("no columns", lambda: hseg.segment(img[:, :0]), ValueError),
            ("zero mask side", lambda: hseg.segment(img, mask_size=(0, 5)), ValueError),
            ("one mask side", lambda: hseg.segment(img, mask_size=(5,)), ValueError),
            ("float mask side", lambda: hseg.segment(img, mask_size=(5, 2.5)), TypeError),
            ("unknown format", lambda: hseg.segment_yuv(nv21, "rgb", 5, 3), ValueError),
            ("odd yuy2 width", lambda: hseg.segment_yuv(bytes(30), hseg.YUY2, 5, 3), ValueError),
            ("short frame", lambda: hseg.segment_yuv(nv21[:-1], hseg.NV21, 5, 3), ValueError),
            ("long frame", lambda: hseg.segment_yuv(nv21 + b"\0", "i420", 5, 3), ValueError),
            ("zero width", lambda: hseg.segment_yuv(b"", hseg.NV21, 0, 3), ValueError),
            ("float height", lambda: hseg.segment_yuv(nv21, hseg.NV21, 5, 3.0), TypeError),
            ("list frame", lambda: hseg.segment_yuv(list(nv21), hseg.NV21, 5, 3), TypeError),
            ("uint16 frame", lambda: hseg.segment_yuv(np.zeros(27, np.uint16), "nv21", 5, 3),
             TypeError),
            ("16-bit buffer", lambda: hseg.segment_yuv(array.array("H", nv21 + b"\0"), "nv21", 5, 3),
             TypeError),
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
    def test_packed_rows_are_read_in_place(self):
        padded = np.zeros((6, 9, 3), np.uint8)
        for view, pitch in [(padded[1:, 2:7], 27), (padded[:1, 3:], 18), (padded[::2], 54)]:
            d, _ = image_view(view)
            self.assertEqual((d.planes[0], d.pitches[0], d.width, d.height),
                             (view.ctypes.data, pitch, view.shape[1], view.shape[0]))

    def test_other_layouts_are_copied_packed(self):
        img = np.arange(5 * 4 * 3, dtype=np.uint8).reshape(5, 4, 3)
        for what, view in [("reversed channels", img[:, :, ::-1]), ("column step", img[:, ::2]),
                           ("upside down", img[::-1]),
                           ("repeated row", np.broadcast_to(img[:1], (5, 4, 3)))]:
            with self.subTest(what):
                d, copy = image_view(view)
                self.assertEqual((d.planes[0], d.pitches[0]), (copy.ctypes.data, 3 * view.shape[1]))
                np.testing.assert_array_equal(copy, view)

    def test_yuv_planes_follow_each_other(self):
        frame = bytes(27)  # 5x3
        for fmt, offsets, pitches in [("i420", [0, 15, 21], [5, 3, 3]), ("nv21", [0, 15], [5, 6])]:
            d, data = _images.yuv_view(frame, fmt, 5, 3)
            base = data.ctypes.data
            self.assertEqual(list(d.planes[:len(offsets)]), [base + o for o in offsets])
            self.assertEqual(list(d.pitches[:len(pitches)]), pitches)


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

    def test_two_threads_at_once_give_the_serial_masks(self):
        with ThreadPoolExecutor(2) as pool:
            photo = pool.submit(hseg.segment, self.rgb[:, :, ::-1])  # copied: reversed channels
            frame = pool.submit(hseg.segment_yuv, self.nv21, hseg.NV21, 511, 301, (300, 200))
            np.testing.assert_array_equal(photo.result(), self.tool_photo)
            np.testing.assert_array_equal(frame.result(), self.tool_nv21)


if __name__ == "__main__":
    unittest.main()
