# SPDX-License-Identifier: Apache-2.0
"""The tool on files around 2 GiB and 4 GiB, made of a short clip and holes that take no disk space:
what comes out is that of the clip, or one message says why it does not."""

import struct
import unittest

from support.tool import STBL, ToolTest, box, boxes, load, run, sample

GIB = 1 << 30
LARGEST = 4 * GIB - 1
SIZES = (2 * GIB - 1, 2 * GIB, 2 * GIB + 1, LARGEST)


def moved(boxes_of_movie, distance):
    """Boxes with all chunk offsets moved."""
    out, at = b"", 0
    while at < len(boxes_of_movie):
        size, kind = struct.unpack_from(">I4s", boxes_of_movie, at)
        body = boxes_of_movie[at + 8:at + size]
        if kind in STBL:
            body = moved(body, distance)
        elif kind == b"stco":
            offsets = struct.unpack(f">{len(body) // 4 - 2}I", body[8:])
            body = body[:8] + b"".join(struct.pack(">I", offset + distance) for offset in offsets)
        out += box(kind, body)
        at += size
    return out


class Clip:
    """A clip of `ftyp`, `moov` and `mdat`, and the forms of it that have a hole."""

    def __init__(self, name):
        self.path = sample(name)
        data = load(name)
        self.brands, self.movie, self.media = (boxes(data, [kind])[0]
                                               for kind in (b"ftyp", b"moov", b"mdat"))
        self.media_at = data.index(self.media)
        self.brands = box(b"ftyp", self.brands)

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


class LargeFiles(ToolTest):
    def make(self, size, before, after):
        path = self.scratch / "large.3gp"
        with open(path, "wb") as file:
            file.write(before)
            file.truncate(size)
            file.seek(size - len(after))
            file.write(after)
        self.assertEqual(path.stat().st_size, size)
        return path

    def test_what_comes_out_is_that_of_the_clip(self):
        for name, mode in [("h263_hinted_mtu500", "vr"), ("amrnb_hinted", "ar")]:
            clip = Clip(name)
            there = self.output("hint", "--replace", clip.path, "-o", "-")
            for form in Clip.FORMS:
                for size in SIZES:
                    with self.subTest(clip=name, form=form.__name__, size=size):
                        large = self.make(size, *form(clip, size))
                        self.assert_plays_as(large, clip.path, mode)
                        self.assertIn(b"plays", self.output("check", large))
                        self.assertIn(b"moov", self.output("boxes", large))
                        self.assertEqual(self.output("packets", large),
                                         self.output("packets", clip.path))
                        here = self.scratch / "here.3gp"
                        self.output("hint", "--replace", large, "-o", here)
                        self.assertEqual(self.output("extract", here, mode),
                                         self.output("extract", "-", mode, stdin=there))

    def assert_plays_as(self, large, clip, mode):
        for api in ("function", "class"):
            stream = self.output("extract", "--api", api, clip, mode)
            for options in [(), ("--track", 1)]:
                played = self.output("extract", "--api", api, large, mode, *options)
                self.assertEqual(played, stream, api)

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
