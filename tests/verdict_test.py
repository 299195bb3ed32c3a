# SPDX-License-Identifier: Apache-2.0
"""What the tool says of files: info, check and report, their words, reasons and exit codes."""

import contextlib
import functools
import html.parser
import json
import os
import pathlib
import random
import re
import resource
import signal
import struct
import subprocess
import time
import unittest
import xml.etree.ElementTree

from support.tool import (IS_SANITIZED, PLAIN, SAMPLES, STBL, TOOL, ToolTest, box,
                          boxes, load, rebuilt, run, sample)


def speech_file(samples, together=50, stored=None):
    """AMR of so many samples of 32 bytes, of which the file has `stored`."""
    data = load("amrnb_plain")
    frame = boxes(data, [b"mdat"])[0][:32]
    chunks = -(-samples // together)
    changes = {b"mdat": None, b"free": None, b"edts": None,
               b"stts": struct.pack(">4I", 0, 1, samples, 160),
               b"stsz": struct.pack(">3I", 0, 32, samples),
               b"stsc": struct.pack(">8I", 0, 2, 1, together, 1, chunks,
                                    samples - together * (chunks - 1), 1)}
    if chunks == 1:
        changes[b"stsc"] = struct.pack(">5I", 0, 1, 1, samples, 1)
    for begin in (0, None):  # the second time with the length known
        begin = len(head) + 8 if begin is None else begin
        changes[b"stco"] = struct.pack(f">2I{chunks}I", 0, chunks,
                                       *(begin + 32 * together * i & 0xFFFFFFFF
                                         for i in range(chunks)))
        head = rebuilt(data, changes)
    stored = samples if stored is None else stored
    return head + box(b"mdat", frame * stored)


def retargeted(data, number, offset, place):
    """The constructor that takes bytes of a sample from this offset on takes those of another place."""
    old = struct.pack(">2I2H", number, offset, 1, 1)
    assert data.count(old) == 1
    return data.replace(old, struct.pack(">2I", *place) + old[8:])


def samples_at_one_place(samples):
    """Hinted H.264 of so many samples of 65,000 bytes at one place, of which the hints take two each."""
    data = load("h264_hinted")
    hint = (struct.pack(">2H", 1, 0) + bytes(4) + b"\x80\xe0" + bytes(4) + b"\0\1"
            + b"\1\2\x41\x9a" + bytes(12))
    media, together = 65000, 16
    chunks = samples // together
    movie = boxes(data, [b"moov"])[0]
    for begin in (0, None):  # the second time with the length known
        begin = len(head) + 8 if begin is None else begin
        tracks = b""
        for track, size, at in zip(boxes(movie, [b"trak"]), (media, len(hint)), (0, media * together)):
            tracks += rebuilt(box(b"moov", box(b"trak", track)), {
                b"stts": struct.pack(">4I", 0, 1, samples, 1000), b"stss": None, b"ctts": None,
                b"stsz": struct.pack(">3I", 0, size, samples),
                b"stsc": struct.pack(">5I", 0, 1, 1, together, 1),
                b"stco": struct.pack(">2I", 0, chunks) + struct.pack(">I", begin + at) * chunks})[8:]
        head = box(b"moov", box(b"mvhd", boxes(movie, [b"mvhd"])[0]) + tracks)
        head = box(b"ftyp", boxes(data, [b"ftyp"])[0]) + head
    return head + box(b"mdat", bytes(media * together) + hint * together)


def edited(*edits):
    """A clip with an edit list: the duration and the media time of each edit in milliseconds, or -1
    for nothing; the last one at half speed."""
    data = load("h263_plain")
    scale = int.from_bytes(boxes(data, [b"moov", b"mvhd"])[0][12:16], "big")
    ticks = int.from_bytes(boxes(data, STBL[:3] + [b"mdhd"])[0][12:16], "big")
    body = struct.pack(">2I", 0, len(edits) // 2)
    for at in range(0, len(edits), 2):
        duration, time = edits[at:at + 2]
        rate = 0x8000 if at and at + 2 == len(edits) else 0x10000
        body += struct.pack(">IiI", duration * scale // 1000,
                            time if time < 0 else time * ticks // 1000, rate)
    return rebuilt(data, {b"edts": box(b"elst", body)})


def foreign_mpeg4(name="mpeg4_hinted"):
    """An MPEG-4 sample entry of another codec, which the class API ends the process for."""
    data = bytearray(load(name))
    at = data.index(b"esds")
    kind = data.index(b"\x20\x11", at)
    assert kind < at + 40
    data[kind] = 0x6C
    return bytes(data)


def damaged_copies(count, salt=7):
    """Samples with bytes changed, in the movie box or anywhere, or cut; the same at each run."""
    chance = random.Random(salt)
    paths = sorted(SAMPLES.glob("*.3gp"))
    for number in range(count):
        path = paths[number % len(paths)]
        data = bytearray(path.read_bytes())
        if number % 4 == 3:
            data = data[:chance.randrange(len(data))]
        else:
            movie = data.index(b"moov")
            near = (movie, min(movie + 5000, len(data))) if number % 4 else (0, len(data))
            for _ in range(4):
                data[chance.randrange(*near)] = chance.randrange(256)
        yield f"{path.stem}, copy {number}", bytes(data)


def patched(data, *patches):
    """The bytes with others at some places."""
    data = bytearray(data)
    for at, value in patches:
        data[at:at + len(value)] = value
    return bytes(data)


def moved_chunks(data, distance, which):
    """Chunks of the media lie a few bytes beside where the samples are."""
    at = data.index(b"stco") + 8
    count, = struct.unpack_from(">I", data, at)
    offsets = list(struct.unpack_from(f">{count}I", data, at + 4))
    offsets[which] = [offset + distance for offset in offsets[which]]
    return patched(data, (at + 4, struct.pack(f">{count}I", *offsets)))


def damaged_tables():
    """Clips of which no frame or few come, or which have their samples elsewhere."""
    for name, tables in [("mpeg4_plain", "stco stsc stsz esds"), ("amrwb_plain", "stco"),
                         ("h263_plain", "stsz"), ("amrnb_plain", "stsz stsc mdhd hdlr"),
                         ("h263_hinted", "stsz"), ("mpeg4_hinted", "stsc")]:
        data = load(name)
        for table in tables.split():
            at = data.rindex(table.encode())
            yield f"{name} without {table}", patched(data, (at, b"free"))
            if table[0] == "s":
                yield f"{name} with zeros in {table}", patched(data, (at + 8, bytes(12)))
    for name in ("mpeg4_hinted", "h263_hinted", "amrnb_hinted"):
        data = load(name)
        hints = data.rindex(b"stsz") + 12
        count = int.from_bytes(data[hints:hints + 4], "big") // 3
        yield f"{name}, a third hinted", patched(data, (hints, struct.pack(">I", count)))
    data = load("mpeg4_hinted")
    part = re.search(rb"\x02\0[\x01-\x05](.)\0\0\0[\x01-\x1e]....\0\x01\0\x01", data, re.DOTALL)
    yield ("mpeg4_hinted, a packet lacks a byte of its picture",
           patched(data, (part.start(1), bytes([part[1][0] - 1]))))
    data = load("h264_slices_b_hinted")
    first = data.index(b"\0\0\0\0\x80\x60") + 4  # packet that does not end its picture
    yield ("h264_slices_b_hinted, two pictures of one", patched(data, (first + 1, b"\xe0")))
    data = load("h263_hinted")
    yield "h263_hinted, no RTP timescale", patched(data, (data.rindex(b"tims"), b"timr"))
    yield ("h263_hinted, hints with a timescale of 0",
           patched(data, (data.rindex(b"mdhd") + 16, bytes(4))))
    data = load("av_h263_amrnb_hinted")
    yield "av_h263_amrnb_hinted, a hint sample with three bytes more", patched(data, (48200, b"\5"))
    data = load("amrnb_hinted")
    media, size = data.index(b"mdat"), len(boxes(data, [b"mdat"])[0])
    yield ("amrnb_hinted, the middle of ones",
           patched(data, (media + 4 + size // 3, b"\xff" * (size // 9))))
    data = load("two_amrnb_hinted")
    for number, match in enumerate(re.finditer(b"stco", data), 1):
        yield (f"two_amrnb_hinted, a chunk of track {number} after the end",
               patched(data, (match.end() + 8, b"\x7f\xff\xff\xff")))
    for name in [*(row[0] for row in PLAIN if "first" not in row[0]), "h263_hinted",
                 "mpeg4_b_hinted", "amrnb_hinted", "h263_rfc2190_hinted_1450"]:
        for moved, which in [(5, slice(None)), (-7, slice(None)), (3, slice(0, 1))]:
            yield f"{name}, chunks {moved} bytes off", moved_chunks(load(name), moved, which)


def damaged_boxes():
    """Files that are no clips, or have lost tracks, and clips of other forms."""
    data = load("av_h263_amrnb_hinted")
    movie, first = data.index(b"moov") - 4, data.index(b"trak") - 4
    size, header = (int.from_bytes(data[at:at + 4], "big") for at in (first, first + 8))
    following = int.from_bytes(data[first + size:first + size + 4], "big")
    header += first + 8  # where it ends
    yield "nothing", b""
    yield "a text", b"no box in sight, but a text"
    yield "no movie box", data[:28]
    yield "no track", rebuilt(data, {b"trak": None})
    yield "a third of the movie box", data[:movie + (data.index(b"mdat") - 4 - movie) // 3]
    for more in (following, 3):
        yield (f"a track that covers {more} bytes of the next",
               patched(data, (first, struct.pack(">I", size + more))))
    yield ("a track with media before its header", data[:first + 8] + data[header:first + size] +
           data[first + 8:header] + data[first + size:])
    yield "a track with too small a box", patched(data, (first + 8, struct.pack(">I", 7)))
    yield "a movie of more than there is", patched(data, (movie, struct.pack(">I", len(data) * 2)))
    for part in (b"mdia", b"stsd"):
        yield f"a track without {part.decode()}", data.replace(part, b"free", 1)
    hdlr = boxes(load("h263_hinted"), STBL[:3] + [b"hdlr"])[0]
    yield ("a handler of no medium",
           load("h263_hinted").replace(hdlr, hdlr.replace(b"vide", b"vid\0")))
    for name, entry, kind in [("h263_hinted", b"s263", b"encv"), ("amrnb_hinted", b"samr", b"enca"),
                              ("h264_plain", b"avc1", b"drmi"), ("amrnb_hinted", b"damr", b"sinf"),
                              ("h264_plain", b"avcC", b"sinf"), ("amrnb_plain", b"samr", b"drms"),
                              ("h264_plain", b"avc1", b"avc3")]:
        yield f"{name}, {entry.decode()} as {kind.decode()}", load(name).replace(entry, kind)
    yield ("encrypted beside one that plays",
           load("wild/late_sound").replace(b"s263", b"encv").replace(b"mp4v", b"encv"))
    whole = load("wild/fragmented_dash").replace(b"sidx", b"free")
    begins = [match.start() - 4 for match in re.finditer(b"moof", whole)]
    middle = len(begins) // 2
    yield "a missing fragment", whole[:begins[middle]] + whole[begins[middle + 1]:]
    after = load("wild/fragmented_after_moov")
    first, second = (match.start() - 4 for match in re.finditer(b"moof", after))
    yield "a missing first fragment", after[:first] + after[second:]
    yield "no fragment after the movie box", after.replace(b"moof", b"free")
    yield ("a cut fragment after many boxes",
           whole[:begins[0]] + box(b"free", b"") * 250 + whole[begins[0]:begins[-1] + 300])
    groups = b"".join(box(b"sgpd", struct.pack(">I4sIIH", 0x01000000, kind, 2, 1, 1)) +
                      box(b"sbgp", struct.pack(">I4sIII", 0, kind, 1, 1, 1))
                      for kind in (b"roll", b"rap "))
    data = load("amrnb_plain_mdat_first")
    tables = boxes(data, STBL[:4])[0]
    yield "a second sample grouping", rebuilt(data, {b"minf": tables[:-len(boxes(
        tables, [b"stbl"])[0]) - 8] + box(b"stbl", boxes(tables, [b"stbl"])[0] + groups)})
    data = load("h264_plain")
    chunk, size = (int.from_bytes(data[at:at + 4], "big")
                   for at in (data.index(b"stco") + 12, data.index(b"stsz") + 16))
    yield "h264_plain, a sample of zeros", patched(data, (chunk, bytes(size)))
    data = load("mpeg4_plain")
    media, sizes = data.index(b"mdat") - 4, data.index(b"stsz") + 12
    last = sizes + 4 * int.from_bytes(data[sizes:sizes + 4], "big")
    long = (16 << 20) + 1
    yield "a picture that is too long", patched(
        data, (last, struct.pack(">I", long)),
        (media, struct.pack(">I", len(data) - media + long))) + bytes(long)


class Memory(ToolTest):
    def peak(self, *arguments):
        """The most bytes that a process of the tool had."""
        tool = subprocess.Popen([TOOL, *map(str, arguments)], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        _, status, used = os.wait4(tool.pid, 0)
        tool.returncode = os.waitstatus_to_exitcode(status)
        self.assertIn(tool.returncode, (0, 1))
        return used.ru_maxrss * 1024

    @unittest.skipIf(IS_SANITIZED, "takes memory of its own")
    def test_a_multiple_of_the_tables_is_enough(self):
        data = load("amrnb_plain")
        count = 200_000
        tables = {kind: struct.pack(">2I", 0, count) + entry * count for kind, entry in [
            (b"stts", struct.pack(">2I", 1, 160)), (b"stco", struct.pack(">I", 1000)),
            (b"stsc", struct.pack(">3I", 1, 1, 1))]}
        tables[b"stsz"] = struct.pack(">3I", 0, 0, count) + struct.pack(">I", 32) * count
        large = rebuilt(data, tables)
        path = self.scratch / "large.3gp"
        path.write_bytes(large)
        one_byte = self.scratch / "one_byte.3gp"
        one_byte.write_bytes(rebuilt(speech_file(400_000, 400_000, 12_500), {
            b"stsz": struct.pack(">3I", 0, 1, 400_000)}))
        most = self.peak("check", one_byte) - self.peak("check", sample("amrnb_plain"))
        self.assertLess(most, 64 * one_byte.stat().st_size)
        for times, command in [(2, ("boxes",)), (2, ("boxes", "--json")), (8, ("info",)),
                               (8, ("check",)), (8, ("report", "-o", "-"))]:
            with self.subTest(command=command):
                more = self.peak(*command, path) - self.peak(*command, sample("amrnb_plain"))
                self.assertLess(more, times * len(large))

    @unittest.skipIf(IS_SANITIZED, "takes memory of its own")
    def test_too_little_is_a_failure_that_leaves_nothing(self):
        movie = boxes(load("amrnb_plain"), [b"moov"])[0]
        track = box(b"trak", boxes(movie, [b"trak"])[0])
        many = self.write("many.3gp", box(b"moov", movie + 3000 * track))
        stream = self.write("speech.native", self.extract("amrnb_plain", "ar"))
        cases = [(("info", many), range(12 << 20, 24 << 20, 1 << 20)),
                 (("unpack", stream, "-o", self.scratch / "out"), range(7 << 20, 11 << 20, 1 << 17))]
        for command, limits in cases:
            for limit in limits:
                limited = functools.partial(run, preexec_fn=lambda limit=limit: resource.setrlimit(
                    resource.RLIMIT_AS, (limit, limit)))
                if limited("--version").returncode != 0:  # it cannot start
                    continue
                with self.subTest(command=command[0], limit=limit):
                    self.assertIn(limited(*command).returncode, (0, 1))
                    self.assertEqual(list(self.scratch.glob(".*")), [])

    @unittest.skipIf(IS_SANITIZED, "takes memory of its own")
    def test_one_packet_is_held_of_any_number_of_hint_tracks(self):
        movie = boxes(load("amrnb_hinted"), [b"moov"])[0]
        hint = movie[movie.rindex(b"trak") - 4:]
        hint = hint[:int.from_bytes(hint[:4], "big")]
        longest = hint.index(b"rtp ") + 16
        many = (hint[:longest] + struct.pack(">I", 65000) + hint[longest + 4:]) * 1000
        path = self.write("many.3gp", struct.pack(">I4s", len(movie) + len(many) + 8, b"moov") +
                          movie + many)
        more = self.peak("packets", path) - self.peak("packets", sample("amrnb_hinted"))
        self.assertLess(more, 16 * path.stat().st_size)


class Info(ToolTest):
    def info(self, name):
        result = run("info", sample(name), "--json")
        self.assertEqual(result.returncode, 0, result.stderr)
        return json.loads(result.stdout)

    def test_tracks_and_hints(self):
        about = self.info("av_h263_amrnb_hinted")
        self.assertEqual(about["major_brand"], "3gp4")
        codecs = {track["track_id"]: track["codec_name"] for track in about["tracks"]}
        self.assertEqual(codecs, {1: "H.263", 2: "AMR-NB", 65536: "RTP hints", 65537: "RTP hints"})
        self.assertEqual(about["tracks"][3]["hints_track"], 2)
        self.assertEqual(about["tracks"][0]["width"], 176)

    def test_verdicts(self):
        text = self.output("info", sample("aac_plain")).decode()
        self.assertIn("audio: does not play (codec; status 2)\n", text)
        self.assertIn("  This API does not play AAC; convert it with another tool first.\n", text)
        self.assertIn("function API,   video: no video track\n", text)
        self.assertIn("class API,      audio: does not play (codec; status 12), for the same reason\n",
                      text)

    def test_what_a_person_reads(self):
        plain, aac = load("h263_plain"), load("aac_plain")
        mp3 = bytearray(aac)
        mp3[mp3.index(bytes.fromhex("04808080")) + 5] = 0x6B  # object type of the decoder
        fragmented = load("wild/fragmented")
        for data, shown, absent in [
                (plain[:8], ["no tracks ", "video: not known: the list of tracks is cut"],
                 ["duration", "no audio", "brand"]),
                (plain[:60], ["lost tracks  unknown:"], ["duration", "no audio"]),
                (load("amrnb_hinted")[:-5], ["audio: plays\n", "5 bytes of 'free' are missing, and"],
                 ["is missing or damaged"]),
                (mp3, ["track 1      MPEG audio,", "does not play MPEG audio;"], ["AAC"]),
                (load("mpeg4_b_hinted"), ["MPEG-4 Visual, Advanced Simple profile, level 1,"], []),
                (fragmented, ["2.000 s, 30 samples in a form", "fix all 4: kestrel hint"],
                 ["fix it", "hint tracks are required)\n" * 2])]:
            with self.subTest(shown=shown):
                text = self.output("info", self.write("in.3gp", data)).decode()
                for part in shown:
                    self.assertIn(part, text)
                for part in absent:
                    self.assertNotIn(part, text)
                self.assertLessEqual(text.count("kestrel hint"), 1)


class Check(ToolTest):
    def check(self, *arguments):
        result = run("check", *arguments)
        lines = result.stdout.decode(errors="surrogateescape").splitlines()
        return result, [tuple(line.split("\t")) for line in lines]

    def test_samples_are_judged_as_recorded(self):
        clips = [path.relative_to(SAMPLES) for path in sorted(SAMPLES.rglob("*"))
                 if path.suffix in (".3gp", ".3g2", ".mp4", ".mov")]
        lines = []
        for options in [(), ("--quick",)]:
            result = run("check", *options, *clips, cwd=SAMPLES)
            self.assertEqual(result.returncode, 1)
            lines += ["check " + " ".join(options),
                      *(result.stdout + result.stderr).decode().splitlines()]
        self.assert_recorded("verdicts.txt", lines)
        # With an API named, the other one is not judged.
        for api, code, row in [("function", 0, ("audio", "plays", "-", "-")),
                                ("class", 1, ("audio", "-", "no-hint-track", "hint"))]:
            result, rows = self.check("--api", api, sample("amrnb_plain"))
            self.assertEqual((result.returncode, rows), (code, [(*row, sample("amrnb_plain"))]))

    def test_damaged_clips_are_judged_as_recorded(self):
        lines = []
        for label, data in [*damaged_tables(), *damaged_boxes(),
                            *((f"{path.stem} of wild/", path.read_bytes())
                              for path in sorted(SAMPLES.glob("wild/*.[3m]*")))]:
            with self.subTest(label):
                path = self.write("file.3gp", data)
                result, rows = self.check(path)
                self.assertEqual(result.returncode, 1 if b" not play: " in result.stderr else 0)
                lines.append(f"# {label}: {result.returncode}")
                lines += [" ".join(row[:4]) for row in rows]
                about = json.loads(run("info", path, "--json").stdout or "{}")
                lines += [f"  {key} {about[key]}" for key in ("lost_tracks", "may_lack_tracks")
                          if key in about]
                if "may_lack_tracks" in about:
                    lost = about.get("lost_tracks", "unknown")
                    self.assertIn(f"lost tracks  {lost}:", run("info", path).stdout.decode())
                lines += [f"  {why}" for why in sorted({v.get("why", "")
                                                        for v in about.get("verdicts", [])}) if why]
        self.assert_recorded("verdicts_of_damaged.txt", lines)

    def test_hint_samples_take_the_bytes_of_their_samples(self):
        for name, offset, places, mode, apis in [
                ("amrnb_hinted", 1, [(6, 1), (8, 1), (7, 0)], "ar", ["class"]),
                ("mpeg4_hinted_1450", 1438, [(7, 0)], "vr", ["class"]),
                ("h263_hinted_mtu500", 488, [(7, 2), (7, 487)], "vr", ["function", "class"]),
                ("h263_hinted", 2, [(6, 2)], "vr", ["function", "class"])]:
            for place in places:
                path = self.write("f.3gp", retargeted(load(name), 7, offset, place))
                about = json.loads(run("info", path, "--json").stdout)["verdicts"]
                for verdict in [v for v in about if v["medium"][0] == mode[0]]:
                    with self.subTest(name=name, place=place, api=verdict["api"]):
                        result = run("extract", path, mode, "--api", verdict["api"])
                        if verdict["api"] not in apis:
                            self.assertEqual((result.returncode, verdict["plays"]), (0, True))
                            continue
                        self.assertEqual(verdict["reason"], "damaged")
                        self.assertIn("--replace", verdict["fix"])
                        self.assert_fails(result, 1, "samples is not delivered as a whole: hint "
                                          "sample 7 does not take each byte of its sample once")
        # Samples of several in a hint sample: one is left out, another comes twice.
        path = self.write("f.3gp", retargeted(load("amrnb_hinted_multi"), 7, 1, (6, 1)))
        self.assertEqual(self.check(path)[1][0][1:4], ("plays", "incomplete", "hint --replace"))
        self.assert_fails(run("extract", path, "ar", "--api", "class"), 1,
                          "It delivers only 297 of 298 samples")
        # A sample without bytes of which packets take some.
        for name in ("mpeg4_b_hinted", "h263_rfc2190_hinted_1450"):
            data = load(name)
            sizes = data.index(b"stsz") + 16
            last = sizes + 4 * int.from_bytes(data[sizes - 4:sizes], "big") - 4
            path = self.write("f.3gp", data[:last] + bytes(4) + data[last + 4:])
            self.assertEqual(self.check(path)[1][0][1:4], ("damaged", "damaged", "hint --replace"))

    def test_pictures_are_counted_by_their_packets(self):
        data = load("av_h263_amrnb_hinted")
        media = boxes(data, [b"mdat"])[0]
        for kept, word, text in [(0, "damaged", "no frame comes out"),
                                 (len(media) // 2, "incomplete", "It delivers only 3 of 30 pictures")]:
            path = self.write("f.3gp", data.replace(media, media[:kept] + bytes(len(media) - kept)))
            self.assertEqual({row[2] for row in self.check(path)[1] if row[0] == "video"}, {word})
            self.assert_fails(run("extract", path, "vr", "--api", "class"), 1, text)

    def test_tracks_inside_others_are_not_hinted(self):
        data = next(data for label, data in damaged_boxes() if "covers" in label)
        self.assert_fails(run("hint", "--replace", "-", "-o", "-", stdin=data), 1, "is outside moov")

    def media_bytes(self, stream):
        walk = json.loads(run("inspect", "-", "--json", stdin=stream).stdout)
        self.assertNotIn("damage", walk)
        return sum(len(record.get("payload", "")) // 2 for record in walk["records"])

    @unittest.skipIf(IS_SANITIZED, "runs code that other tests run as well")
    def test_verdicts_are_what_extract_comes_to(self):
        names = [(path.stem, path.read_bytes()) for path in sorted(SAMPLES.glob("*.3gp"))]
        seen = set()
        for name, data in [*names, *damaged_copies(90)]:
            path = self.write("file.3gp", data)
            result, rows = self.check(path)
            self.assertIn(result.returncode, (0, 1), name)
            self.assertGreaterEqual(len(rows), 1)
            played = []
            about = json.loads(run("info", path, "--json").stdout or '{"tracks": []}')
            reported = {}  # bytes; the last track is played
            for track in about["tracks"]:
                medium = {"AMR": "audio", "H.2": "video", "MPE": "video"}.get(track["codec_name"][:3])
                reported[medium] = track["bytes"]
            for row in rows:
                seen.update(row[1:3])
                if row[0] == "-":
                    played.append(False)
                    continue
                apis = []
                for api, word in zip(("function", "class"), row[1:3]):
                    with self.subTest(name=name, api=api, row=row):
                        out = run("extract", path, row[0][0] + "r", "--api", api)
                        if word == "plays":
                            self.assertEqual(out.returncode, 0, out.stderr)
                            self.assertGreater(self.media_bytes(out.stdout), 0.9 * reported[row[0]])
                        apis.append(word == "plays")
                played.append(any(apis))
            self.assertEqual(result.returncode, 0 if all(played) else 1, name)
        # The copies are damaged in many ways.
        self.assertLessEqual({"plays", "codec", "incomplete", "damaged", "no-hint-track"}, seen)

    def test_the_command_that_is_named_fixes_it(self):
        tail = load("av_h263_amrnb_hinted")
        self.assertEqual(boxes(tail, [b"free"])[-1:], [tail[-67:]])
        files = {f"{name}.3gp": load(name)
                 for name in [*(row[0] for row in PLAIN), "h263_hinted_selfref"]}
        files["cut box.3gp"] = tail[:-5]
        files["it's.3gp"] = rebuilt(tail, {})[:-5]
        for odd in ["two\nlines\t'\\.3gp", "\udcff\x1b.3gp", "\u202e.3gp", "\u00e9 .3gp"]:
            files[odd] = files["amrnb_plain.3gp"]
        for name, data in files.items():
            path = self.write(name, data)
            _, rows = self.check(path)
            for row in rows:
                if row[3] == "-":
                    continue
                with self.subTest(name=name, row=row):
                    self.assertNotEqual(row[2], "plays")
                    # The command as info and report show it, through a shell.
                    verdicts = json.loads(run("info", path, "--json").stdout)["verdicts"]
                    shown = [v["fix"] for v in verdicts if v["medium"] == row[0] and "fix" in v]
                    words = subprocess.run(["bash", "-c", f"printf '%s\\0' {shown[0]}"],
                                           capture_output=True, check=True).stdout.split(b"\0")
                    words = [os.fsdecode(word) for word in words[:-1]]
                    self.assertNotRegex(shown[0], r"[\x00-\x1f\u202e\ufffd]")
                    self.assertEqual(words[0], "kestrel")
                    out = self.scratch / "fixed.3gp"
                    fixed = run(*[str(out) if word == "OUT" else word for word in words[1:]])
                    self.assertEqual((fixed.returncode, fixed.stderr), (0, b""))
                    after = {r[0]: r for r in self.check(out)[1]}
                    self.assertEqual(after[row[0]][1:3], ("plays", "plays"))

    @staticmethod
    def descendants(pid):
        found = []
        with contextlib.suppress(OSError):
            for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
                found += [int(child), *Check.descendants(int(child))]
        return found

    @unittest.skipUnless(os.path.exists("/proc/self/task"), "needs /proc")
    def test_processes_that_judge(self):
        """One that crashes is a damaged file, and none outlives the tool or its time."""
        # Long at work: many chunks at one place.
        data = speech_file(100_000_000, 50_000, 50_000)
        offsets = data.index(b"stco") + 8
        count, first = struct.unpack(">2I", data[offsets:offsets + 8])
        data = data[:offsets + 4] + struct.pack(">I", first) * count + data[offsets + 4 + 4 * count:]
        path = self.write("long.3gp", data)

        def start():
            tool = subprocess.Popen([TOOL, "check", "--api", "function", path],
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.addCleanup(tool.kill)
            while len(found := self.descendants(tool.pid)) < 2:  # for the file, and for its trial
                self.assertIsNone(tool.poll())
            return tool, found

        tool, found = start()
        os.kill(found[-1], signal.SIGKILL)
        out, _ = tool.communicate(timeout=120)
        self.assertEqual(out.decode().split("\t")[:4], ["audio", "damaged", "-", "-"])
        self.assertEqual(tool.returncode, 1)

        tool, found = start()
        tool.kill()
        tool.communicate(timeout=120)
        until = time.monotonic() + 30
        while any(os.path.exists(f"/proc/{pid}/exe") for pid in found):
            self.assertLess(time.monotonic(), until)

        result, rows = self.check("--api", "function", "--timeout", 1, path)
        self.assertEqual(rows, [("audio", "timeout", "-", "-", str(path))])
        # There may be a remark on the tables before it.
        self.assertTrue(result.stderr.endswith(b"kestrel: 1 of 1 file does not play: 1 timeout\n"))
        self.assertEqual(result.returncode, 1)

        # Quickly played, but slow to compare with its samples.
        path = self.write("one_place.3gp", samples_at_one_place(800_000))
        verdicts = json.loads(run("info", path, "--json", "--timeout", 1).stdout)["verdicts"]
        self.assertEqual(verdicts[1]["reason"], "timeout")

    def test_a_file_that_ends_the_process_does_not_end_the_check(self):
        bad = self.write("bad.3gp", foreign_mpeg4())
        self.assert_fails(run("extract", bad, "vr", "--api", "class"), 1,
                          f"{bad}: Bad 3GP file, only MP4 Video codec accepted")
        good = sample("amrnb_hinted")
        result, rows = self.check(good, bad, good)
        self.assertEqual([row[:3] for row in rows],
                         [("audio", "plays", "plays"), ("video", "plays", "ends-process"),
                          ("audio", "plays", "plays")])
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        verdicts = json.loads(run("info", bad, "--json").stdout)["verdicts"]
        self.assertEqual([v["reason"] for v in verdicts],
                         ["no-track", "plays", "ends-process", "ends-process"])
        self.assertNotIn("status", verdicts[3])
        self.assertNotIn(b"; status", run("info", bad).stdout)

    def test_what_cannot_be_read_is_reported_and_the_rest_judged(self):
        good = load("amrnb_hinted")
        self.write("in/a.3gp", good)
        self.write("in/locked/b.3gp", good)
        self.write("in/z.3gp", good)
        (self.scratch / "in" / "dangling.3gp").symlink_to("nowhere")
        os.mkfifo(self.scratch / "in" / "fifo.3gp")
        (self.scratch / "in" / "device.3gp").symlink_to("/dev/zero")
        (self.scratch / "in" / "locked").chmod(0)
        os.chmod(self.scratch, 0o755)
        result = subprocess.run([TOOL, "check", "in", "none.3gp", "in/z.3gp"], cwd=self.scratch,
                                capture_output=True, timeout=120, check=False, **self.unprivileged())
        rows = [line.split("\t") for line in result.stdout.decode().splitlines()]
        self.assertEqual([(row[1], row[4]) for row in rows],
                         [("plays", "in/a.3gp"), ("unreadable", "in/dangling.3gp"),
                          ("unreadable", "in/locked"),
                          ("plays", "in/z.3gp"), ("unreadable", "none.3gp"), ("plays", "in/z.3gp")])
        self.assertEqual(result.stderr.decode().splitlines(),
                         ["kestrel: in/dangling.3gp: No such file or directory",
                          "kestrel: in/locked: Permission denied",
                          "kestrel: none.3gp: No such file or directory",
                          "kestrel: 3 of 6 files do not play: 3 unreadable"])
        self.assertEqual(result.returncode, 1)

    def test_a_file_that_changes_is_the_only_one_that_fails(self):
        good = self.write("in/good.3gp", load("amrnb_hinted"))
        changing = self.write("in/changing.3gp", speech_file(200_000, 1))
        size = changing.stat().st_size
        for delay in range(12):
            judging = subprocess.Popen([TOOL, "check", changing, good], stdout=subprocess.PIPE,
                                       stderr=subprocess.PIPE)
            os.truncate(changing, size)
            time.sleep(0.004 * delay)
            os.truncate(changing, 1000)
            lines = judging.communicate(timeout=120)[0].decode().splitlines()
            self.assertEqual(lines[-1], f"audio\tplays\tplays\t-\t{good}")

    def test_a_run_that_cannot_judge_ends_with_its_reason(self):
        user = self.unprivileged()
        limits = [(resource.RLIMIT_NPROC, 0, "fork: ")]
        # The sanitizer of undefined behaviour needs descriptors of its own.
        if b"__ubsan_handle" not in pathlib.Path(TOOL).read_bytes():
            limits.append((resource.RLIMIT_NOFILE, 4, "pipe: "))
        for limit, number, message in limits:
            result = subprocess.run(
                [TOOL, "check", sample("amrnb_hinted")], capture_output=True, timeout=120,
                check=False, preexec_fn=lambda: resource.setrlimit(limit, (number, number)), **user)
            with self.subTest(message=message):
                self.assert_fails(result, 1, message)
                self.assertEqual(result.stdout, b"")

    def test_a_form_that_is_not_read_is_named(self):
        for name, sentence in [
                ("large_size_mdat", "does not read: with 64 bits."),
                ("mdat_to_end_of_file", "does not read: to the end of the file."),
                ("version1_headers", "plays at wrong times (unknown-table)")]:
            path = SAMPLES / "wild" / f"{name}.3gp"
            self.assertIn(sentence, run("info", path).stdout.decode())
            about = json.loads(run("info", path, "--json").stdout)
            self.assertEqual([part["duration_seconds"] for part in [about, *about["tracks"]]],
                             [2.02, 2.0, 2.02])
        self.assert_fails(run("extract", sample("wild/co64"), "vr"), 1,
                          "' makes a file that plays")

    def test_what_is_whole_of_a_cut_file_can_be_kept(self):
        for name, size in [("av_h263_amrnb_hinted", None), ("h263_plain", None),
                           ("wild/fragmented", None), ("h264_plain", None), ("h263_plain", 20)]:
            data = load(name)
            if size is None:
                data = data[:len(data) * 2 // 3]
            else:  # the last box ends with the file, which the tables do not know
                at = data.index(b"mdat") - 4
                data = data[:at] + struct.pack(">I", len(data) - at - size) + data[at + 4:-size]
            path = self.write("file.3gp", data)
            rows = self.check(path)[1]
            command = "hint --replace --salvage" if "hinted" in name else "hint --salvage"
            self.assertEqual({row[3] for row in rows if row[0] == "video"}, {command}, name)
            fixed = self.scratch / "fixed.3gp"
            words = command.split()
            self.assertEqual(run(words[0], path, *words[1:], "-o", fixed).returncode, 0)
            on_class_api = "codec" if "h264" in name else "plays"
            self.assertEqual({row[1:4] for row in self.check(fixed)[1]},
                             {("plays", on_class_api, "-")})

    def test_many_at_a_time(self):
        """The lines and the counts are those of one at a time, in any order of ending."""
        data = load("amrnb_hinted")
        self.write("in/slow.3gp", speech_file(30_000, 30_000, 30_000))
        for number in range(30):
            self.write(f"in/{number}", data if number % 3 else b"{}")
        self.write("in/z.3gp", data[:4000])
        one, rows = self.check(self.scratch / "in")
        self.assertEqual(len(rows), 22)  # by content, whatever the name
        for options in [("-j", 50), ("--jobs", 2)]:
            many = run("check", *options, self.scratch / "in",
                       preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (40, 40)))
            self.assertEqual((many.stdout, many.stderr), (one.stdout, one.stderr))
        skipped = self.check("--skipped", self.scratch / "in")[1]
        self.assertEqual([row[1] for row in skipped].count("skipped"), 10)
        listed = run("check", "--json", "-j", 3, self.scratch / "in")
        self.assertEqual((listed.returncode, listed.stderr), (one.returncode, one.stderr))
        about = json.loads(listed.stdout)
        self.assertEqual(about["summary"], {"files": 22, "do_not_play": 1, "skipped": 10,
                                            "reasons": {"incomplete": 1}})
        words = [(v["medium"], file["file"], v["api"], v["reason"]) for file in about["files"]
                 for v in file["verdicts"]]
        self.assertEqual(words, [(row[0], row[4], api, word) for row in rows
                                 for api, word in zip(("function", "class"), row[1:3])])

    def test_folders_take_no_descriptor_each(self):
        deep = pathlib.Path("in", *["d"] * 100, "file.3gp")
        self.write(deep, load("amrnb_hinted"))
        result = subprocess.run(
            [TOOL, "check", "in"], cwd=self.scratch, capture_output=True, timeout=120, check=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (32, 32)))
        self.assertEqual(result.stdout.decode(), f"audio\tplays\tplays\t-\t{deep}\n")

    def test_folders_without_a_file_are_reported(self):
        (self.scratch / "empty").mkdir()
        self.write("other/readme.txt", b"not looked at")
        for names, lines in [(["empty"], 0), (["other"], 0), (["empty", "other"], 0),
                             (["empty", sample("amrnb_hinted")], 1)]:
            result, rows = self.check(*(self.scratch / name for name in names))
            self.assertEqual(len(rows), lines)
            self.assert_fails(result, 1, f"{self.scratch / names[0]}: no media file")

    def test_folders_and_odd_names(self):
        data = load("amrnb_hinted")
        names = ["a.3gp", "b/c.3GP", "b/d/e.mp4", "b/two\nlines\t\\.3gp", "z.3gpp"]
        for name in names:
            self.write("in/" + name, data)
        self.write("in/b/readme.txt", b"not looked at")
        (self.scratch / "in" / "loop").symlink_to(self.scratch / "in")
        result, rows = self.check(self.scratch / "in")
        shown = [name.replace("\\", "\\x5c").replace("\n", "\\x0a").replace("\t", "\\x09")
                 for name in names]
        self.assertEqual([row[4] for row in rows], [f"{self.scratch}/in/{name}" for name in shown])
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        # Nothing of what waits to be written is written twice by the processes that judge.
        many = [self.scratch / "in" / "a.3gp"] * 40
        self.assertEqual(len(self.check(*many)[1]), 40)
        piped = run("check", "-", stdin=data)
        self.assertEqual(piped.stdout, b"audio\tplays\tplays\t-\t-\n")


class Outside(html.parser.HTMLParser):
    """What a page would fetch or run."""

    def __init__(self):
        super().__init__()
        self.found = []

    def handle_starttag(self, tag, attrs):
        if tag in ("script", "link", "iframe", "object", "embed", "img", "base", "form", "a"):
            self.found.append(tag)
        for name, value in attrs:
            if name.startswith("on") or name in ("src", "href", "xlink:href", "srcset", "action"):
                self.found.append((tag, name, value))
            if name == "style" and "url(" in value:
                self.found.append((tag, name, value))

    def handle_data(self, data):
        if self.lasttag == "style" and re.search(r"@import|url\(|expression", data):
            self.found.append(data)


SHAPE = ("x", "y", "width", "height", "x1", "y1", "x2", "y2", "d")


class Report(ToolTest):
    LARGEST_PAGE = 500_000

    def page(self, source, stdin=None):
        """The tree of a report that was looked over."""
        out = self.scratch / "report.html"
        result = run("report", source, "-o", out, stdin=stdin)
        self.assertLess(out.stat().st_size, self.LARGEST_PAGE)
        text = out.read_text(encoding="utf-8")
        outside = Outside()
        outside.feed(text)
        self.assertEqual(outside.found, [])
        page = xml.etree.ElementTree.fromstring(text)
        kind, = (self.words(kicker) for kicker in self.of_class(page, "kicker"))
        if kind == "3GP file":
            self.assertEqual((result.returncode, result.stderr), (0, b""))
        else:
            self.assert_fails(result, 1, "not an ISO media file")
        for shape in page.iter():
            for name in ("x", "y", "width", "height", "d", "x2", "y1", "style"):
                self.assertNotRegex(shape.get(name, ""), "nan|inf|e[+-]")
        return page

    @staticmethod
    def words(element):
        return re.sub(r"\s+", " ", " ".join(element.itertext()))

    @staticmethod
    def of_class(page, kind):
        return [e for e in page.iter() if kind in e.get("class", "").split()]

    def test_samples_and_damaged_copies(self):
        for path in sorted(SAMPLES.glob("*.3gp")):
            with self.subTest(path=path.name):
                page = self.page(path)
                self.assertEqual(self.of_class(page, "damage"), [])
                self.assertIn(path.name, self.words(page))
                # The verdicts are those of check.
                rows = [line.split("\t") for line in run("check", path).stdout.decode().splitlines()]
                reported = [self.words(said).strip() for said in self.of_class(page, "said")]
                self.assertEqual([t == "plays" for t in reported],
                                 [word == "plays" for row in rows for word in row[1:3]])
        for name, data in damaged_copies(120):
            with self.subTest(name=name):
                self.page("-", stdin=data)

    def test_what_a_page_says(self):
        both, plain = load("av_h263_amrnb_hinted"), load("h263_plain")
        movie, stbl = plain.index(b"moov"), both.index(b"stbl") - 4
        length = int.from_bytes(plain[movie - 4:movie], "big")
        # The movie box comes first, so that the media is what is cut.
        hinted = self.output("hint", "-", "-o", "-", stdin=plain)
        offsets = bytearray(load("mpeg4_b_hinted"))
        offsets[offsets.index(b"ctts") + 39] = 0  # the class API does not look at these
        first = offsets.index(b"trak") - 4
        second = first + int.from_bytes(offsets[first:first + 4], "big")
        end = second + int.from_bytes(offsets[second:second + 4], "big")
        last = offsets[:first] + offsets[second:end] + offsets[first:second] + offsets[end:]
        # A duration of next to nothing makes a bit rate that is not drawn.
        short = rebuilt(plain, {b"stts": struct.pack(">6I", 0, 2, 1, 1, 29, 6000)})
        header = short.index(b"mdhd") + 16
        short = short[:header] + struct.pack(">I", 4_000_000_000) + short[header + 4:]
        cases = [
            (last, ["Plays with the class API"], []),
            (offsets, ["The movie box has tracks that cannot be read"], []),
            (b"", ["The file is empty."], []), (b"x", ["too few for a box"], []),
            (b"no boxes here, but a text", ["this is no 3GP file", "This is no 3GP file"],
             ["3GP file This"]),
            (speech_file(0), ["no samples"], ["0 samples"]),
            (speech_file(180_000), ["Plays with the function API", "1:00:00 h", "180,000 samples",
                                    "on average 12.8 kbit/s, at most 12.8 kbit/s"], []),
            # The last sample is declared shorter than its bytes last.
            (load("amrnb_plain"), ["at most 12.8 kbit/s"], []),
            (short, ["which is not drawn"], []),
            (plain[:movie - 4 + length - 4], [], ["There is no audio"]),
            (both[:28], ["There is no movie box"], []),
            (both[:both.index(b"moov") + 200], ["The movie box is truncated: nothing can be played"],
             ["There is no audio"]),
            (load("h263_hinted_selfref"), ["The packets of the video are in the hint track itself"],
             ["has no RTP hint track", "track 65536 RTP hints track 65536"]),
            (both[:len(both) * 7 // 10],
             ["Bit rate – data is missing", "Hints – data is missing", "its width is not to scale",
              "Hint sample 11 of 30 is not in the file", "Box 'mdat' at byte",
              "chunks lie past the end", "Neither audio nor video plays to the end"],
             ["makes no packet"]),
            (both[:stbl] + bytes.fromhex("7fffffff") + both[stbl + 4:],
             [f"Box 'stbl' at byte {stbl} in moov / trak 1 / mdia / minf declares 2147483647"], []),
            (rebuilt(both, {b"stco": None}), ["There is no 'stco' box in moov / trak 1"], []),
            (both + b"\0\0\0\1mdat" + bytes(20), ["to the end are no box"], []),
            (foreign_mpeg4(), ["Opening ends the whole process"], []),
            (load("two_amrnb_hinted"), ["Played: track 2; not judged: track 1."], []),
            (load("wild/fragmented"), ["Duration 2.02 s", "30 samples in a form that neither API"],
             ["no samples", "0 chunks", "every sample is a sync sample"]),
            (edited(500, -1, 3000, 250),
             ["for 0.50 s nothing, then for 3.00 s the media from 0.250 s on at 0.50 times"], []),
            # The reader's remarks follow the verdicts.
            (load("wild/stz2"), ["Does it play?", "Remarks of the reader"], []),
        ]
        for content, reported, unreported in cases:
            page = self.page("-", stdin=bytes(content))
            text, at = self.words(page), 0
            for part in reported:
                with self.subTest(reported=part):
                    self.assertIn(part, text[at:] if "Remarks" in part else text)
                    at = text.index(part)
            for part in unreported:
                with self.subTest(unreported=part):
                    self.assertNotIn(part, text)
            for strip in self.of_class(page, "strip"):
                self.assertLessEqual(len(list(strip)), 480)
        self.assertTrue(self.of_class(self.page("-", stdin=hinted[:len(hinted) * 2 // 3]), "lost"))
        self.assertEqual(self.of_class(self.page("-", stdin=hinted), "lost"), [])

    def figures(self, page, wanted):
        """A line for each figure that is wanted, and one for each shape in it."""
        for figure in page.iter("figure"):
            rows = {self.words(row).strip() for row in figure.iter("tr")}
            if rows and "Packet sizes" in self.words(figure):  # seen without a pointer, too
                self.assertEqual(rows, {re.sub("(.*) at (.*)", r"\2 \1", title.text)
                                        for title in figure.iter("title")})
        for svg in page.iter("svg"):
            if re.search(wanted, svg.get("aria-label", "icon")):
                yield svg.get("aria-label")
                for shape in svg:
                    numbers = " ".join(shape.get(name) for name in SHAPE if shape.get(name))
                    numbers = re.sub(r"\d+\.\d+", lambda one: f"{float(one[0]):.0f}", numbers)
                    yield " ".join(["", shape.get("class") or shape.tag, numbers,
                                    shape.get("fill-opacity", ""), self.words(shape)]).rstrip()

    def test_figures_are_as_recorded(self):
        data = load("h263_plain")
        size = int.from_bytes(boxes(data, [*STBL, b"stsz"])[0][12:16], "big")
        few = [*range(1, 101), *range(101, 600, 20)]  # sync samples of a long file: some are paler
        long = rebuilt(data, {
            b"stsz": struct.pack(">3I", 0, size, 600), b"stts": struct.pack(">4I", 0, 1, 600, 1000),
            b"stco": struct.pack(">2I", 0, 1) + boxes(data, [*STBL, b"stco"])[0][8:12],
            b"stsc": struct.pack(">5I", 0, 1, 1, 600, 1),
            b"stss": struct.pack(f">2I{len(few)}I", 0, len(few), *few)})
        lines = []
        for name, content, wanted in [
                ("av_h263_amrnb_hinted", load("av_h263_amrnb_hinted"), "bytes are|hint|rate|size"),
                ("h264_hinted_1450", load("h264_hinted_1450"), "hint"),
                ("600 samples", long, "Sync"), ("no edit", edited(0, 0), "Edit"),
                ("edits", edited(500, -1, 3000, 250), "Edit")]:
            lines += [f"# {name}", *self.figures(self.page("-", stdin=content), wanted)]
        self.assert_recorded("report_figures.txt", lines)

    def test_tables_that_lie(self):
        lies = [speech_file(2**31 - 1, 2**31 - 1, 10), speech_file(5000, 1, 10)]
        data = load("h263_hinted")
        for changes in [{b"stsz": struct.pack(">3I", 0, 1, 2**31 - 1)},
                        {b"stts": struct.pack(">4I", 0, 1, 30, 2**32 - 1)},
                        {b"stts": struct.pack(">4I", 0, 1, 30, 0)},
                        {b"stss": struct.pack(">6I", 0, 4, 30, 1, 1, 2**32 - 1)},
                        {b"stco": struct.pack(">3I", 0, 1, 2**32 - 1)}]:
            lies.append(rebuilt(data, changes))
        mdhd = data.index(b"mdhd") + 16
        lies.append(data[:mdhd] + bytes(4) + data[mdhd + 4:])
        lies.append(struct.pack(">I4s", 8, b"free") * 30000)
        trak = boxes(data, [b"moov", b"trak"])[0]
        many = (struct.pack(">I4s", len(trak) + 8, b"trak") + trak) * 300
        movie = rebuilt(data, {b"moov": None})
        lies.append(movie + struct.pack(">I4s", len(many) + 8, b"moov") + many)
        for number, lie in enumerate(lies):
            with self.subTest(number=number):
                self.page("-", stdin=lie)

    def test_texts_of_the_file_stay_texts(self):
        data = load("av_h263_amrnb_hinted")
        evil = b'</pre><script>alert(1)</script>"\'><img src=x onerror=alert(1)>&lt;\xff\xc0\x80\0'
        sdp = boxes(data, [b"moov", b"trak", b"udta", b"hnti", b"sdp "])
        self.assertGreater(len(sdp[0]), len(evil))
        cases = [data.replace(sdp[0], evil[:-1].ljust(len(sdp[0]))),
                 data.replace(b"isom", b'"><s'), data.replace(b"3gp4", b"<b>\0"),
                 data.replace(b"s263", b'<&">'), data.replace(b"vide", b"<i>\x1b"),
                 data.replace(b"mdat", b"<u>\"")]
        name = "<img src=x onerror=alert(1)>\u202e&'\".3gp"
        for number, content in enumerate(cases):
            with self.subTest(number=number):
                self.assertNotEqual(content, data)
                path = self.scratch / name
                path.write_bytes(content)
                page = self.page(path)
                self.assertEqual({e.tag for e in page.iter()} & {"script", "img", "s", "u"}, set())
                self.assertIn("<img src=x onerror=alert(1)>\ufffd&'\".3gp",
                              "".join(page.find(".//h1").itertext()))
        text = self.words(self.page("-", stdin=cases[0]))
        self.assertIn("<script>alert(1)</script>", text)


if __name__ == "__main__":
    unittest.main(verbosity=1)
