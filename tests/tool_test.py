# SPDX-License-Identifier: Apache-2.0
"""The command-line tool as a person meets it: commands, outputs, messages and exit codes."""

import concurrent.futures
import contextlib
import datetime
import fcntl
import hashlib
import itertools
import json
import os
import pathlib
import pty
import re
import resource
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import time
import unittest

from support.tool import (IS_SANITIZED, MEDIA, NOBODY, ON_CLASS_API, PLAIN, SAMPLES, TOOL, VIDEO,
                          Datagrams, ToolTest, box, boxes, load, rebuilt, run, sample, true_packets)

needs_ffmpeg = unittest.skipUnless(shutil.which("ffprobe"), "ffmpeg is not installed")
WILD = SAMPLES / "wild"


def ffmpeg(program, level, *arguments):
    """What an independent program prints of a file, of which it may complain of nothing but that it
    does not decode hint tracks."""
    known = re.compile(rb"^Unsupported codec with id 0 for input stream \d+\n", re.MULTILINE)
    result = subprocess.run([program, "-v", level, *map(str, arguments)], capture_output=True,
                            check=False, timeout=60)
    assert (result.returncode, known.sub(b"", result.stderr)) == (0, b""), result.stderr
    return result.stdout


def frames(*arguments):
    """Stream and digest of each frame that an independent decoder finds in its inputs."""
    listed = ffmpeg("ffmpeg", "error", *arguments, "-map", "0:v?", "-map", "0:a?", "-vsync",
                    "passthrough", "-f", "framemd5", "-")
    return re.findall(rb"^(\d),.*, (\w+)$", listed, re.M)


def demuxed(path, stream, *options):
    """Size, digest, times in milliseconds and sync flag of each sample, as an independent demuxer
    has them."""
    shown = ffmpeg("ffprobe", "warning", *options, "-select_streams", stream, "-show_packets",
                   "-show_data_hash", "md5", "-of", "json", path)
    return [(int(p["size"]), p["data_hash"], float(p["pts_time"]) * 1000,
             float(p["dts_time"]) * 1000, p["flags"][0]) for p in json.loads(shown)["packets"]]


class Extract(ToolTest):
    def test_every_clip_comes_back_by_both_apis_however_it_arrives(self):
        steps = (777,) if IS_SANITIZED else (777, 70001, 10**7)
        for (name, mode, truth), api in itertools.product(MEDIA, ["function", "class"]):
            if api == "class" and name not in ON_CLASS_API:
                continue
            with self.subTest(name=name, api=api):
                stream = self.extract(name, mode, "--api", api)
                for step in steps:
                    self.assertTrue(stream == self.extract(name, mode, "--api", api, "--arriving",
                                                           step))
                media = self.unpack(stream)
                self.assert_true(media, truth)
                self.assertTrue(media == self.extract(name, mode, "--api", api, "--unpack",
                                                      "--arriving", 3000))
                if mode == "vr" and api == "class":
                    records = json.loads(self.output("inspect", "-", "--json", stdin=stream))
                    packets = [bytes.fromhex(record["payload"]) for record in records["records"]
                               if record["record"] == "TEL_Packet_Header"]
                    rows = true_packets(name)
                    self.assertEqual([hashlib.md5(packet).hexdigest() for packet in packets],
                                     [row[6] for row in rows if row[0] == rows[0][0]])

    @needs_ffmpeg
    def test_a_decoder_gets_the_pictures_of_the_file(self):
        for name in [*VIDEO, "h263_rfc2190_hinted_1450"]:
            with self.subTest(name=name):
                media = self.write("media", self.extract(name, "vr", "--unpack"))
                decoded = frames("-f", VIDEO.get(name, ".h263").split(".")[1], "-i", media)
                self.assertEqual(decoded, [frame for frame in frames("-i", sample(name))
                                           if frame[0] == b"0"])

    def test_standard_input_is_played_while_it_arrives(self):
        whole = self.extract("amrnb_plain", "ar")
        data = load("amrnb_plain")
        tool = subprocess.Popen([TOOL, "extract", "-", "ar"], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)
        self.addCleanup(tool.kill)
        tool.stdin.write(data[:-1000])
        # The input has not ended, yet what has arrived is there.
        first = b""
        while len(first) < 8000:
            first += tool.stdout.read(1024)
        self.assertEqual(first, whole[: len(first)])
        tool.stdin.write(data[-1000:])
        rest, errors = tool.communicate(timeout=60)
        self.assertEqual((first + rest, tool.returncode, errors), (whole, 0, b""))

    def faults(self):
        """Names of clips with a fault, and of those without it; mode and API; the message; the part
        of the stream that comes before the fault, at least."""
        speech, hinted = load("amrnb_plain"), load("h263_hinted")
        half = len(speech) // 2
        media = speech.index(b"mdat") - 4
        lost = media + int.from_bytes(speech[media:media + 4], "big") - half
        cut = self.write("cut.3gp", speech[:half])
        yield (cut, "amrnb_plain", "ar", "function",
               f"The file is cut: {lost:,} bytes of 'mdat' are missing (status 17); 'kestrel hint "
               f"{cut} --salvage -o OUT' keeps what is whole of it", 0.1)
        sizes = hinted.rindex(b"stsz") + 12
        part = self.write("part.3gp", hinted[:sizes] + struct.pack(">I", 10) + hinted[sizes + 4:])
        yield part, "h263_hinted", "vr", "function", "7 of 30 pictures", 0.1
        yield part, "h263_hinted", "vr", "class", "10 of 30 pictures", 0.1
        data = load("wild/late_sound")
        sizes = data.index(b"stsz") + 12
        short = self.write("short.3gp", data[:sizes] + struct.pack(">I", 29) + data[sizes + 4:])
        yield short, None, "vr", "function", "1 of 30 samples has no size in the size table", 0.1
        yield (sample("h263_hinted_selfref"), "h263_hinted", "vr", "class",
               "in the hint track itself", 0)
        for name in ("fragmented.3gp", "fragmented_after_moov.3gp"):
            yield WILD / name, None, "vr", "function", "are in movie fragments", 0
        for name, mode in [("h263_hinted", "vr"), ("mpeg4_hinted", "vr"), ("amrnb_hinted", "ar")]:
            data = load(name)
            table = data.index(b"stco") + 8  # of the media, after version and flags
            count = int.from_bytes(data[table:table + 4], "big")
            for chunk in range(1, count):
                at = table + 4 + 4 * chunk
                lost = self.write("lost.3gp", data[:at] + b"\x7f\xff\xff\xff" + data[at + 4:])
                yield lost, name, mode, "class", "", chunk / count / 3

    def test_what_comes_before_a_fault_is_kept_and_the_rest_reported(self):
        for path, original, mode, api, message, least in self.faults():
            whole = original and self.extract(original, mode, "--api", api)
            for options in [(), ("--arriving", 3000)]:
                with self.subTest(path=str(path), api=api, message=message, options=options):
                    out = self.write("out", b"old")
                    result = run("extract", path, mode, "--api", api, "-o", out, *options)
                    self.assert_fails(result, 1, message)
                    self.assertIn(f"{path}: ", result.stderr.decode())
                    kept = out.read_bytes()
                    if kept == b"old":
                        self.assertEqual(least, 0)
                        continue
                    self.assertIn(f"kept {len(kept)} bytes", result.stderr.decode())
                    if whole:
                        self.assertTrue(whole.startswith(kept))
                        self.assertGreater(len(kept), len(whole) * least)
                        result = run("unpack", "-", "-o", "-", stdin=kept)
                        self.assertNotIn(b"ends inside", result.stderr)


class Tracks(ToolTest):
    def test_a_track_is_chosen_by_its_id(self):
        file = sample("two_amrnb_hinted")
        tracks = [track for track in json.loads(self.output("info", file, "--json"))["tracks"]
                  if track["handler"] == "soun"]
        media = set()
        for track, api in itertools.product(tracks, ("function", "class")):
            media.add(self.output("extract", file, "ar", "--api", api, "--track", track["track_id"],
                                  "--unpack"))
        self.assertEqual({len(one) for one in media},
                         {track["bytes"] + len(b"#!AMR\n") for track in tracks})
        self.assertEqual(len(media), 2)

    def test_no_other_track_is_played_in_place_of_the_chosen_one(self):
        data = pathlib.Path(sample("amrnb_plain_mdat_first")).read_bytes()
        movie, track = data.index(b"moov") - 4, data.index(b"trak") - 4
        track_id = track + 28  # in the version-0 tkhd that begins a trak
        tracks = [data[track:track_id] + struct.pack(">I", i) + data[track_id + 4:]
                  for i in range(1, 71)]
        body = data[movie + 4:track] + b"".join(tracks)
        path = self.scratch / "many.3gp"
        path.write_bytes(data[:movie] + struct.pack(">I", len(body) + 4) + body)
        self.assertIn(b"too many tracks", run("extract", path, "ar", "--track", "1").stderr)

    def test_seeking_reports_where_it_begins(self):
        whole = self.extract("h263_hinted", "vr", "--api", "class")
        begins = [int.from_bytes(whole[8:12], "little")]
        headers = whole[:begins[0]]
        while begins[-1] < len(whole):
            length = whole[begins[-1]:begins[-1] + 4]
            begins.append(begins[-1] + int.from_bytes(length, "little"))
        for options, frame in [(("--sync", "next"), 11), (("--sync", "previous"), 1),
                               (("--sync", "nearest"), 11), ((), 1),
                               (("--sync", "next", "--arriving", "3000"), 11)]:
            with self.subTest(options=options):
                result = run("extract", sample("h263_hinted"), "vr", "--api", "class", "--from",
                             "900", *options)
                self.assertRegex(result.stderr.decode(),
                                 rf"^from \d+ ms: frame {frame}, file offset \d+\n.*: the hint track has another timescale")
                self.assertEqual(result.stdout, headers + whole[begins[frame - 1]:])

    def test_seeking_fails_where_a_frame_after_the_target_is_lost(self):
        for name, mode, number, before, after in [
                ("amrnb_hinted", "ar", 100, 1900, 2200), ("amrnb_hinted_multi", "ar", 100, 1900, 2200),
                ("h263_hinted", "vr", 10, 0, 900)]:
            constructor = rb"(\x02\x00..)\x00\x00\x00" + re.escape(bytes([number]))
            wrong = re.sub(constructor, lambda found: found[1] + b"\0\1\0\0", load(name), flags=re.DOTALL)
            for data, begin, code in [(wrong, 0, 1), (wrong, before, 1), (wrong, after, 0),
                                      (load(name), 0, 0), (load(name), before, 0)]:
                with self.subTest(name=name, begin=begin, code=code):
                    result = run("extract", self.write("in.3gp", data), mode, "--api", "class",
                                 "--from", begin, "--sync", "next")
                    self.assertEqual(result.returncode, code, result.stderr)


