# SPDX-License-Identifier: Apache-2.0
"""The tool on files around 2 GiB and 4 GiB, made of a short clip and holes that take no disk space:
what comes out is that of the clip, or one message says why it does not."""

import os
import pathlib
import struct
import subprocess
import tempfile
import unittest

TOOL = os.environ["KESTREL_TOOL"]
SAMPLES = pathlib.Path(os.environ["KESTREL_SAMPLES"])

GIB = 1 << 30
LARGEST = 4 * GIB - 1
SIZES = (2 * GIB - 1, 2 * GIB, 2 * GIB + 1, LARGEST)
CONTAINERS = (b"trak", b"mdia", b"minf", b"stbl")


def run(*arguments):
    return subprocess.run([TOOL, *map(str, arguments)], capture_output=True, timeout=300, check=False)


def boxes(data, begin=0):
    while begin < len(data):
        size, kind = struct.unpack_from(">I4s", data, begin)
        yield kind, begin, begin + size
        begin += size


def moved(movie, distance):
    """The body of a movie box with all chunk offsets moved."""
    movie = bytearray(movie)

    def move(begin, end):
        for kind, start, stop in boxes(movie[:end], begin):
            if kind in CONTAINERS:
                move(start + 8, stop)
            elif kind == b"stco":
                for at in range(start + 16, stop, 4):
                    struct.pack_into(">I", movie, at, struct.unpack_from(">I", movie, at)[0] + distance)

    move(0, len(movie))
    return bytes(movie)


def box(kind, body, hole=0):
    return struct.pack(">I4s", 8 + len(body) + hole, kind) + body


class Clip:
    """A clip of `ftyp`, `moov` and `mdat`, and the forms of it that have a hole."""

    def __init__(self, name):
        self.path = SAMPLES / f"{name}.3gp"
        data = self.path.read_bytes()
        parts = {kind: (data[start + 8:stop], start + 8) for kind, start, stop in boxes(data)}
        self.brands = box(b"ftyp", parts[b"ftyp"][0])
        self.movie = parts[b"moov"][0]
        self.media, self.media_at = parts[b"mdat"]

    def moov(self, media_at):
        return box(b"moov", moved(self.movie, media_at - self.media_at))

    # Each gives the bytes before the hole, and those after it in a file of `size` bytes.

    def media_last(self, size):
        """The movie box, a hole, and the media up to the last byte."""
        after = box(b"mdat", self.media)
        before = self.brands + self.moov(size - len(self.media))
        return before + box(b"free", b"", size - len(before) - 8 - len(after)), after

    def media_first(self, size):
        """Media and a hole in one box, and the movie box at the end."""
        after = self.moov(len(self.brands) + 8)
        hole = size - len(self.brands) - 8 - len(self.media) - len(after)
        return self.brands + box(b"mdat", self.media, hole), after

    def media_middle(self, size):
        """A hole and then media in one box, and the movie box at the end."""
        after = self.moov(size - 8 - len(self.movie) - len(self.media))
        hole = size - len(self.brands) - 8 - len(after)
        return self.brands + box(b"mdat", b"", hole), self.media + after

    FORMS = (media_last, media_first, media_middle)


CLIPS = {"h263_hinted_mtu500": "vr", "amrnb_hinted": "ar"}


class LargeFiles(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)

    def make(self, size, before, after):
        path = self.scratch / "large.3gp"
        with open(path, "wb") as file:
            file.write(before)
            file.truncate(size)
            file.seek(size - len(after))
            file.write(after)
        self.assertEqual(path.stat().st_size, size)
        return path

    def each(self, test):
        """Runs a test on each clip, its mode, and each large form of it."""
        for name, mode in CLIPS.items():
            clip = Clip(name)
            for form in Clip.FORMS:
                for size in SIZES:
                    with self.subTest(clip=name, form=form.__name__, size=size):
                        test(clip, mode, self.make(size, *form(clip, size)))

    def output(self, *arguments):
        result = run(*arguments)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout

    def test_both_apis_deliver_what_the_clip_has(self):
        def test(clip, mode, large):
            for api in ("function", "class"):
                words = ("extract", "--api", api)
                stream = self.output(*words, clip.path, mode)
                self.assertEqual(self.output(*words, large, mode), stream, api)
                self.assertEqual(self.output(*words, "--track", 1, large, mode), stream, api)
        self.each(test)

    def test_are_checked_listed_and_hinted_as_the_clip(self):
        def test(clip, mode, large):
            self.assertIn(b"plays", self.output("check", large))
            self.assertIn(b"moov", self.output("boxes", large))
            self.assertEqual(self.output("packets", large), self.output("packets", clip.path))
            here, there = self.scratch / "here.3gp", self.scratch / "there.3gp"
            self.output("hint", "--replace", large, "-o", here)
            self.output("hint", "--replace", clip.path, "-o", there)
            self.assertEqual(self.output("extract", here, mode), self.output("extract", there, mode))
        self.each(test)

    def test_of_4_gib_are_refused_with_the_reason(self):
        large = self.make(4 * GIB, *Clip("h263_hinted_mtu500").media_first(LARGEST))
        out = self.scratch / "out"
        for words in (("info", large), ("check", large), ("report", large, "-o", out), ("boxes", large),
                      ("packets", large), ("extract", large, "vr", "-o", out),
                      ("hint", large, "-o", out)):
            result = run(*words)
            self.assertNotEqual(result.returncode, 0, words)
            self.assertIn(b"4 GiB", result.stdout + result.stderr, words)


if __name__ == "__main__":
    unittest.main()