# Command lines in a folder of files, with their exit code and message.
REFUSED = [
    ("", 2, "a command is missing; 'kestrel help' lists"),
    ("bogus", 2, "unknown command 'bogus'"), ("chekc x", 2, "did you mean 'check'?"),
    ("version extra", 2, "not expected: 'extra'; usage: kestrel version"),
    ("help info extra", 2, "not expected: 'extra'; usage: kestrel help [COMMAND]"),
    ("inf", 2, "did you mean 'info'?"), ("help chek", 2, "did you mean 'check'?"),
    ("-clip.3gp", 2, "a name that begins with a dash is given as ./-clip.3gp"),
    ("info -clip.3gp", 2, "a name that begins with a dash is given as ./-clip.3gp"),
    ("s/h263_plain.3gp", 2, "a command comes before the file"),
    ("info --bogus", 2, "unknown option '--bogus'; 'kestrel help info' lists"),
    ("extract --arivin 5 x ar", 2, "did you mean '--arriving'?"),
    ("info --y x", 2, "unknown option '--y'; 'kestrel help info'"),
    ("extract x", 2, "MODE is missing; usage: kestrel extract FILE MODE"),
    ("hint x", 2, "--output is missing; usage: kestrel hint FILE --output OUT"),
    ("send x", 2, "--to is missing; usage: kestrel send FILE --to HOST:PORT"),
    ("report x", 2, "--output"), ("check", 2, "FILE"), ("pack -o out", 2, "a STREAM"),
    ("extract -- x ar --api class", 2, "not expected: '--api class'; usage: kestrel extract FILE"),
    ("extract x ar --from 99999999999 --api class", 2, "is not a whole number from 0 to 4294967295"),
    ("extract x ar --from=+5 --api class", 2, "'+5' is not a whole number in decimal digits"),
    ("packets s/amrnb_hinted.3gp --pcap /dev/null", 2, "/dev/null: is a device"),
    ("info x" + 6000 * " a_file_name.3gp", 2, "not expected: 'a_file_name.3gp "),
    ("hint x --mtu " + 60000 * "9", 2, "--mtu"),
    ("extract x ar -o", 2, "-o needs OUT after it"),
    ("extract x ar -o -y", 2, "begins with a dash is given as ./-y"),
    ("extract x ar --from -1", 2, "--from needs MS after it, not '-1'"),
    ("extract x ar --from abc --api class", 2, "--from: 'abc' is not a whole number"),
    ("extract x ar --arriving 0", 2, "'0' is not a whole number from 1 to 4294967295"),
    ("extract x ar --sync next", 2, "--sync needs --from"),
    ("extract x ar --from 5 --sync up", 2,
     "--sync: 'up' is none of next, previous, nearest"),
    ("extract x ar --api 0", 2, "--api: '0' is none of function, class"),
    ("check --api up x", 2, "'up' is none of function, class"),
    ("packets x --hex --pcap y", 2, "exclude each other"),
    ("pack a.native --video v.native -o out", 2, "exclude each other"),
    *((f"hint x -o y --mtu {n}", 2, "--mtu: '") for n in ("0x100", "064_", "00063")),
    ("packets x --pcap -", 2, "--pcap needs the name of a file"),
    ("hint x -o y --mtu 5", 2, "--mtu: '5' is not a whole number from 64 to 65535"),
    ("check x --timeout abc", 2, "'abc' is not a whole number from 1 to 1000000"),
    ("extract x ar -o a -o b", 2, "--output is given 2 times; give it once"),
    ("check - -", 2, "standard input, -, can be judged once only"),
    ("info ''", 2, "FILE: the name of a file is empty"),
    ("hint s/amrnb_plain.3gp --mtu 63 -o out", 2, "63"),
    *((f"{command} -o ''", 2, "name of a file is empty") for command in
      ("extract s/amrnb_plain.3gp ar", "hint in.3gp", "report in.3gp", "pack a.native",
       "unpack a.native")),
    ("hint '' -o out", 2, "name of a file is empty"),
    ("extract s/amrnb_plain.3gp ax -o out", 2,
     "MODE 'ax' is not known: ar plays audio, vr"),
    ("extract s/av_h263_amrnb_hinted.3gp vr --track 1 --arriving 10", 2, "as a whole"),
    ("extract - vr --track 1", 2, "as a whole"),
    ("pack --audio - --video - -o out", 2, "only one of --audio and --video"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1", 2, "HOST:PORT"),
    ("send s/amrnb_hinted.3gp --to ::1:5004", 2, "HOST:PORT"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:70000", 2, "HOST:PORT"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:5005", 2, "even port"),
    ("send s/two_amrnb_hinted.3gp --to 127.0.0.1:65534", 2, "beyond 65535"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:9 --speed 0", 2, "'0' is not a number from 0.01 to 1000"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:9 --speed nan", 2, "--speed: 'nan' is not a number from 0.01 to 1000"),
    # The output is the input.
    *((f"{command} -o {command.split()[1]}", 2, "is the input") for command in
      ("extract in.3gp ar", "hint in.3gp", "report in.3gp", "pack a.native")),
    # Files.
    ("extract s/aac_plain.3gp ar -o out", 1, "s/aac_plain.3gp: This API does not play "
     "AAC; convert it with another tool first (status 2)"),
    ("extract s/amrnb_plain.3gp vr -o out", 1, "s/amrnb_plain.3gp: no video track"),
    ("extract empty ar -o out", 1, "empty: not an ISO media file: it is empty"),
    ("extract random ar -o out", 1, "random: not an ISO media file"),
    *((f"{command} {name}", 1, f"{name}: not an ISO media file: it has neither") for name in
      ("text", "random") for command in ("info", "boxes", "hint -o out", "packets")),
    ("info v.native", 1, "movie box; 'kestrel inspect' shows native streams"),
    ("extract none ar -o out", 1, "none: No such file or directory"),
    ("report none -o out", 1, "none: No such file or directory"),
    ("extract s ar -o out", 1, "s: Is a directory"),
    ("hint in.3gp -o s", 1, "s: Is a directory"),
    ("hint in.3gp -o no/out", 1, "No such file"),
    ("extract s/av_h263_amrnb_hinted.3gp ar --track 1 -o out", 1, "no audio track 1"),
    ("extract s/av_h263_amrnb_hinted.3gp vr --track 65536", 1, "no video track 65536"),
    ("extract s/two_amrnb_hinted.3gp ar --api class -o out", 1,
     "The file has several audio tracks, and this API plays a file with one; 'kestrel extract "
     "--track ID' plays any of them"),
    ("extract s/amrwb_hinted.3gp ar --api class -o out", 1,
     "This API does not play AMR-WB; the function API does (status 2)"),
    ("extract s/amrnb_plain.3gp ar --api class -o out", 1,
     "The audio has no RTP hint track, and this API plays nothing else (status 12: Hint tracks are "
     "required); 'kestrel hint s/amrnb_plain.3gp -o OUT' makes a file that plays"),
    ("extract s/amrnb_hinted.3gp vr --api class -o out", 1, "no video track"),
    ("extract s/h264_hinted.3gp vr --api class -o out", 1,
     "This API does not play H.264; the function API does (status"),
    ("packets s/two_amrnb_hinted.3gp --track 1", 1, "no hint track with this ID"),
    ("packets s/amrnb_plain.3gp", 1, "no hint track; 'kestrel hint' adds one"),
    ("packets s/aac_plain.3gp", 1, "no hint track, and no AMR, H.263, MPEG-4 or H.264 track"),
    *((f"{command} unfinished.3gp{mode}", 1, "72 bytes of 'mdat' are missing, and so is the movie "
       "box, which lists the tracks: get the whole file") for command, mode in
      [("packets", ""), ("extract", " ar -o out")]),
    ("boxes s/amrnb_plain.3gp --path moov/tark", 1, "has no box moov/tark"),
    ("boxes empty", 1, "empty: has no boxes"),
    ("inspect s/amrnb_plain.3gp", 1, "amrnb_plain.3gp: this is a 3GP file; extract a track of it"),
    ("hint s/aac_plain.3gp -o out", 1, "no AMR, H.263, MPEG-4 or H.264 track"),
    *((f"{command}", 1, "sample 298 of track 1, 32 bytes at offset 10122, lies outside the file of "
       "10134 bytes; the file is cut: 20 bytes of 'mdat' are missing; " + salvage + " keeps what is "
       "whole of it") for command, salvage in
      [("hint cut.3gp -o out", "--salvage"), ("hint cut.3gp -o cut.3gp", "--salvage"),
       ("send cut.3gp --to 127.0.0.1:10", "'kestrel hint --salvage'")]),
    ("hint empty -o out", 1, "not an ISO media file"),
    ("extract s/av_h263_amrnb_hinted.3gp vr --api class --from 999999 -o out", 1,
     "cannot begin at 999999 ms; the end is at 2000 ms"),
    ("hint s/amrwb_plain.3gp --mtu 64 -o out", 1,
     "sample 1 cannot be cut into packets of at most 64 bytes; a frame needs up to 74"),
    ("hint s/av_h263_amrnb_hinted.3gp -o out", 1, "--replace"),
    *((f"unpack {name} -o out", 1, "") for name in ("empty", "text", "header")),
    ("pack empty -o out", 1, "the stream ends inside PROP_Header_Info"),
    ("pack s/amrnb_plain.3gp -o out", 1, "this is a 3GP file"),
    ("pack --audio v.native -o out", 1, "v.native: this is a video stream"),
    ("pack --audio a.native --video a.native -o out", 1, "this is an audio stream"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:10 --from 60000", 1, "after the end"),
    ("send s/aac_plain.3gp --to 127.0.0.1:10", 1, "no AMR, H.263, MPEG-4 or H.264 track"),
    ("send many.3gp --to 127.0.0.1:10", 1, "65 hint tracks; the most"),
    ("send s/amrnb_hinted.3gp --to 127.0.0.1:10 --speed 1000", 1, "nobody listened:"),
    # What can be written nowhere.
    *((f"{command} -o /dev/full", 1, "No space left") for command in
      ("extract in.3gp ar", "hint in.3gp", "report in.3gp") if os.path.exists("/dev/full")),
]


class Usage(ToolTest):
    def test_what_cannot_be_done_is_explained_and_the_output_stays(self):
        (self.scratch / "s").symlink_to(SAMPLES)
        for name, data in [
                ("-clip.3gp", b""), ("empty", b""), ("out", b"old"), ("text", b"no stream, but text"),
                ("random", hashlib.sha512(b"x").digest() * 99),
                ("cut.3gp", load("amrnb_plain")[:-20]), ("in.3gp", load("amrnb_plain")),
                ("unfinished.3gp", box(b"ftyp", b"3gp4\0\0\0\0") + box(b"mdat", b"body", 72)),
                ("a.native", self.extract("amrnb_plain", "ar")),
                ("v.native", self.extract("h263_plain", "vr"))]:
            self.write(name, data)
        (self.scratch / "header").write_bytes((self.scratch / "a.native").read_bytes()[:68])
        hinted = load("amrnb_hinted")
        movie = boxes(hinted, [b"moov"])[0]
        hint = movie[movie.rindex(b"trak") - 4:]
        hint = hint[:int.from_bytes(hint[:4], "big")] * 64
        self.write("many.3gp", box(b"moov", hint + movie))
        there = {path: path.read_bytes() for path in self.scratch.iterdir() if path.is_file()}
        for line, code, message in REFUSED:
            with self.subTest(line=line):
                result = run(*shlex.split(line), cwd=self.scratch)
                self.assert_fails(result, code, message)
                if code == 2 or line.startswith(("inspect", "boxes")):
                    self.assertEqual(result.stdout, b"")
                self.assertEqual({path: path.read_bytes() for path in self.scratch.iterdir()
                                  if path.is_file()}, there)

    def test_help(self):
        text = run("--help").stdout.decode()
        self.assertEqual(run("help").stdout.decode(), text)
        for command in ["extract", "info", "inspect", "unpack", "packets", "boxes", "report",
                        "check", "hint", "pack", "send"]:
            self.assertIn(command, text)
            about = run(command, "--help").stdout
            self.assertEqual(run("help", command).stdout, about)
            # The parser's own words do not show.
            self.assertNotRegex(about.decode(), "TEXT|UINT|REQUIRED|SUBCOMMAND|Positionals")
            self.assertIn("\nExit status: 0 ", about.decode())
            options = about.decode().split("Options:")[1].split("\n\n")[0].splitlines()
            self.assertLessEqual(max(map(len, options)), 80)
        self.assertRegex(run("--version").stdout.decode(), r"^kestrel \d+\.\d+\.\d+\n$")
        self.assertEqual(run("version").stdout, run("--version").stdout)


class StandardStreams(ToolTest):
    def run_with(self, redirections, *arguments):
        """Through a shell, which can close streams."""
        words = shlex.join(map(str, [TOOL, *arguments]))
        return subprocess.run(["sh", "-c", f"{words} {redirections}"], capture_output=True,
                              timeout=120, check=False)

    @unittest.skipUnless(os.path.exists("/dev/full"), "there is no /dev/full")
    def test_lost_output_is_reported(self):
        stream = self.write("stream.tel", self.extract("amrnb_hinted", "ar"))
        clip = [sample("amrnb_hinted")]
        for command, rest in [("check", clip), ("info", clip), ("boxes", clip), ("packets", clip),
                              ("inspect", [stream]), ("--help", []), ("--version", [])]:
            for redirection in [">/dev/full", ">&-"]:
                with self.subTest(command=command, redirection=redirection):
                    result = self.run_with(redirection, command, *rest)
                    self.assert_fails(result, 1, "kestrel: standard output: ")
        for command in (["hint", *clip, "--replace"], ["extract", *clip, "ar"], ["pack", stream]):
            result = self.run_with(">/dev/full", *command, "-o", "-")
            self.assert_fails(result, 1, "kestrel: standard output: ")

    def test_closed_streams_change_nothing(self):
        file, out = sample("av_h263_amrnb_hinted"), self.scratch / "out.3gp"
        expected = self.output("check", file)
        for closed in ["<&-", "2>&-", "<&- 2>&-"]:
            result = self.run_with(closed, "check", file)
            self.assertEqual((result.returncode, result.stdout), (0, expected), closed)
        result = self.run_with("<&- >&- 2>&-", "hint", sample("h263_plain"), "-o", out)
        self.assertEqual(result.returncode, 0)
        self.output("check", out)


class ProgressLine(ToolTest):
    """What takes longer than a moment shows on a terminal that it goes on."""

    def see(self, command, *arguments, seconds=60):
        """What comes on a terminal, in this time at most, while standard input arrives and standard
        output is taken in small pieces."""
        stream = command in ("pack", "inspect", "unpack")
        data = self.stream if stream else pathlib.Path(sample("av_h263_amrnb_hinted")).read_bytes()
        terminal, error_end = pty.openpty()
        output, output_end = os.pipe()
        fcntl.fcntl(output, fcntl.F_SETPIPE_SZ, 4096)
        tool = subprocess.Popen([TOOL, command, *arguments], cwd=self.scratch,
                                stdin=subprocess.PIPE, stdout=output_end, stderr=error_end)
        os.close(error_end)
        os.close(output_end)
        pieces = [data[at:at + 50] for at in range(0, len(data) - 50, 50)]
        end = time.monotonic() + seconds
        shown = b""
        while not shown and time.monotonic() < end and tool.poll() is None:
            ready, _, _ = select.select([terminal, output], [], [], 0.02)
            if terminal in ready:
                shown = os.read(terminal, 1000)
            elif output in ready:
                os.read(output, 50)
                time.sleep(0.02)
            if pieces and "-" in arguments:
                tool.stdin.write(pieces.pop(0))
                tool.stdin.flush()
        tool.kill()
        tool.communicate()
        os.close(terminal)
        os.close(output)
        return shown

    def test_every_command_that_takes_its_time(self):
        self.stream = self.extract("amrnb_plain", "ar")
        file, here = sample("av_h263_amrnb_hinted"), Datagrams(2)
        self.addCleanup(here.close)
        to = f"127.0.0.1:{here.port}"
        many = SAMPLES / "wild" / "fragmented_each_frame.3gp"
        commands = [("info", "-"), ("boxes", "-"), ("packets", "-"), ("check", "-"),
                    ("hint", "-", "-o", "a"), ("report", "-", "-o", "b"), ("pack", "-", "-o", "c"),
                    ("inspect", "-"), ("unpack", "-", "-o", "d"), ("extract", "-", "ar", "-o", "e"),
                    ("send", file, "--to", to), ("send", "-", "--to", to), ("packets", file, "--hex"),
                    ("packets", file, "--json"), ("boxes", many), ("boxes", many, "--json")]
        with concurrent.futures.ThreadPoolExecutor(len(commands)) as threads:
            quiet = threads.submit(self.see, "boxes", many, "--quiet", seconds=2)
            for command, shown in zip(commands, threads.map(lambda words: self.see(*words), commands)):
                with self.subTest(command=command):
                    self.assertRegex(shown, rb"^\r(\d.*|waiting for .*)\x1b\[K$")
            self.assertEqual(quiet.result(), b"")


class ForeignTexts(ToolTest):
    """Escape sequences, C1 bytes, line breaks and changes of direction in what is not the tool's own
    text do not reach a terminal."""

    EVIL = [b"\x1b[2J", b"\xc2\x9b1m", b"\r\n\x9b\x7f", b"\xe2\x80\xae<"]
    NAME = "\x1b]0;x\x07\u202e\u009b\udc9b\n.3gp"
    ESCAPED = b"\\x1b]0;x\\x07\\xe2\\x80\\xae\\xc2\\x9b\\x9b\\x0a.3gp"
    COMMANDS = [("info",), ("info", "--json"), ("boxes",), ("boxes", "--json"), ("packets",),
                ("packets", "--track", "9"), ("packets", "--json"), ("packets", "--pcap", "pcap"),
                ("boxes", "--path", "moov"), ("boxes", "--path", "\x1b[2J"), ("check",),
                ("check", "--json"), ("check", "--quick"), ("hint", "-o", "out"),
                ("hint", "--replace", "-o", "out"), ("report", "-o", "page"),
                ("extract", "ar", "--verbose", "-o", "out"), ("extract", "vr", "--unpack", "-o", "out"),
                ("extract", "vr", "--track", "1", "-o", "out"),
                ("extract", "vr", "--api", "class", "-o", "out"), ("inspect",), ("unpack", "-o", "out"),
                ("pack", "-o", "out")]

    def assert_harmless(self, *arguments):
        result = subprocess.run([TOOL, *arguments], cwd=self.scratch, capture_output=True,
                                timeout=120, check=False)
        text = (result.stdout + result.stderr).decode("utf-8")  # throws on a lone C1 byte
        self.assertNotRegex(text, "[\x00-\x08\x0b-\x1f\x7f-\x9f\u2028\u2029\u202e]", arguments)
        return result

    def test_files(self):
        data = load("av_h263_amrnb_hinted")
        fields = [b"3gp4", b"isom", b"s263", b"samr", b"soun", b"rtp ", b"tims", b"d263", b"stts",
                  b"tkhd", b"mdat", b"m=vi"]
        path = self.scratch / self.NAME
        for number, field in enumerate(fields):
            self.assertIn(field, data)
            path.write_bytes(data.replace(field, self.EVIL[number % len(self.EVIL)]))
            for command, *options in self.COMMANDS:
                with self.subTest(field=field, command=command):
                    self.assert_harmless(command, os.fsencode(self.NAME), *options)
        shown = [self.assert_harmless("check", os.fsencode(self.NAME), *options).stdout
                 for options in ([], ["--json"])]
        self.assertIn(self.ESCAPED, shown[0])
        self.assertEqual(json.loads(shown[1])["files"][0]["file"], self.ESCAPED.decode())

    def test_sent_files(self):
        here = Datagrams(2)
        self.addCleanup(here.close)
        to = f"127.0.0.1:{here.port}"
        data = pathlib.Path(sample("av_h263_amrnb_hinted")).read_bytes()
        for field, evil in zip([b"m=vi", b"samr", b"tims"], self.EVIL):
            (self.scratch / self.NAME).write_bytes(data.replace(field, evil))
            self.assert_harmless("send", os.fsencode(self.NAME), "--to", to, "--speed", "1000")

    def test_errors(self):
        """Of files that are not there, and of outputs in folders that are not."""
        for command, *options in [*self.COMMANDS, ("send", "--to", "127.0.0.1:2")]:
            with self.subTest(command=command, options=options):
                failed = self.assert_harmless(command, os.fsencode(self.NAME), *options)
                self.assertNotEqual(failed.returncode, 0)
                self.assertIn(self.ESCAPED, failed.stdout + failed.stderr)
        (self.scratch / "stream").write_bytes(self.extract("amrnb_plain", "ar"))
        out = os.fsencode(f"{self.NAME}/out")
        for command, *options in [("hint",), ("report",), ("extract", "ar"), ("unpack",), ("pack",)]:
            file = "stream" if command in ("unpack", "pack") else sample("amrnb_plain")
            failed = self.assert_harmless(command, file, *options, "-o", out)
            self.assertIn(self.ESCAPED + b"/out: No such file", failed.stderr)

    def test_native_streams(self):
        stream = self.extract("h263_hinted", "vr")
        path = self.scratch / self.NAME
        for field in [b"VIDEO", b"s263+"]:
            for evil in self.EVIL:
                path.write_bytes(stream.replace(field, evil.ljust(5, b"\0"), 1))
                for options in [("inspect",), ("inspect", "--json"), ("unpack", "-o", "out"),
                                ("pack", "-o", "out", "--hint")]:
                    self.assert_harmless(options[0], os.fsencode(self.NAME), *options[1:])


class Remarks(ToolTest):
    def test_the_library_speaks_when_it_is_asked_to(self):
        data = bytearray(load("amrnb_plain"))
        data[data.index(b"mdhd") - 1] = 12
        path = self.write("cut.3gp", data)
        quiet = run("extract", path, "ar")
        self.assert_fails(quiet, 1, f"kestrel: {path}: ")
        lines = run("extract", path, "ar", "--verbose").stderr.decode().splitlines()
        self.assertGreater(len(lines), 1)
        for line in lines:
            self.assertTrue(line.startswith(f"kestrel: {path}: "), line)
        self.assertEqual(lines[-1] + "\n", quiet.stderr.decode())


class Packets(ToolTest):
    def packets(self, *source, stdin=None):
        result = run("packets", *source, "--hex", stdin=stdin)
        lacks = [text for name, text in [("amrnb_hinted_1450", b"no packets for 18 of 298 samples"),
                                         ("rfc2190", b"31 of 120 packets with damaged headers")]
                 if name in str(source[0])]
        self.assertTrue(lacks[0] in result.stderr if lacks else result.stderr == b"")
        return [line.split() for line in result.stdout.decode().splitlines()]

    def test_agree_with_an_independent_reader(self):
        names = sorted(path.stem for path in (SAMPLES / "truth").glob("*.packets"))
        self.assertGreater(len(names), 20)
        for name in names:
            with self.subTest(name=name):
                # There the timestamps of these are in display order.
                columns = [0, 1, 2, 3, 4, 6] if "_b_" in name else [0, 1, 2, 3, 4, 5, 6]
                first, rows = {}, []
                for *about, sequence, time, packet in self.packets(sample(name)):
                    base = first.setdefault(about[0], (int(sequence), int(time)))
                    rows.append([*about, str((int(sequence) - base[0]) % 2**16),
                                 str((int(time) - base[1]) % 2**32),
                                 hashlib.md5(bytes.fromhex(packet)[12:]).hexdigest()])
                self.assertEqual([[row[c] for c in columns] for row in rows],
                                 [[row[c] for c in columns] for row in true_packets(name)])

    def test_one_track_of_two(self):
        both = self.packets(sample("two_amrnb_hinted"))
        for track in ("65536", "65537"):
            self.assertEqual(self.packets(sample("two_amrnb_hinted"), "--track", track),
                             [row for row in both if row[0] == track])

    def capture(self, path):
        """The packets of each port in a capture, in order, and its text."""
        data = path.read_bytes()
        self.assertEqual(data[:4], bytes.fromhex("d4c3b2a1"))
        captured, at, last = {}, 24, (0, 0)
        while at < len(data):
            seconds, micros, length, _ = struct.unpack("<4I", data[at: at + 16])
            packet = data[at + 16: at + 16 + length]
            self.assertGreaterEqual((seconds, micros), last)
            last = (seconds, micros)
            captured.setdefault(int.from_bytes(packet[22:24], "big"), []).append(packet[28:].hex())
            at += 16 + length
        return captured, path.with_suffix(".sdp").read_bytes().decode()

    def test_capture_and_its_description(self):
        out = self.scratch / "cap.pcap"
        for name in ["av_h264_amrwb_hinted", "mpeg4_b_hinted", "two_amrnb_hinted",
                     "h263_hinted_selfref"]:
            with self.subTest(name=name):
                self.output("packets", sample(name), "--pcap", out)
                captured, text = self.capture(out)
                rows = self.packets(sample(name))
                tracks = sorted({row[0] for row in rows})
                self.assertEqual(captured, {5004 + 2 * number: [row[6] for row in rows
                                                                if row[0] == track]
                                            for number, track in enumerate(tracks)})
                self.assertIn("c=IN IP4 192.0.2.2", text)
                self.assertEqual(re.findall(r"(?m)^m=\w+ (\d+)", text), [str(p) for p in captured])
                if name.startswith("av_"):
                    self.assertIn("m=video 5004 RTP/AVP 96", text)
                    self.assertIn("a=rtpmap:97 AMR-WB/16000", text)

    def test_names_and_texts_add_no_line_to_the_description(self):
        data = load("amrnb_hinted")
        text = boxes(data, [b"moov", b"trak", b"udta", b"hnti", b"sdp "])[0]
        evil = (b"m=audio 1 RTP/AVP 97\nc=IN IP4 6\na=rtcp:9\na=candidate:6\na=rtcp-fb:97\nt=1 1\n"
                b"a=fmtp:97\rc=IN IP4 6\x1b\n")
        self.assertLessEqual(len(evil), len(text))
        path = self.write("clip\r\nc=IN IP4 6.6.6.6",
                          data.replace(text, evil.ljust(len(text), b"\n")))
        out = self.scratch / "cap.pcap"
        result = run("packets", path, "--pcap", out)
        self.assertEqual(result.returncode, 0)
        self.assertIn(b"the file does not say which encoding the packets have", result.stderr)
        lines = self.capture(out)[1].split("\r\n")
        self.assertEqual([line[:2] for line in lines],
                         ["v=", "o=", "s=", "c=", "t=", "m=", "a=", ""])
        self.assertEqual(lines[3], "c=IN IP4 192.0.2.2")
        self.assertEqual(lines[5:7], ["m=audio 5004 RTP/AVP 97", r"a=fmtp:97\x0dc=IN IP4 6\x1b"])
        for line in lines:
            self.assertNotRegex(line, r"[\x00-\x1f]")

    def test_a_capture_that_would_be_too_long_is_not_written(self):
        out, name = self.write("cap.pcap", b"old"), sample("h263_hinted")
        size = 24 + sum(28 + 16 + int(row[1]) for row in self.packets(name))
        self.assert_fails(run("packets", name, "--pcap", out, "--limit", size - 1), 1,
                          f"longer than {size - 1} bytes; --limit BYTES")
        self.assertEqual(out.read_bytes(), b"old")
        self.output("packets", name, "--pcap", out, "--limit", size)
        self.assertEqual(out.stat().st_size, size)

    def test_packets_that_are_left_out_are_a_failure(self):
        data = load("h263_hinted")
        whole = self.output("packets", sample("h263_hinted"))
        hint = data.rindex(b"stbl")
        chunks, runs = (data.index(kind, hint) + 4 for kind in (b"stco", b"stsc"))
        together = int.from_bytes(data[runs + 12:runs + 16], "big")
        second = int.from_bytes(data[chunks + 12:chunks + 16], "big")  # offset of a chunk
        sizes = data.rindex(b"stsz") + 12
        for damaged, some, message in [
                (data[:sizes] + struct.pack(">I", 29) + data[sizes + 4:], True,
                 "1 of 30 hint samples has no size"),
                (data.replace(b"trak", b"free", 1), False, "track 1, which it hints, is not in"),
                (data[:chunks + 4] + bytes(4) + data[chunks + 8:], False, "30 of 30 hint samples"),
                # A packet of more constructors than its hint sample has.
                (data[:second + 14] + b"\xff\xff" + data[second + 16:], True,
                 f"hint sample {together + 1} of 30 is damaged; its packets and all after them")]:
            with self.subTest(message=message):
                result = run("packets", "-", stdin=damaged)
                self.assert_fails(result, 1, message)
                self.assertTrue(whole.startswith(result.stdout))
                self.assertEqual(bool(result.stdout), some)
                out = self.write("cap.pcap", b"old")
                self.assert_fails(run("packets", "-", "--pcap", out, stdin=damaged), 1, message)
                self.assertEqual(out.read_bytes() != b"old", some)
        # A hint sample that declares no packets is no fault, but not passed over in silence.
        empty = data[:second] + bytes(2) + data[second + 2:]
        result = run("packets", "-", "--json", stdin=empty)
        track, = json.loads(result.stdout)["tracks"]
        self.assertEqual((result.returncode, track["hint_sample_count"],
                          track["empty_hint_sample_count"]), (0, 30, 1))
        self.assertIn(b"1 of 30 hint samples without packets", result.stderr)
        # A receiver gets less than the file has.
        here = Datagrams(1)
        self.addCleanup(here.close)
        for begin, code in [(0, 1), (1990, 0)]:
            result = run("send", self.write("x.3gp", empty), "--to", f"127.0.0.1:{here.port}",
                         "--speed", "100", "--from", begin)
            self.assertEqual(result.returncode, code)
            self.assertEqual(b"no packets for 1 of 30 samples; 'kestrel info'" in result.stderr,
                             code == 1)


class Boxes(ToolTest):
    def tree(self, *arguments):
        return json.loads(self.output("boxes", *arguments, "--json"))

    def rows(self, tree, depth=0):
        for one in tree:
            yield depth, one["type"], one["offset"], one["size"]
            yield from self.rows(one.get("children", []), depth + 1)

    def test_tree_agrees_with_an_independent_lister(self):
        listing = (pathlib.Path(__file__).parent / "golden" / "box_list.txt").read_text()
        files = re.findall(r"^file (.*)\.3gp\n((?:\d.*\n)+)", listing, re.M)
        self.assertGreater(len(files), 30)
        modelled = set("ftyp moov mdat free mvhd trak tkhd tref edts elst mdia mdhd minf dinf stbl "
                       "stsd stts stsc stsz stco stss ctts".split())
        for name, rows in files:
            theirs = {(int(depth), kind, int(offset), int(size)) for depth, kind, offset, size in
                      re.findall(r"^(\d+) (.*) (\d+) (\d+)$", rows, re.M)}
            seen = set(self.rows(self.tree(sample(name))))
            with self.subTest(name=name):
                # Boxes inside those that the model skips are not in the tree.
                self.assertEqual({row for row in seen - theirs if row[1] != "url "}, set())
                self.assertEqual({row for row in theirs - seen if row[1] in modelled}, set())

    def test_damaged_tree_is_shown_to_where_it_ends(self):
        data = load("amrnb_plain")
        movie = data.index(b"moov") - 4
        damaged = data[:movie] + struct.pack(">I", len(data) * 2) + data[movie + 4:]
        result = run("boxes", "-", stdin=damaged)
        self.assert_fails(result, 1, "Invalid size found in box.  Current file position is "
                                     f"{movie}, box size is {len(data) * 2}")
        self.assertIn(f"the file is cut: {len(data) + movie:,} bytes of 'moov'", str(result.stderr))
        self.assertIn("ftyp", result.stdout.decode())

    def test_foreign_codec_of_mp4v_shows_the_tree(self):
        # The library ends the process when it opens such a file through the class API.
        for name in ("mpeg4_hinted", "mpeg4_plain", "mpeg4_b_hinted"):
            data = load(name)
            at = data.index(b"\x20\x11", data.index(b"esds"))  # in the decoder configuration
            own = self.output("boxes", "-", stdin=data).decode()
            self.assertIn("object_type_indication=32", own)
            for object_type in (0, 0x40, 0x60, 0x6C, 0xFF):
                changed = data[:at] + bytes([object_type]) + data[at + 1:]
                self.assertEqual(self.output("boxes", "-", stdin=changed).decode(),
                                 own.replace("indication=32", f"indication={object_type}"))

    def test_a_path_shows_what_it_leads_to(self):
        file = sample("av_h263_amrnb_hinted")
        whole = {tuple(line.split()) for line in self.output("boxes", file).splitlines()}
        for path in ("moov", "moov/trak/mdia/minf/stbl/stsd", "moov/trak/tref/hint"):
            shown = self.output("boxes", file, "--path", path).splitlines()
            self.assertIn(path.split("/")[-1].encode(), shown[1].split())
            self.assertLessEqual({tuple(line.split()) for line in shown}, whole)
        stored = load("av_h263_amrnb_hinted")
        for path, names in [("moov/trak/mdia/hdlr", ["name"]), ("moov/trak/udta/hnti/sdp ", ["text"])]:
            for one in self.tree(file, "--path", path):
                text = one["fields"][names[0]].replace("\\x0d", "\r").replace("\\x0a", "\n")
                self.assertIn(text.encode(), stored[one["offset"]:one["offset"] + one["size"]])
                self.assertTrue(text)
        b_frames = WILD / "fragmented_b_frames.mp4"
        orders = [[entry["sample_composition_time_offset"] for entry in run["fields"]["entries"]]
                  for run in self.tree(b_frames, "--path", "moof/traf/trun")]
        times = [e["sample_offset"] for one in self.tree(sample("h264_slices_b_hinted"), "--path",
                 "moov/trak/mdia/minf/stbl/ctts") for e in one["fields"]["entries"]]
        self.assertGreater(len({*sum(orders, [])}), 1)
        self.assertGreater(len({*times}), 1)
        tree = self.tree(file, "--path", "moov/trak/mdia")
        self.assertEqual([one["type"] for one in tree], ["mdia"] * 4)

    def test_numbers_are_shown_as_people_read_them(self):
        text = self.output("boxes", sample("av_h263_amrnb_hinted")).decode()
        for reading in ("width=176 px", "duration=30720 (2.000 s)", "language=und",
                        "modification_time=2026-11-21T", "horizontal_resolution=72 dpi"):
            self.assertIn(reading, text)
        avcc = ["boxes", sample("h264_plain"), "--path", "moov/trak/mdia/minf/stbl/stsd/avc1/avcC"]
        self.assertIn(b"size_minus_one=3 sequence_set_count=1 ", self.output(*avcc))
        self.assertIn(b'size_minus_one": 3,\n', self.output(*avcc, "--json"))

    def test_fragments_are_opened(self):
        file = WILD / "fragmented.3gp"
        runs = self.tree(file, "--path", "moof/traf/trun")
        self.assertEqual(sum(run["fields"]["sample_count"] for run in runs), 131)
        extends = self.tree(file, "--path", "moov/mvex/trex")
        self.assertEqual([one["fields"]["track_id"] for one in extends], [1, 2])


class Hint(ToolTest):
    def hint(self, source, *options):
        out = self.scratch / "hinted.3gp"
        self.output("hint", source, "-o", out, *options)
        return out

    packets = Packets.packets

    def test_the_media_of_every_sample_come_back(self):
        for (name, mode, truth), (limit, *options) in itertools.product(
                MEDIA, [(65535,), (300,), (500, "--rfc2190")]):
            hinted = self.output("hint", "-", "--replace", "-o", "-", "--mtu", limit, *options,
                                 stdin=load(name))
            plays_on_class = "two_" not in name and not re.match("amrwb|h264", truth)
            for api in ["function"] + ["class"] * plays_on_class:
                with self.subTest(name=name, limit=limit, options=options, api=api):
                    self.assert_true(self.output("extract", "-", mode, "--api", api, "--unpack",
                                                 stdin=hinted), truth)
            packets = self.packets("-", stdin=hinted)
            self.assertLessEqual(max(int(packet[1]) for packet in packets), limit)
            if options and name == "h263_plain":
                self.assertEqual({packet[3] for packet in packets}, {"34"})
                # Mode B follows a cut between macroblocks.
                self.assertTrue(any(packet[6][24:26] >= "80" for packet in packets))

    def test_times_are_those_of_an_independent_hinter(self):
        for name in VIDEO:
            if "hinted" in name:
                with self.subTest(name=name):
                    hinted = self.hint(sample(name), "--replace")
                    self.assertEqual(self.times(hinted), self.times(sample(name)))

    def times(self, file):
        """Those of the pictures of the first track with hints, from the first picture on."""
        packets = self.packets(file)
        times = dict.fromkeys(int(packet[5]) for packet in packets if packet[0] == packets[0][0])
        return [(time - int(packets[0][5])) % 2**32 for time in times]

    @needs_ffmpeg
    def test_an_independent_demuxer_finds_the_samples_of_the_original(self):
        for name, mode, _ in PLAIN:
            with self.subTest(name=name):
                self.assertEqual(demuxed(self.hint(sample(name)), f"{mode[0]}:0"),
                                 demuxed(sample(name), f"{mode[0]}:0"))

    def test_clips_of_every_form_come_back(self):
        others = {"fragmented_b_frames": "h264_slices_b.h264", "quicktime": "h264.h264",
                  "systems_tracks": "mpeg4.m4v", "timed_text_aac": "mpeg4.m4v"}
        amr = (SAMPLES / "truth" / "amrnb.amr").read_bytes()
        for clip in sorted(WILD.glob("*.[3m]*")):
            truth = others.get(clip.stem, "h263.h263")
            if clip.stem.startswith("large_pictures"):  # made from other media
                continue
            hinted = self.hint(clip)
            apis = ["function"] + ["class"] * (not truth.endswith("h264"))
            for api, options in itertools.product(apis, [(), ("--arriving", 5000)]):
                with self.subTest(clip=clip.name, api=api, options=options):
                    options += ("--api", api, "--unpack")
                    self.assert_true(self.output("extract", hinted, "vr", *options), truth)
                    if clip.stem not in others:
                        speech = self.output("extract", hinted, "ar", *options)
                        self.assertTrue(amr.startswith(speech))
                        self.assertGreater(len(speech), 3000)

    def test_track_headers_come_over(self):
        data = load("h264_plain")
        header = bytearray(boxes(data, [b"moov", b"trak", b"tkhd"])[0])
        header[3] = 2  # disabled
        header[32:48] = bytes.fromhex("fffe0001 01800000 00000000 00010000")  # in front, turned
        header[76:84] = bytes.fromhex("00c48000 00908000")  # of another display size
        hinted = self.output("hint", "-", "-o", "-", stdin=rebuilt(data, {b"tkhd": bytes(header)}))
        self.assertEqual(boxes(hinted, [b"moov", b"trak", b"tkhd"])[0], header)

    def test_what_is_whole_of_a_cut_file_is_hinted_where_that_is_asked_for(self):
        cut, out = self.write("cut.3gp", load("amrnb_plain")[:-20]), self.scratch / "out.3gp"
        salvaged = run("hint", cut, "-o", out, "--salvage")
        self.assertEqual(salvaged.returncode, 0)
        self.assertIn(b"kept 297 of the 298 samples", salvaged.stderr)
        self.output("check", out)


class Pack(ToolTest):
    def test_what_was_extracted_is_packed_again(self):
        for name, mode, truth in MEDIA:
            for api in ["function"] + ["class"] * (name in ON_CLASS_API):
                with self.subTest(name=name, api=api):
                    stream = self.extract(name, mode, "--api", api)
                    out = self.scratch / "packed.3gp"
                    self.output("pack", "-", "-o", out, stdin=stream)
                    self.assert_true(self.output("extract", out, mode, "--unpack"), truth)
                    if shutil.which("ffprobe") and name != "two_amrnb_hinted":
                        self.assert_same_samples(name, f"{mode[0]}:0", out)

    def assert_same_samples(self, name, stream, packed):
        """An independent demuxer finds the samples of the original at their times in the media."""
        expected, found = (demuxed(path, stream, "-ignore_editlist", "1")
                           for path in (sample(name), packed))
        self.assertEqual([p[:2] for p in found], [p[:2] for p in expected])
        for a, b in zip(found, expected):
            self.assertLess(max(abs(a[2] - b[2]), abs(a[3] - b[3])), 0.51)
        if name != "h263plus_hinted":  # has no table of sync samples
            self.assertEqual([p[4] for p in found], [p[4] for p in expected])

    @needs_ffmpeg
    def test_two_streams_become_one_file_that_plays(self):
        for name in ["av_h263_amrnb_hinted", "av_h264_amrwb_hinted"]:
            with self.subTest(name=name):
                out = self.scratch / "both.3gp"
                audio = self.write("audio", self.extract(name, "ar"))
                self.output("pack", "--audio", audio, "--video", "-", "--hint", "-o", out,
                            stdin=self.extract(name, "vr"))
                self.assertGreater(len(frames("-i", out)), 100)
                self.assertEqual(frames("-i", out), frames("-i", sample(name)))
                dates = ffmpeg("ffprobe", "error", "-show_entries", "format_tags=creation_time:"
                               "stream_tags=creation_time", "-of", "csv=p=0", out).split()
                self.assertEqual(len(dates), 5)
                for date in [datetime.datetime.fromisoformat(d[:19].decode()) for d in dates]:
                    self.assertLess(abs(datetime.datetime.utcnow() - date),
                                    datetime.timedelta(hours=1))

    def test_cut_streams_are_packed_as_far_as_they_are_whole(self):
        stream = self.extract("amrnb_plain", "ar")
        whole = 68 + 10 * 57
        cut, out = self.write("cut.native", stream[:whole + 30]), self.scratch / "out.3gp"
        self.assert_fails(run("pack", cut, "-o", out), 1,
                          "cut.native: damaged from byte 663 on: the stream ends inside a speech "
                          "frame: 32 bytes wanted, 5 left; packed 10 samples before it, left out")
        self.assertEqual(self.output("extract", out, "ar")[68:], stream[68:whole])


class Send(ToolTest):
    def receive(self, path, tracks, *options):
        """RTP and RTCP packets of each track."""
        here = Datagrams(tracks)
        self.addCleanup(here.close)
        result = run("send", path, "--to", f"127.0.0.1:{here.port}", *options)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return [(here.take(2 * i), here.take(2 * i + 1)) for i in range(tracks)]

    def assert_control_packets(self, control, packets):
        kinds = []
        for datagram in control:
            at, in_one = 0, []
            while at < len(datagram):
                kind, words = struct.unpack(">xBH", datagram[at:at + 4])
                in_one.append(kind)
                self.assertEqual(datagram[at + 4:at + 8], packets[0][8:12])
                at += 4 * words + 4
            kinds.append(in_one)
        self.assertEqual(kinds[0], [200, 202])
        self.assertEqual(kinds[-1], [200, 202, 203])
        self.assertEqual(struct.unpack(">2I", control[-1][20:28]),
                         (len(packets), sum(len(packet) - 12 for packet in packets)))

    def test_packets_are_those_of_the_hint_tracks(self):
        starts = set()
        for name in ["amrnb_hinted_multi", "h263_hinted_mtu500", "h264_slices_b_hinted",
                     "av_h263_amrnb_hinted", "two_amrnb_hinted"]:
            truth = {}
            for track, length, marker, kind, _, time, digest in true_packets(name):
                truth.setdefault(track, []).append((int(length), int(marker) << 7 | int(kind),
                                                    int(time), digest))
            received = self.receive(sample(name), len(truth), "--speed", 500)
            for expected, (packets, control) in zip(truth.values(), received):
                with self.subTest(name=name):
                    first = struct.unpack(">HII", packets[0][2:12])
                    starts.add(first)
                    sources = {packet[8:12] for packet in packets}
                    self.assertEqual(len(sources), 1)
                    numbers = [struct.unpack(">H", packet[2:4])[0] for packet in packets]
                    self.assertEqual([(n - first[0]) % 2**16 for n in numbers],
                                     list(range(len(packets))))
                    got = [(len(packet), packet[1],
                            (struct.unpack(">I", packet[4:8])[0] - first[1]) % 2**32,
                            hashlib.md5(packet[12:]).hexdigest()) for packet in packets]
                    self.assertEqual(got, [(*row[:2], row[2] % 2**32, row[3]) for row in expected])
                    self.assert_control_packets(control, packets)
        self.assertEqual(len({s[0] for s in starts}), len(starts))

    def test_what_hints_leave_out_is_reported_and_sent(self):
        def place(number, offset):  # of a constructor, with its block
            return struct.pack(">2I2H", number, offset, 1, 1)

        takes = rb"\x02\0(?=..\0\0..\0\0..\0\x01\0\x01)"  # type and track of a constructor
        part = b"\1\x14" + place(1, 7292)
        for name, old, new in [
                # One sample of several twice, in place of another; part of one, and all but a byte.
                ("amrnb_hinted_multi", re.escape(place(7, 1)), place(6, 1)),
                ("h263_hinted_mtu500", re.escape(place(1, 7292)), place(1, 6806)),
                ("h263_hinted_mtu500", re.escape(part), b"\1\x13" + part[2:]),
                # Payload headers alone, by constructors without bytes or of a reserved type.
                *((name, takes, new) for name in ("amrnb_hinted_multi", "h263_hinted_mtu500",
                                                  "mpeg4_hinted", "amrnb_hinted")
                  for new in (b"\0\0", b"\5\0")),
                # Bytes of the hint sample in place of speech; bytes more beside a lost picture.
                ("amrnb_hinted", takes, b"\2\xff"),
                ("h263_hinted", b"\2\0..\0\0\0\x05\0\0\0\2\0\1\0\1", b"\1\x0e" + bytes(range(14))),
                # Fragments of a unit of another kind, and without the first.
                ("h264_hinted_1450", rb"\x01\x02\x7c\x85", b"\1\2\x7c\x81"),
                ("h264_hinted_1450", rb"\x01\x02\x7c\x85", b"\1\2\x7c\x05"),
                # A packet less, a packet without constructors, no clock.
                ("h263_hinted", rb"\0\x02\0\0(?=\0{4}\x80\x60)", b"\0\1\0\0"),
                ("mpeg4_hinted", rb"(?<=\0{4}\x80.\0.\0\0)\0\x01(?=\x02\0)", b"\0\0"),
                ("amrnb_hinted", b"tims", b"timr"),
                # A frame of several cut. Two hours late. Another clock; a unit without its end; speech of bad quality.
                ("amrnb_hinted_multi", rb"\x02\0\0\x1f(?=\0\0\0\x07)", b"\2\0\0\x14"),
                ("amrnb_hinted", rb"\0{4}(?=\x80.\0\x05\0)", b"\3\x6e\xe8\0"),
                ("amrnb_hinted", rb"tims\0\0\x1f\x40", b"tims\0\0\x3e\x80"),
                ("h264_hinted_1450", rb"(?<=\0\x01\x02\0)\x02\x7d(?=\0\0\0\x01)", b"\2\x79"),
                ("amrnb_hinted", b"\1\2\x70\x3c", b"\1\2\x70\x38")]:
            with self.subTest(name=name, new=new):
                data, changes = re.subn(old, lambda _: new, load(name), flags=re.DOTALL)
                self.assertGreater(changes, 0)
                path, out = self.write("f.3gp", data), self.scratch / "out.pcap"
                for form in ((), ("--json",), ("--pcap", out)):
                    result = run("packets", path, *form)
                    self.assert_fails(result, 1, "; 'kestrel hint --replace' makes new ones")
                    self.assertTrue(out.exists() if out in form else result.stdout)
                hinted = self.output("hint", sample(name), "--replace", "-o", "-")
                rows = self.output("packets", "-", "--hex", stdin=hinted).decode().splitlines()
                [(sent, _)] = self.receive(path, 1, "--speed", 500)
                self.assertEqual([packet[12:].hex() for packet in sent],
                                 [row.split()[6][24:] for row in rows])  # of new hints
        data = load("amrnb_hinted")
        at = data.rindex(b"mdhd") + 16
        for old, new, code, text in [
                (data[at - 16:at + 4], data[at - 16:at] + bytes(4), 1, "a timescale of 0 (mdhd)"),
                (data[at - 16:at + 4], data[at - 16:at] + bytes([0, 0, 0, 80]), 0,
                 "the packets take 596.000 s, but the samples 5.944 s; 'kestrel hint --replace'"),
                (b"tref", b"free", 0, "names no track that it hints (tref); the packets of hint s")]:
            path = self.write("f.3gp", new.join(data.rsplit(old, 1)))
            self.assert_fails(run("packets", path), 1, text)
            if code == 0:
                self.assertEqual(len(self.receive(path, 1, "--speed", 500)[0][0]), 298)
        self.assert_fails(run("send", self.write("f.3gp", data[:at] + bytes(4) + data[at + 4:]),
                              "--to", "127.0.0.1:5004"), 1, "has a timescale of 0")
        # One of two hint tracks is lost.
        path = self.write("f.3gp", b"free".join(load("av_h264_amrwb_hinted").rsplit(b"mdia", 1)))
        self.assert_fails(run("packets", path), 1, "has no mdhd: packets may be left out")
        self.assert_fails(run("send", path, "--to", "127.0.0.1:5004"), 1, "has no mdhd")

    def test_media_that_lack_something_are_reported_as_without_hints(self):
        here = Datagrams(1)
        self.addCleanup(here.close)
        few = b"track 1: 2 of 30 samples cannot be of the codec 's263', the first is number 2"
        for name, begin, end, code, text in [
                ("h263", 5000, 16000, 0, few),
                ("amrnb", 320, 352, 1, b"track 1: sample 11 is malformed: it does not end with")]:
            media = boxes(load(f"{name}_plain"), [b"mdat"])[0][begin:end]
            for form in ("plain", "hinted"):
                with self.subTest(name=name, form=form):
                    data = load(f"{name}_{form}")
                    self.assertEqual(data.count(media), 1)
                    path = self.write("f.3gp", data.replace(media, bytes(len(media))))
                    result = run("send", path, "--to", f"127.0.0.1:{here.port}", "--speed", 1000)
                    self.assertEqual(result.returncode, code, result.stderr)
                    self.assertIn(text, result.stderr)
            listed = run("packets", path)
            self.assertEqual((listed.returncode, listed.stderr), (code, result.stderr))
        cut = self.write("cut.3gp", load("av_h263_amrnb_hinted")[:30000])
        for command in (("packets", cut), ("send", cut, "--to", f"127.0.0.1:{here.port}")):
            self.assert_fails(run(*command), 1, "all after them are left out; the file is cut: 38,881 "
                              "bytes of 'mdat' are missing; 'kestrel hint --replace --salvage' keeps")

    def test_samples_without_duration_are_sent(self):
        data = bytearray(pathlib.Path(sample("amrnb_hinted")).read_bytes())
        first_delta = data.rindex(b"stts") + 16  # of the hint track
        self.assertEqual(data[first_delta - 8:first_delta - 4], bytes([0, 0, 0, 1]))
        data[first_delta:first_delta + 4] = bytes(4)
        path = self.scratch / "no_durations.3gp"
        path.write_bytes(data)
        [(packets, _)] = self.receive(path, 1)
        self.assertEqual(len(packets), len(true_packets("amrnb_hinted")))

    @unittest.skipUnless(shutil.which("ffmpeg"), "ffmpeg is not installed")
    def test_an_independent_receiver_decodes_every_frame(self):
        # With hints of the file, of the tool for a file that has none, and in place of such that
        # receivers do not know, that have damaged headers or that end early.
        for name, tracks in [("amrnb_plain", 1), ("amrnb_hinted_1450", 1), ("amrwb_hinted", 1),
                             ("h263_hinted", 1), ("h263_hinted_selfref", 1),
                             ("h263_rfc2190_hinted_1450", 1), ("mpeg4_hinted_1450", 1),
                             ("mpeg4_b_hinted", 1), ("h264_slices_b_hinted", 1),
                             ("av_h264_amrwb_hinted", 2)]:
            with self.subTest(name=name):
                decode = ["-map", "0:v?", "-map", "0:a?", "-fps_mode", "passthrough", "-f",
                          "framemd5", "-"]
                known = subprocess.run(["ffmpeg", "-v", "error", "-ignore_editlist", "1", "-i",
                                        sample(name), *decode], capture_output=True, check=True)
                frames = sorted(re.findall(rb"^(\d),.*, (\w+)$", known.stdout, re.M))
                self.assertGreater(len(frames), 10)
                for one_by_one in (False, True):
                    out, errors = self.play(sample(name), tracks, decode, one_by_one)
                    received = sorted(re.findall(rb"^(\d),.*, (\w+)$", out, re.M))
                    if received == frames:
                        break
                    print(f"{name}: a busy receiver read the BYE before the last packets")
                self.assertEqual(self.other_lines(errors), [])
                self.assertEqual(received, frames)

    def play(self, path, tracks, decode, one_by_one):
        """What an independent receiver makes of what is sent to it, and what it says."""
        description = self.scratch / "clip.sdp"
        here = Datagrams(tracks)
        to = f"127.0.0.1:{here.port}"
        run("send", path, "--to", to, "--sdp", description, "--speed", 1000)
        taken = [here.take(number) for number in range(2 * tracks)]
        here.close()
        player = subprocess.Popen(["ffmpeg", "-v", "error", "-protocol_whitelist", "file,udp,rtp",
                                   "-i", description, *decode],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.wait_until_read(here.port + 2 * tracks - 1)
        if one_by_one:
            self.send_one_by_one(here.port, taken)
        else:
            sent = run("send", path, "--to", to, "--speed", 3)
            self.assertEqual((sent.returncode, sent.stderr), (0, b""))
        return player.communicate(timeout=60)

    def send_one_by_one(self, port, taken):
        """Sends each datagram after the receiver has read the one before; the BYE at the end."""
        last = 0
        packets = itertools.zip_longest(*([(at, one) for one in taken[at]]
                                          for at in range(0, len(taken), 2)))
        control = range(1, len(taken), 2)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
            for at, datagram in filter(None, [*((at, taken[at][0]) for at in control),
                                              *itertools.chain.from_iterable(packets),
                                              *((at, taken[at][-1]) for at in control)]):
                self.wait_until_read(port + last)
                out.sendto(datagram, ("127.0.0.1", port + at))
                last = at

    @staticmethod
    def other_lines(errors):
        """Without those on times, which the output format does not take as they are."""
        return [line for line in errors.decode().splitlines() if "DTS" not in line]

    @staticmethod
    def wait_until_read(port):
        """Until somebody listens to a port and has read what came."""
        empty = re.compile(rf":{port:04X} [0-9A-F:]+ \w+ [0-9A-F]+:0+ ")
        for _ in range(1000):
            if empty.search(pathlib.Path("/proc/net/udp").read_text()):
                return
            time.sleep(0.01)
        raise TimeoutError("nobody reads")

    def test_what_is_due_at_once_is_spread_out(self):
        data = load("amrnb_hinted")
        movie = re.sub(rb"(mdhd.{12}).{4}", b"\\1" + b"\xff" * 4, boxes(data, [b"moov"])[0],
                       flags=re.DOTALL)
        hint = movie[movie.rindex(b"trak") - 4:]
        hint = hint[:int.from_bytes(hint[:4], "big")]
        tracks, at = 60, hint.index(b"tkhd") + 16  # its track ID
        hints = b"".join(hint[:at] + struct.pack(">I", 65536 + number) + hint[at + 4:]
                         for number in range(tracks))
        path = self.write("flood.3gp", data.replace(b"moov", b"free") + struct.pack(
            ">I4s", len(hints) + len(movie) - len(hint) + 8, b"moov") +
            movie.replace(hint, hints))
        # 1,000 at once, then 10,000 a second; a tenth of a second at once; a moment to read.
        for options, least in [((), 0.9), (("--max-rate", 5000), 1.4)]:
            begun = time.monotonic()
            received = self.receive(path, tracks, *options)
            self.assertGreater(time.monotonic() - begun, least)
            self.assertGreater(sum(len(rtp) for rtp, _ in received), 5000)

    def test_a_loop_reports_once_that_nobody_listens(self):
        here = Datagrams(1)
        here.close()
        with subprocess.Popen([TOOL, "send", sample("amrnb_hinted"), "--loop", "--speed", "100",
                               "--to", f"127.0.0.1:{here.port}"], stderr=subprocess.PIPE) as tool:
            self.assertIn(b"nobody listens; sending goes on until Ctrl-C", tool.stderr.readline())
            tool.send_signal(signal.SIGINT)
            self.assertIn(b"nobody listened", tool.communicate(timeout=60)[1])
            self.assertEqual(tool.returncode, 1)

    def test_it_begins_at_the_sync_sample_of_a_time(self):
        for name, milliseconds in [("amrnb_hinted", 1010), ("mpeg4_hinted", 1500)]:
            (packets, _), = self.receive(sample(name), 1, "--speed", 500)
            (late, _), = self.receive(sample(name), 1, "--speed", 500, "--from", milliseconds)
            left_out = len(packets) - len(late)
            with self.subTest(name=name, left_out=left_out):
                self.assertGreater(left_out, 0)
                self.assertEqual([p[12:] for p in late], [p[12:] for p in packets[left_out:]])
                clock = 8000 if name.startswith("amr") else 90000
                passed = [(struct.unpack(">I", p[4:8])[0] - struct.unpack(">I", packets[0][4:8])[0])
                          / clock * 1000 for p in packets]
                self.assertLessEqual(passed[left_out], milliseconds)
                if clock == 8000:
                    self.assertGreater(passed[left_out + 1], milliseconds)
                else:  # a start of a group of pictures, ISO/IEC 14496-2, 6.2.1
                    self.assertIn(late[0][12:16], (b"\0\0\1\xb0", b"\0\0\1\xb3", b"\0\0\1\xb6"))

    def test_a_signal_ends_it_with_a_bye(self):
        for options, signals, ends in [(("--loop",), signal.SIGINT, 0),
                                       ((), signal.SIGTERM, -signal.SIGTERM)]:
            here = Datagrams(1)
            self.addCleanup(here.close)
            speed = 60 if options else 0.1
            sending = subprocess.Popen([TOOL, "send", sample("h263_hinted"), "--to",
                                        f"127.0.0.1:{here.port}", "--speed", str(speed), *options],
                                       stderr=subprocess.PIPE)
            count = 56
            packets = [here.sockets[0].recv(1 << 16) for _ in range(count + 1 if options else 3)]
            sending.send_signal(signals)
            _, errors = sending.communicate(timeout=10)
            with self.subTest(options=options):
                self.assertEqual((sending.returncode, errors), (ends, b""))
                self.assertEqual(here.take(1)[-1][-8:-4], bytes.fromhex("81cb0001"))
                if options:
                    self.assertEqual(packets[0][12:], packets[count][12:])
                    first, again = (struct.unpack(">HI", packets[i][2:8]) for i in (0, count))
                    self.assertEqual((again[0] - first[0]) % 2**16, count)
                    self.assertEqual((again[1] - first[1]) % 2**32, 2 * 90000)


def needs_root(test):
    return unittest.skipUnless(os.geteuid() == 0, "only root can act as a second user")(test)


class Outputs(ToolTest):
    """What an output replaces, follows and leaves."""

    COMMANDS = [("hint", sample("amrnb_plain")), ("report", sample("amrnb_plain")),
                ("unpack", "stream"), ("extract", sample("amrnb_plain"), "ar")]

    def setUp(self):
        super().setUp()
        self.write("stream", self.extract("amrnb_plain", "ar"))

    def run_to(self, command, out, **options):
        options = {"umask": 0o022, **options}
        return subprocess.run([TOOL, *command, "-o", out], cwd=self.scratch, capture_output=True,
                              check=False, timeout=60, **options)

    def listing(self):
        return sorted(str(path.relative_to(self.scratch)) for path in self.scratch.rglob("*"))

    def assert_leaves_all(self, command, out, message, victim, **options):
        there = self.listing()
        self.assert_fails(self.run_to(command, out, **options), 1, message)
        self.assertEqual((victim.read_bytes(), self.listing()), (b"old", there))

    def test_permissions_of_own_files_are_kept_and_special_bits_never(self):
        for command in self.COMMANDS:
            whole = self.run_to(command, "-").stdout
            for before, after in [(0o640, 0o640), (0o4755, 0o755), (0o2711, 0o711), (0o6666, 0o666),
                                  (None, 0o644)]:
                with self.subTest(command=command[0], before=before and oct(before)):
                    out = self.write("out", b"old")
                    out.unlink() if before is None else out.chmod(before)
                    self.assertEqual(self.run_to(command, "out").returncode, 0)
                    self.assertEqual(oct(out.stat().st_mode & 0o7777), oct(after))
                    self.assertTrue(out.read_bytes() == whole)

    def test_access_control_lists_are_kept_and_those_of_the_folder_obeyed(self):
        def entries(*all):
            nobody = 0xFFFFFFFF
            return struct.pack("<I", 2) + b"".join(
                struct.pack("<HHI", tag, may, NOBODY if tag == 2 else nobody) for tag, may in all)

        # Owner, a user, the group, the mask, others.
        secret = entries((1, 6), (2, 6), (4, 0), (0x10, 6), (0x20, 0))
        folder = self.scratch / "folder"
        folder.mkdir()
        out = folder / "out"
        try:
            os.setxattr(folder, "system.posix_acl_default", entries((1, 7), (2, 4), (4, 0), (0x10, 4), (0x20, 0)))
        except OSError as error:
            self.skipTest(f"no access control lists here: {error}")
        for command, before in itertools.product(self.COMMANDS, ("new", "plain", "secret")):
            with self.subTest(command=command[0], before=before):
                out.unlink(missing_ok=True)
                if before != "new":
                    out.write_bytes(b"old")
                    os.removexattr(out, "system.posix_acl_access")
                    out.chmod(0o604)
                if before == "secret":
                    os.setxattr(out, "system.posix_acl_access", secret)
                self.assertEqual(self.run_to(command, "folder/out").returncode, 0)
                found = os.getxattr(out, "system.posix_acl_access") if before != "plain" else os.listxattr(out)
                inherited = entries((1, 6), (2, 4), (4, 0), (0x10, 4), (0x20, 0))
                self.assertEqual((oct(out.stat().st_mode & 0o777), found),
                                 {"new": ("0o640", inherited), "plain": ("0o604", []),
                                  "secret": ("0o660", secret)}[before])

    def test_failed_write_leaves_what_was_there(self):
        def limited():
            resource.setrlimit(resource.RLIMIT_FSIZE, (4000, 4000))

        # Ends in a temporary file, without a signal.
        send = ("send", sample("amrnb_plain"), "--to", "127.0.0.1:9998")
        self.assert_fails(subprocess.run([TOOL, *send], capture_output=True, check=False,
                                         preexec_fn=limited), 1, "temporary file: ")
        old = self.write("old", b"old")
        (self.scratch / "link").symlink_to("old")
        for command, out in itertools.product(self.COMMANDS, ("old", "link", "new")):
            with self.subTest(command=command[0], out=out):
                self.assert_leaves_all(command, out, f"{out}: File too large", old,
                                       preexec_fn=limited)
                self.assertTrue((self.scratch / "link").is_symlink())

    @needs_root
    def test_permissions_of_files_of_others_are_not_copied(self):
        self.scratch.chmod(0o1777)
        for command in self.COMMANDS:
            with self.subTest(command=command[0]):
                out = self.write("out", b"old")
                os.chown(out, NOBODY, NOBODY)
                out.chmod(0o6777)
                self.assertEqual(self.run_to(command, "out").returncode, 0)
                about = out.stat()
                self.assertEqual((about.st_uid, about.st_gid, oct(about.st_mode & 0o7777)),
                                 (0, 0, "0o644"))
                self.assertGreater(about.st_size, 3)

    @needs_root
    def test_links_of_others_in_shared_folders_are_not_followed(self):
        victim = self.scratch / "victim"
        shared = self.scratch / "shared"
        shared.mkdir()
        for owner, mode, followed in [(NOBODY, 0o1777, False), (NOBODY, 0o1757, False),
                                      (NOBODY, 0o755, True), (NOBODY, 0o777, True),
                                      (0, 0o1777, True)]:
            shared.chmod(mode)
            for command in [*self.COMMANDS, self.COMMANDS[-1] + ("--arriving", "1000")]:
                for target in ("victim", "new"):
                    with self.subTest(command=command[0], owner=owner, mode=oct(mode), to=target):
                        victim.write_bytes(b"old")
                        link = shared / "link"
                        link.unlink(missing_ok=True)
                        link.symlink_to(f"../{target}")
                        os.chown(link, owner, owner, follow_symlinks=False)
                        if not followed:
                            self.assert_leaves_all(command, "shared/link", "Permission denied",
                                                   victim)
                            continue
                        self.assertEqual(self.run_to(command, "shared/link").returncode, 0)
                        self.assertGreater((self.scratch / target).stat().st_size, 3)
                        self.assertTrue(link.is_symlink())
                        if target == "new":
                            (self.scratch / target).unlink()

    def test_what_cannot_be_looked_at_is_not_taken_for_absent(self):
        victim = self.write("victim", b"old")
        (self.scratch / "loop").symlink_to("loop2")
        (self.scratch / "loop2").symlink_to("loop")
        (self.scratch / "through").symlink_to("victim/out")
        (self.scratch / "folder").mkdir()
        for command in self.COMMANDS:
            for out, message in [("loop", "Too many levels of symbolic links"),
                                 ("x" * 300, "File name too long"), ("folder", "Is a directory"),
                                 ("folder/", "Is a directory"), ("through", "Not a directory"),
                                 ("none/out", "No such file or directory")]:
                with self.subTest(command=command[0], out=out[:20]):
                    self.assert_leaves_all(command, out, f"{out}: {message}", victim)

    @needs_root
    def test_what_may_not_be_written_stays(self):
        victim = self.write("locked/victim", b"old")
        self.scratch.chmod(0o755)
        user = {**self.unprivileged(), "extra_groups": []}
        for folder, mode, message in [(0o700, 0o666, "Permission denied"),
                                      (0o777, 0o644, "Permission denied"),
                                      (0o755, 0o666, "cannot make a file in its folder")]:
            victim.parent.chmod(folder)
            victim.chmod(mode)
            for command in self.COMMANDS:
                with self.subTest(command=command[0], folder=oct(folder), file=oct(mode)):
                    self.assert_leaves_all(command, "locked/victim", message, victim, **user)

    def test_every_signal_that_ends_the_process_takes_the_temporary_file_along(self):
        old = self.write("old", b"old")
        stream = self.extract("amrnb_plain", "ar")
        others = {signal.SIGKILL, signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU,
                  signal.SIGCHLD, signal.SIGCONT, signal.SIGURG, signal.SIGWINCH, signal.SIGXFSZ}
        if IS_SANITIZED:  # has handlers of its own
            others |= {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGABRT}
        for number in sorted(signal.valid_signals() - others):
            there = self.listing()
            with self.subTest(signal=number), subprocess.Popen(
                    [TOOL, "unpack", "-", "-o", old], stdin=subprocess.PIPE,
                    preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0))) as tool:
                tool.stdin.write(stream[:1000])
                tool.stdin.flush()
                while self.listing() == there:
                    self.assertIsNone(tool.poll())
                tool.send_signal(number)
                self.assertEqual(tool.wait(timeout=60), -number)
                self.assertEqual((self.listing(), old.read_bytes()), (there, b"old"))

    def test_streams_of_the_process_are_written_as_they_are(self):
        for command in self.COMMANDS:
            plain = self.run_to(command, "-").stdout
            self.assertEqual(self.run_to(command, "/dev/stdout").stdout, plain)
            with (self.scratch / "out").open("wb") as out:
                out.write(b"before ")
                out.flush()
                subprocess.run([TOOL, *command, "-o", "-"], cwd=self.scratch, stdout=out,
                               check=True, timeout=60)
            self.assertEqual((self.scratch / "out").read_bytes(), b"before " + plain)


class Inspect(ToolTest):
    def records(self, stream):
        return json.loads(self.output("inspect", "-", "--json", stdin=stream))["records"]

    def test_every_record_is_named_and_its_codes_explained(self):
        stream = self.extract("amrnb_dtx_hinted", "ar")
        records = self.records(stream)
        self.assertEqual([r["record"] for r in records[:5]],
                         ["PROP_Header_Info", "AUD_Codec_Header", "AUD_Header_IndxInfo",
                          "VID_FileInfo", "AUD_AudFrame_Native"])
        self.assertEqual(records[0]["fields"]["value"], 715)
        self.assertEqual([r["fields"]["sequence"] for r in records[4:]], list(range(715)))
        text = self.output("inspect", "-", stdin=stream).decode()
        self.assertIn('medium "AUDIO   "', text)
        self.assertIn("coding 33 (AMR-NB, up to 12.2 kbit/s) sampling_rate 64 (8000 Hz)", text)
        self.assertEqual(len(text.splitlines()), len(records))
        records = self.records(self.extract("h263_hinted", "vr"))
        self.assertEqual([r["record"] for r in records[:9]],
                         ["PROP_Header_Info", "VID_Header_NTSInfo", "VID_Header_IndxInfo",
                          "VID_Header_CodecInfo", "VID_Header_H263CodecConfig", "VID_FileInfo",
                          "VID_Frame_Record", "VID_Frame_Words", "TEL_Packet_Header"])
        self.assertEqual(records[3]["fields"]["codec"], "s263+")
        packets = [r["fields"]["sequence"] for r in records if r["record"] == "TEL_Packet_Header"]
        self.assertEqual([(n - packets[0]) % 65536 for n in packets], list(range(56)))
        text = self.output("inspect", "-", stdin=self.extract("h264_plain", "vr")).decode()
        self.assertRegex(text, r"level 11 \(1\.1\) config 00000001[0-9a-f]+ and \d+ zeros length")

    def test_damage_is_located(self):
        speech, video = self.extract("amrnb_plain", "ar"), self.extract("h263_hinted", "vr")
        frame = 68 + 3 * 57
        cut = speech[:frame + 30]
        cases = [(b"", 0, "ends inside PROP_Header_Info"),
                 (cut, frame + 25, "ends inside a speech frame"),
                 (video[:-1], None, "ends inside a frame")]
        for stream, at, value, reported, reason in [
                (speech, 0, b"OTHER", 0, "name of a medium"),
                (speech, frame, b"\xff\xff\xff\xff", frame, "no frame has"),
                (speech, frame, b"\x3a", frame, "cannot have"),
                (speech, frame + 4, b"\x14", frame, "another coder"),
                (speech, frame + 20, b"\1", frame + 20, "is not 0"),
                (video, video.index(b"\xb0\0\0\0\x90"), b"\0", None, "pictures of 0 x 144 pixels"),
                (video, 40, b"x", None, "names no codec"), (video, 92, b"\xff", None, "does not"),
                (video, 96, b"\x09", None, "ends before its last"),
                (video, 104, b"\x05", None, "not 4 and 1"), (video, 112, b"\1", None, "")]:
            cases.append((stream[:at] + value + stream[at + len(value):], reported, reason))
        for damaged, at, reason in cases:
            with self.subTest(reason=reason):
                result = run("inspect", "-", "--json", stdin=damaged)
                self.assert_fails(result, 1, reason)
                if at is not None:
                    self.assertEqual(json.loads(result.stdout)["damage"]["offset"], at)
        # Pictures of H.264 that were overwritten, the first cut into packets.
        plain = load("h264_plain")
        sizes = struct.unpack(">30I", boxes(plain, [b"moov", b"trak", b"mdia", b"minf", b"stbl",
                                                    b"stsz"])[0][12:])
        at = plain.index(boxes(plain, [b"mdat"])[0]) + sum(sizes[:15])
        for wrong, reason in [(bytes(sizes[15]), "bytes of pictures"),
                              (b"\x7f\x4a\x58" * 999, "1 of 30 frames cannot be H.264")]:
            data = plain[:at] + wrong[:sizes[15]] + plain[at + sizes[15]:]
            stream = run("extract", self.write("in.3gp", data), "vr").stdout
            for command in (["inspect", "-"], ["unpack", "-", "-o", "-"], ["pack", "-", "-o", "-"]):
                self.assert_fails(run(*command, stdin=stream), 1, reason)
        # A configuration without parameter sets.
        bare = self.write("in.3gp", plain.replace(b"\xff\xe1\0\x16", b"\xff\xe0\0\x16"))
        for command in (["extract", bare, "vr"], ["extract", bare, "vr", "--unpack"], ["info", bare],
                        ["hint", bare, "-o", self.scratch / "out.3gp"]):
            result = run(*command)
            self.assertEqual(result.returncode, 0 if command[0] == "info" else 1)
            self.assertIn(b"it has no parameter sets", result.stdout + result.stderr)
        # NAL units end with their sample.
        short = int.from_bytes(plain[at:at + 4], "big") - 1
        cut_unit = self.write("in.3gp", plain[:at] + short.to_bytes(4, "big") + plain[at + 4:])
        for command in (["extract", cut_unit, "vr"], ["check", cut_unit]):
            self.assert_fails(run(*command), 1, "1 of 30 samples cannot be" if command[0] == "extract"
                              else "1 implausible")
        # An empty picture is a remark.
        table = plain.index(b"stsz") + 12 + 4 * 30
        emptied = self.write("in.3gp", plain[:table] + bytes(4) + plain[table + 4:])
        for command in (["extract", emptied, "vr"], ["check", emptied],
                        ["hint", emptied, "-o", self.scratch / "out.3gp"]):
            result = run(*command)
            self.assertEqual(result.returncode, 0)
            self.assertIn(b"1 of 30 samples is empty", result.stderr)
        # Unpacking keeps what comes before the damage.
        result = run("unpack", "-", "-o", "-", stdin=cut)
        self.assert_fails(result, 1, "kept what comes before, left out 5 bytes")
        self.assertEqual(result.stdout, (SAMPLES / "truth" / "amrnb.amr").read_bytes()[:6 + 3 * 32])

    def test_a_stream_that_ends_between_frames_is_not_whole(self):
        for name, mode, _ in MEDIA:
            for api in ["function"] + ["class"] * (name in ON_CLASS_API):
                stream = self.extract(name, mode, "--api", api)
                ends = [int.from_bytes(stream[8:12], "little")]
                while ends[-1] < len(stream):
                    ends.append(ends[-1] + int.from_bytes(stream[ends[-1]:][:4], "little"))
                # The last sample of speech may hold fewer frames than declared.
                last = {"ar": 15, "vr": 2}[mode]
                for end in (ends[0], ends[len(ends) // 2], ends[-last])[2 * IS_SANITIZED:]:
                    with self.subTest(name=name, api=api, end=end):
                        for command in [("inspect", "-"), ("unpack", "-", "-o", "-")]:
                            result = run(*command, stdin=stream[:end])
                            self.assertEqual(result.returncode, 1)
                            self.assertIn(b"its header records declare ", result.stderr)
                if mode == "ar" and api == "function":  # no duration, as of a version-1 mdhd
                    cut = stream[:52] + bytes(4) + stream[56:ends[-last]]
                    self.assert_fails(run("inspect", "-", stdin=cut), 1, "declare")
                if name == "amrnb_dtx_hinted" and api == "class":  # declares a frame less
                    doubtful = run("inspect", "-", stdin=stream[:ends[-2]])
                    self.assertEqual(doubtful.returncode, 0)
                    self.assertIn(b"it is cut, or hint samples", doubtful.stderr)
        late = run("extract", sample("h263_hinted"), "vr", "--api", "class", "--from", "900",
                   "--sync", "next")
        self.unpack(late.stdout)  # made after a seek
        # A video track without pictures.
        empty = bytearray(self.extract("h263_plain", "vr")[:24])
        self.assert_fails(run("inspect", "-", stdin=bytes(empty)), 1, "ends inside")
        empty[20:24] = bytes(4)
        self.output("inspect", "-", stdin=bytes(empty))
        for command in ("unpack", "pack"):
            self.assert_fails(run(command, "-", "-o", "-", stdin=bytes(empty)), 1, "has no frames")

    def test_longer_than_memory(self):
        stream = self.extract("amrnb_plain", "ar")
        padding = 200 << 20
        header = bytearray(stream[:68])
        header[8:12] = (68 + padding).to_bytes(4, "little")
        header[16:20] = padding.to_bytes(4, "little")
        with (self.scratch / "long.native").open("wb") as file:
            file.write(header)
            file.seek(padding, os.SEEK_CUR)
            file.write(stream[68:])
        limit = resource.RLIM_INFINITY if IS_SANITIZED else 100 << 20
        inspected, unpacked = (
            run(*command, cwd=self.scratch,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))).stdout
            for command in [("inspect", "long.native"), ("unpack", "long.native", "-o", "-")])
        records = inspected.splitlines()
        self.assertEqual(len(records), 4 + 298)
        self.assertEqual(int(records[4].split()[0]), 68 + padding)
        self.assert_true(unpacked, "amrnb.amr")

    def test_streams_that_lack_or_repeat_packets_or_are_of_no_codec_fail(self):
        stream = self.extract("h264_hinted", "vr")
        records = self.records(stream)
        starts = [r["offset"] for r in records if r["record"] == "VID_Frame_Record"]
        packets = [r for r in records if r["record"] == "TEL_Packet_Header"]
        speech = self.extract("amrnb_plain", "ar")
        frames = [r["offset"] for r in self.records(speech) if r["record"] == "AUD_AudFrame_Native"]
        inside = sum(starts[3] <= packet["offset"] < starts[5] for packet in packets)
        reserved = bytearray(stream)
        reserved[stream.index(bytes.fromhex(packets[9]["payload"]))] = 30  # a reserved type of unit
        wrong = bytearray(speech)
        for at in frames[3:7]:
            wrong[at + 25] |= 0x80
        amplified = bytearray(speech)
        amplified[20:24] = (149).to_bytes(4, "little")
        amplified[52:56] = (2980).to_bytes(4, "little")
        by_class = self.extract("amrnb_hinted", "ar", "--api", "class")
        at, end = [r["offset"] for r in self.records(by_class)
                   if r["record"] == "AUD_AudFrame_Native"][10:12]
        silent = (24).to_bytes(4, "little") + by_class[at + 4:at + 24]
        for damaged, message, code in [
                # A packet without a payload, which has its number.
                (by_class[:at] + silent + by_class[end:], "1 of 298 frames is empty", 0),
                (stream[:starts[3]] + stream[starts[5]:], f"{inside} packets are missing", 1),
                (speech[:frames[100]] + speech[frames[150]:], "50 frames are missing", 1),
                (bytes(reserved), "1 packet is malformed", 1),
                (stream[:starts[4]] + stream[starts[3]:], "1 frame is repeated", 1),
                (speech[:frames[100]] + speech[frames[99]:], "1 frame is repeated", 1),
                (bytes(wrong), "4 of 298 frames cannot be AMR-NB, the first is number 4", 1),
                (bytes(amplified), "declare 149 frames, it has 298", 1),
                (speech[:68] + speech[frames[10]:], "its first 10 frames are missing", 1),
                (stream[:76] + b"\xcc" * 4 + stream[80:], "level 3435973836, which take a byte", 1),
                (stream[:436] + bytes(4) + stream[440:], "frame rate without a duration", 1),
                (run("extract", sample("wild/version1_headers"), "vr").stdout,
                 "all pictures have the time 0", 0),
                # One frame fewer may be all that the track has.
                (speech[:frames[297]], "it has 297: it is cut, or the last sample", 0)]:
            for command in [("inspect", "-"), ("unpack", "-", "-o", "-"), ("pack", "-", "-o", "-")]:
                with self.subTest(message=message, command=command[0]):
                    result = run(*command, stdin=damaged)
                    said = re.sub(" (is|are) ", " ", result.stderr.decode())
                    self.assertEqual(result.returncode, code)
                    self.assertIn(re.sub(" (is|are) ", " ", message), said)
                    self.assertGreater(len(result.stdout), len(damaged) // 5)


if __name__ == "__main__":
    unittest.main(verbosity=1)
