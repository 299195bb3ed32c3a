# SPDX-License-Identifier: Apache-2.0
"""The command-line tool as a person meets it: commands, outputs, messages and exit codes."""

import contextlib
import fractions
import hashlib
import itertools
import json
import os
import pathlib
import random
import re
import resource
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = os.environ["KESTREL_TOOL"]
SAMPLES = pathlib.Path(os.environ["KESTREL_SAMPLES"])
SPEECH = {
    "amrnb_plain": "amrnb", "amrnb_plain_mdat_first": "amrnb", "amrnb_hinted": "amrnb",
    "amrnb_hinted_1450": "amrnb", "amrnb_hinted_multi": "amrnb", "amrnb_dtx_hinted": "amrnb_dtx",
    "two_amrnb_hinted": "amrnb_dtx", "amrwb_plain": "amrwb", "amrwb_hinted": "amrwb",
    "amrwb_dtx_hinted": "amrwb_dtx",
}


VIDEO = {  # file: truth
    "av_h263_amrnb_hinted": "h263.h263", "h263_plain": "h263.h263", "h263_hinted": "h263.h263",
    "h263_hinted_1450": "h263.h263", "h263_hinted_mtu500": "h263.h263",
    "h263_hinted_selfref": "h263.h263", "h263_cif_hinted": "h263_cif.h263",
    "h263plus_hinted": "h263plus.h263", "h264_plain": "h264.h264", "h264_hinted": "h264.h264",
    "h264_hinted_1450": "h264.h264", "h264_hinted_nooffset": "h264.h264",
    "av_h264_amrwb_hinted": "h264.h264", "h264_slices_b_hinted": "h264_slices_b.h264",
    "mpeg4_plain": "mpeg4.m4v", "mpeg4_hinted": "mpeg4.m4v", "mpeg4_hinted_1450": "mpeg4.m4v",
    "mpeg4_b_hinted": "mpeg4_b.m4v",
}


NOBODY = 65534  # a user without rights


def pictures(stream, kind):
    """The coded pictures of a stream: without parameter sets or configuration headers."""
    if kind == "h264":
        units = re.split(b"\0?\0\0\1", stream)
        return [unit for unit in units if unit and unit[0] & 31 not in (7, 8)]
    if kind == "m4v":
        # Groups and pictures; a configuration begins with a visual object sequence and ends at one.
        starts = [m.start() for m in re.finditer(b"\0\0\1[\xb0\xb3\xb6]", stream)] + [len(stream)]
        units = [stream[a:b] for a, b in zip(starts, starts[1:])]
        return [unit for unit in units if unit[3] != 0xB0]
    return stream


def sample(name):
    return str(SAMPLES / f"{name}.3gp")


def run(*arguments, stdin=None):
    return subprocess.run([TOOL, *map(str, arguments)], input=stdin, capture_output=True,
                          timeout=120, check=False)


class ToolTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)

    def assert_fails(self, result, code, message):
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertEqual(result.stderr.decode().count("\n"), 1, result.stderr)
        self.assertIn(message, result.stderr.decode())

    def extract(self, name, mode, *options):
        result = run("extract", sample(name), mode, *options)
        self.assertEqual((result.returncode, result.stderr), (0, b""), name)
        return result.stdout

    def unpack(self, stream):
        result = run("unpack", "-", "-o", "-", stdin=stream)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return result.stdout


    def unprivileged(self):
        """What has a process run with the rights of a user for whom limits hold."""
        # A sanitized build would start a process that looks for leaks.
        env = {"env": {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}}
        if os.geteuid() != 0:
            return env
        user = {"user": NOBODY, "group": NOBODY, **env}
        try:
            subprocess.run([TOOL, "--version"], capture_output=True, check=True, **user)
        except (PermissionError, subprocess.CalledProcessError):
            self.skipTest("another user cannot run the tool")
        return user


class Extract(ToolTest):
    def test_speech_comes_back(self):
        for name, truth in SPEECH.items():
            for options in [(), ("--arriving", 1), ("--arriving", 777), ("--arriving", 10**7)]:
                with self.subTest(name=name, options=options):
                    stream = self.extract(name, "ar", *options)
                    self.assertEqual(self.unpack(stream),
                                     (SAMPLES / "truth" / f"{truth}.amr").read_bytes())

    def test_video_comes_back(self):
        for name, truth in VIDEO.items():
            whole = None
            for options in [(), ("--arriving", 999), ("--arriving", 70001)]:
                with self.subTest(name=name, options=options):
                    stream = self.extract(name, "vr", *options)
                    whole = whole or stream
                    self.assertEqual(stream, whole)
            kind = truth.split(".")[1]
            expected = (SAMPLES / "truth" / truth).read_bytes()
            self.assertEqual(pictures(self.unpack(whole), kind), pictures(expected, kind), name)

    @unittest.skipUnless(shutil.which("ffmpeg"), "ffmpeg is not installed")
    def test_a_decoder_gets_the_pictures_of_the_file(self):
        def frames(path, *options):
            result = subprocess.run(
                ["ffmpeg", "-v", "error", *options, "-i", str(path), "-map", "0:v", "-vsync",
                 "passthrough", "-f", "framemd5", "-"], capture_output=True, check=False)
            self.assertEqual((result.returncode, result.stderr), (0, b""), path)
            lines = result.stdout.decode().splitlines()
            return [line.split(",")[-1].strip() for line in lines if not line.startswith("#")]

        for name, truth in VIDEO.items():
            with self.subTest(name=name):
                kind = truth.split(".")[1]
                out = self.scratch / f"{name}.{kind}"
                out.write_bytes(self.unpack(self.extract(name, "vr")))
                decoded = frames(out, "-f", {"h263": "h263", "m4v": "m4v", "h264": "h264"}[kind])
                self.assertEqual(decoded, frames(sample(name)))

    def test_standard_input_is_played_while_it_arrives(self):
        whole = self.extract("amrnb_plain", "ar")
        data = pathlib.Path(sample("amrnb_plain")).read_bytes()
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
        self.assertEqual(first + rest, whole)
        self.assertEqual((tool.returncode, errors), (0, b""))

    def test_failed_open_leaves_no_output(self):
        out = self.scratch / "out"
        (self.scratch / "empty").write_bytes(b"")
        (self.scratch / "random").write_bytes(hashlib.sha512(b"x").digest() * 99)
        cases = [
            (sample("aac_plain"), "ar", 1, "This API does not play AAC; convert it with another "
                                           "tool first (status 2)"),
            (sample("amrnb_plain"), "vr", 1, "no video track"),
            (self.scratch / "empty", "ar", 1, "not an ISO media file"),
            (self.scratch / "random", "ar", 1, "not an ISO media file"),
            (sample("amrnb_plain"), "ax", 2, "MODE 'ax' is not known: ar plays audio, vr"),
            (self.scratch / "none", "ar", 1, "No such file or directory"),
            (self.scratch, "ar", 1, "Is a directory"),
        ]
        for path, mode, code, message in cases:
            with self.subTest(path=str(path), mode=mode):
                result = run("extract", path, mode, "-o", out)
                last = result.stderr.decode().splitlines()[-1]
                self.assertEqual(result.returncode, code)
                self.assertIn(f"{path}: ", last)
                self.assertIn(message, last)
                self.assertFalse(out.exists())

    def test_cut_file_keeps_what_was_delivered(self):
        whole = self.extract("amrnb_plain", "ar")
        data = pathlib.Path(sample("amrnb_plain")).read_bytes()
        cut = self.scratch / "cut.3gp"
        cut.write_bytes(data[: len(data) // 2])
        media = data.index(b"mdat") - 4
        lost = media + int.from_bytes(data[media:media + 4], "big") - len(data) // 2
        out = self.scratch / "out"
        for options in [(), ("--arriving", 100)]:
            result = run("extract", cut, "ar", "-o", out, *options)
            kept = out.read_bytes()
            self.assert_fails(result, 1, f"The file is cut: {lost:,} bytes of 'mdat' are missing "
                                         f"(status 17); kept {len(kept)} bytes")
            self.assertGreater(len(kept), 1000)
            self.assertTrue(whole.startswith(kept))
        # What was kept is a stream that can be unpacked.
        truth = (SAMPLES / "truth" / "amrnb.amr").read_bytes()
        self.assertTrue(truth.startswith(self.unpack(kept)))

    def test_samples_that_do_not_come_are_a_failure(self):
        out = self.scratch / "out"
        hinted = pathlib.Path(sample("h263_hinted")).read_bytes()
        sizes = hinted.rindex(b"stsz") + 12
        part = self.scratch / "part.3gp"  # hints of a third of the pictures
        part.write_bytes(hinted[:sizes] + (10).to_bytes(4, "big") + hinted[sizes + 4:])
        wild = SAMPLES / "wild"
        for path, mode, api, some, message in [
                (part, "vr", "function", True, "7 of 30 pictures"),
                (part, "vr", "class", True, "10 of 30 pictures"),
                (sample("h263_hinted_selfref"), "vr", "class", None, "in the hint track itself"),
                (wild / "fragmented.3gp", "vr", "function", False, "are in movie fragments"),
                (wild / "fragmented_after_moov.3gp", "vr", "function", True,
                 "are in movie fragments")]:
            for options in [(), ("--arriving", 3000)]:
                with self.subTest(path=str(path), api=api, options=options):
                    out.write_bytes(b"old")
                    result = run("extract", path, mode, "--api", api, "-o", out, *options)
                    self.assert_fails(result, 1, message)
                    self.assertIn(f"{path}: ", result.stderr.decode())
                    if some:
                        self.assertIn(f"kept {out.stat().st_size} bytes of stream",
                                      result.stderr.decode())
                    elif not options and some is not None:
                        self.assertEqual(out.read_bytes(), b"old")

    def test_outputs_that_cannot_be_written(self):
        copy = self.scratch / "in.3gp"
        copy.write_bytes(pathlib.Path(sample("amrnb_plain")).read_bytes())
        self.assert_fails(run("extract", copy, "ar", "-o", copy), 2, "is the input")
        self.assert_fails(run("extract", copy, "ar", "-o", self.scratch), 1, "Is a directory")
        if os.path.exists("/dev/full"):
            self.assert_fails(run("extract", copy, "ar", "-o", "/dev/full"), 1, "No space left")


class OneStep(ToolTest):
    """extract --unpack and --track."""

    def test_a_clip_becomes_its_media_file(self):
        for name, mode, api, truth in [("amrnb_plain", "ar", "function", "amrnb.amr"),
                                       ("amrnb_hinted", "ar", "class", "amrnb.amr"),
                                       ("h263_hinted", "vr", "class", "h263.h263"),
                                       ("h264_plain", "vr", "function", None)]:
            for options in [(), ("--arriving", 3000)]:
                with self.subTest(name=name, api=api, options=options):
                    media = self.extract(name, mode, "--api", api, "--unpack", *options)
                    stream = self.extract(name, mode, "--api", api)
                    self.assertEqual(media, self.unpack(stream))
                    if truth:
                        self.assertEqual(media, (SAMPLES / "truth" / truth).read_bytes())

    def test_a_track_is_chosen_by_its_id(self):
        file = sample("two_amrnb_hinted")
        tracks = [track for track in json.loads(run("info", file, "--json").stdout)["tracks"]
                  if track["handler"] == "soun"]
        self.assertEqual(len(tracks), 2)
        self.assert_fails(run("extract", file, "ar", "--api", "class"), 1, "several audio tracks")
        streams = set()
        for track in tracks:
            for api in ("function", "class"):
                result = run("extract", file, "ar", "--api", api, "--track", track["track_id"],
                             "--unpack")
                self.assertEqual((result.returncode, result.stderr), (0, b""))
                self.assertEqual(len(result.stdout), track["bytes"] + len(b"#!AMR\n"))
                streams.add(result.stdout)
        self.assertEqual(len(streams), 2)
        self.assertEqual(pathlib.Path(file).read_bytes().count(b"trak"), 4)

    def test_choices_that_cannot_be(self):
        av = sample("av_h263_amrnb_hinted")
        for arguments, code, message in [
                ((av, "ar", "--track", 1), 1, "has no audio track 1"),
                ((av, "vr", "--track", 65536), 1, "has no video track 65536"),
                ((av, "vr", "--track", 1, "--arriving", 10), 2, "as a whole"),
                (("-", "vr", "--track", 1), 2, "as a whole")]:
            self.assert_fails(run("extract", *arguments), code, message)


class ClassApi(ToolTest):
    def test_speech_is_that_of_the_function_api(self):
        for name in ["amrnb_hinted", "amrnb_hinted_multi", "amrnb_dtx_hinted"]:
            truth = (SAMPLES / "truth" / f"{SPEECH[name]}.amr").read_bytes()
            for options in [(), ("--arriving", 999), ("--arriving", 70001)]:
                with self.subTest(name=name, options=options):
                    stream = self.extract(name, "ar", "--api", "class", *options)
                    self.assertEqual(self.unpack(stream), truth)

    def test_video_packets_are_those_of_the_hint_track(self):
        for name in ["h263_hinted", "h263_hinted_1450", "h263_hinted_mtu500", "h263plus_hinted",
                     "h263_rfc2190_hinted_1450", "mpeg4_hinted", "mpeg4_hinted_1450",
                     "mpeg4_b_hinted", "av_h263_amrnb_hinted"]:
            with self.subTest(name=name):
                stream = self.extract(name, "vr", "--api", "class")
                self.assertEqual(self.extract(name, "vr", "--api", "class", "--arriving", 4001),
                                 stream)
                records = json.loads(run("inspect", "-", "--json", stdin=stream).stdout)["records"]
                payloads = [hashlib.md5(bytes.fromhex(r["payload"])).hexdigest() for r in records
                            if r["record"] == "TEL_Packet_Header"]
                truth = (SAMPLES / "truth" / f"{name}.packets").read_text().splitlines()
                rows = [line.split() for line in truth]
                self.assertEqual(payloads, [row[6] for row in rows if row[0] == rows[0][0]])

    def test_what_lies_in_front_of_a_fault_is_kept(self):
        for name, mode in [("h263_hinted", "vr"), ("mpeg4_hinted", "vr"), ("amrnb_hinted", "ar")]:
            whole = self.extract(name, mode, "--api", "class")
            data = bytearray(pathlib.Path(sample(name)).read_bytes())
            table = data.index(b"stco") + 8  # of the media, after version and flags
            count = int.from_bytes(data[table : table + 4], "big")
            for chunk in range(1, count):
                with self.subTest(name=name, chunk=chunk):
                    lost = bytearray(data)
                    lost[table + 4 + 4 * chunk : table + 8 + 4 * chunk] = b"\x7f\xff\xff\xff"
                    path = self.scratch / "lost.3gp"
                    path.write_bytes(lost)
                    result = run("extract", path, mode, "--api", "class", "-o", "-")
                    self.assert_fails(result, 1, f"kept {len(result.stdout)} bytes")
                    self.assertTrue(whole.startswith(result.stdout))
                    self.assertGreater(len(result.stdout), len(whole) * chunk // count // 3)
                    self.unpack(result.stdout)  # it ends with a whole frame

    def test_pictures_are_those_of_the_function_api(self):
        for name in ["h263_hinted", "h263_cif_hinted", "h263_hinted_mtu500", "h263plus_hinted",
                     "h263_rfc2190_hinted_1450", "mpeg4_hinted", "mpeg4_b_hinted",
                     "av_h263_amrnb_hinted"]:
            with self.subTest(name=name):
                pictures = self.unpack(self.extract(name, "vr", "--api", "class"))
                self.assertEqual(pictures, self.unpack(self.extract(name, "vr")))

    def test_seeking_reports_where_it_begins(self):
        whole = self.extract("h263_hinted", "vr", "--api", "class")
        begins = [int.from_bytes(whole[8:12], "little")]
        headers = whole[:begins[0]]
        while begins[-1] < len(whole):
            length = whole[begins[-1]:begins[-1] + 4]
            begins.append(begins[-1] + int.from_bytes(length, "little"))
        frames = []
        for options in [("--sync", "next"), ("--sync", "previous"), ("--sync", "nearest"), (),
                        ("--sync", "next", "--arriving", "3000")]:
            with self.subTest(options=options):
                result = run("extract", sample("h263_hinted"), "vr", "--api", "class", "--from",
                             "900", *options)
                reported = re.fullmatch(r"from \d+ ms: frame (\d+), file offset \d+\n",
                                    result.stderr.decode())
                frames.append(int(reported[1]))
                self.assertEqual(result.stdout, headers + whole[begins[frames[-1] - 1]:])
        self.assertEqual(frames, [11, 1, 11, 1, 11])

    def test_what_it_does_not_play(self):
        for name, mode, message in [
                ("amrwb_hinted", "ar", "This API does not play AMR-WB; the function API does (status 2)"),
                ("amrnb_plain", "ar", "The audio has no RTP hint track, and this API plays nothing "
                                      "else; 'kestrel info' looks for a fix (status 12: Hint tracks"),
                ("two_amrnb_hinted", "ar", "The file has several audio tracks"),
                ("amrnb_hinted", "vr", "no video track"),
                ("h264_hinted", "vr", "This API does not play H.264; the function API does (status")]:
            result = run("extract", sample(name), mode, "--api", "class")
            self.assert_fails(result, 1, message)


class Usage(ToolTest):
    def test_mistakes_are_explained(self):
        (self.scratch / "-clip.3gp").write_bytes(b"")
        for line, message in [
                ("", "a command is missing; 'kestrel help' lists"),
                ("bogus", "unknown command 'bogus'"), ("chekc x", "did you mean 'check'?"),
                ("inf", "did you mean 'info'?"), ("help chek", "did you mean 'check'?"),
                ("-clip.3gp", "a name that begins with a dash is given as ./-clip.3gp"),
                ("info -clip.3gp", "a name that begins with a dash is given as ./-clip.3gp"),
                (f"{sample('h263_plain')}", "a command comes before the file"),
                ("info --bogus", "unknown option '--bogus'; 'kestrel help info' lists"),
                ("extract --arivin 5 x ar", "did you mean '--arriving'?"),
                ("extract x", "MODE is missing; usage: kestrel extract FILE MODE"),
                ("hint x", "--output is missing; usage: kestrel hint FILE --output OUT"),
                ("extract x ar y", "not expected: 'y'"),
                ("extract x ar -o", "-o needs OUT after it"),
                ("extract x ar -o -y", "begins with a dash is given as ./-y"),
                ("extract x ar --from -1", "--from needs MS after it, not '-1'"),
                ("extract x ar --from abc --api class", "--from: 'abc' is not a whole number"),
                ("extract x ar --arriving 0", "--arriving: 0 is not from 1 to 4294967295"),
                ("extract x ar --sync next", "--sync needs --from"),
                ("extract x ar --from 5 --sync up",
                 "--sync: 'up' is none of next, previous, nearest"),
                ("extract x ar --api 0", "--api: '0' is none of function, class"),
                ("packets x --hex --pcap y", "exclude each other"),
                ("hint x -o y --mtu 5", "--mtu: 5 is not from 64 to 65535")]:
            with self.subTest(line=line):
                result = subprocess.run([TOOL, *line.split()], cwd=self.scratch, check=False,
                                        capture_output=True, timeout=60)
                self.assert_fails(result, 2, message)
                self.assertEqual(result.stdout, b"")

    def test_help(self):
        text = run("--help").stdout.decode()
        self.assertEqual(run("help").stdout.decode(), text)
        for command in ["extract", "info", "inspect", "unpack", "packets", "boxes", "report",
                        "check", "hint"]:
            self.assertIn(command, text)
            about = run(command, "--help").stdout
            self.assertEqual(run("help", command).stdout, about)
            # The parser's own words do not show.
            self.assertNotRegex(about.decode(), "TEXT|UINT|REQUIRED|SUBCOMMAND|Positionals")
            options = about.decode().split("Options:")[1].split("\n\n")[0].splitlines()
            self.assertLessEqual(max(map(len, options)), 80)
        self.assertRegex(run("--version").stdout.decode(), r"^kestrel \d+\.\d+\.\d+\n$")
        self.assertEqual(run("version").stdout, run("--version").stdout)


class StandardStreams(ToolTest):
    COMMANDS = [("check", sample("amrnb_hinted")), ("info", sample("amrnb_hinted")),
                ("boxes", sample("amrnb_hinted")), ("packets", sample("amrnb_hinted")),
                ("inspect", "stream"), ("--help",), ("--version",)]

    def run_with(self, redirections, *arguments):
        """Through a shell, which can close streams."""
        words = shlex.join(map(str, [TOOL, *arguments]))
        return subprocess.run(["sh", "-c", f"{words} {redirections}"], capture_output=True,
                              timeout=120, check=False)

    @unittest.skipUnless(os.path.exists("/dev/full"), "there is no /dev/full")
    def test_lost_output_is_reported(self):
        stream = self.scratch / "stream.tel"
        run("extract", sample("amrnb_hinted"), "ar", "-o", stream)
        for command, *rest in self.COMMANDS:
            rest = [stream if command == "inspect" else word for word in rest]
            for redirection in [">/dev/full", ">&-"]:
                with self.subTest(command=command, redirection=redirection):
                    result = self.run_with(redirection, command, *rest)
                    self.assert_fails(result, 1, "kestrel: standard output: ")

    def test_closed_streams_change_nothing(self):
        expected = run("check", sample("av_h263_amrnb_hinted")).stdout
        for closed in ["<&-", "2>&-", "<&- 2>&-"]:
            result = self.run_with(closed, "check", sample("av_h263_amrnb_hinted"))
            self.assertEqual((result.returncode, result.stdout), (0, expected), closed)
        out = self.scratch / "out.3gp"
        result = self.run_with("<&- >&- 2>&-", "hint", sample("h263_plain"), "-o", out)
        self.assertEqual(result.returncode, 0)
        self.assertEqual(run("check", out).returncode, 0)


class ForeignTexts(ToolTest):
    """Escape sequences, C1 bytes, line breaks and changes of direction in what is not the tool's own
    text do not reach a terminal."""

    EVIL = [b"\x1b[2J", b"\xc2\x9b1m", b"\r\n\x9b\x7f", b"\xe2\x80\xae<"]
    NAME = "\x1b]0;x\x07\u202e\u009b\udc9b\n.3gp"
    COMMANDS = [("info",), ("info", "--json"), ("boxes",), ("boxes", "--json"), ("packets",),
                ("packets", "--track", "9"), ("packets", "--json"), ("boxes", "--path", "moov"),
                ("check",), ("check", "--json"), ("check", "--quick"), ("hint", "-o", "out"),
                ("report", "-o", "page"), ("extract", "ar", "--verbose", "-o", "out"),
                ("extract", "vr", "--api", "class", "-o", "out"), ("inspect",), ("unpack", "-o", "out")]

    def assert_harmless(self, *arguments):
        result = subprocess.run([TOOL, *arguments], cwd=self.scratch, capture_output=True,
                                timeout=120, check=False)
        text = (result.stdout + result.stderr).decode("utf-8")  # throws on a lone C1 byte
        self.assertNotRegex(text, "[\x00-\x08\x0b-\x1f\x7f-\x9f\u2028\u2029\u202e]", arguments)
        return result

    def test_files(self):
        data = pathlib.Path(sample("av_h263_amrnb_hinted")).read_bytes()
        fields = [b"3gp4", b"isom", b"s263", b"samr", b"soun", b"rtp ", b"tims", b"d263", b"stts",
                  b"tkhd", b"mdat", b"m=vi"]
        path = self.scratch / self.NAME
        for number, field in enumerate(fields):
            self.assertIn(field, data)
            path.write_bytes(data.replace(field, self.EVIL[number % len(self.EVIL)]))
            for command, *options in self.COMMANDS:
                with self.subTest(field=field, command=command):
                    self.assert_harmless(command, os.fsencode(self.NAME), *options)
        self.assertIn(b"\\x1b]0;x\\x07\\xe2\\x80\\xae\\xc2\\x9b\\x9b\\x0a.3gp",
                      self.assert_harmless("check", os.fsencode(self.NAME)).stdout)

    def test_native_streams(self):
        stream = self.extract("h263_hinted", "vr")
        path = self.scratch / self.NAME
        for field in [b"VIDEO", b"s263+"]:
            for evil in self.EVIL:
                path.write_bytes(stream.replace(field, evil.ljust(5, b"\0"), 1))
                for options in [("inspect",), ("inspect", "--json"), ("unpack", "-o", "out")]:
                    self.assert_harmless(options[0], os.fsencode(self.NAME), *options[1:])


class Remarks(ToolTest):
    def test_the_library_speaks_when_it_is_asked_to(self):
        path = self.scratch / "cut.3gp"
        data = bytearray(pathlib.Path(sample("amrnb_plain")).read_bytes())
        data[data.index(b"mdhd") - 1] = 12
        path.write_bytes(data)
        quiet = run("extract", path, "ar")
        self.assert_fails(quiet, 1, f"kestrel: {path}: ")
        lines = run("extract", path, "ar", "--verbose").stderr.decode().splitlines()
        self.assertGreater(len(lines), 1)
        for line in lines:
            self.assertTrue(line.startswith(f"kestrel: {path}: "), line)
        self.assertEqual(lines[-1] + "\n", quiet.stderr.decode())


class Packets(ToolTest):
    def test_agree_with_an_independent_reader(self):
        names = sorted(path.stem for path in (SAMPLES / "truth").glob("*.packets"))
        self.assertGreater(len(names), 20)
        for name in names:
            with self.subTest(name=name):
                truth = [line.split() for line in
                         (SAMPLES / "truth" / f"{name}.packets").read_text().splitlines()]
                lines = run("packets", sample(name), "--hex").stdout.decode().splitlines()
                got = [line.split() for line in lines]
                self.assertEqual(len(got), len(truth))
                # There the timestamps of these are in display order.
                columns = [0, 1, 2, 3, 4, 6] if "_b_" in name else [0, 1, 2, 3, 4, 5, 6]
                first = {}
                for mine, theirs in zip(got, truth):
                    track, length, marker, kind, sequence, time, packet = mine
                    base = first.setdefault(track, (int(sequence), int(time)))
                    payload = bytes.fromhex(packet)[12:]
                    row = [track, length, marker, kind, str((int(sequence) - base[0]) % 2**16),
                           str((int(time) - base[1]) % 2**32), hashlib.md5(payload).hexdigest()]
                    self.assertEqual([row[c] for c in columns], [theirs[c] for c in columns])

    def test_payload_in_the_hint_track_itself(self):
        lines = run("packets", sample("h263_hinted_selfref"), "--hex").stdout.decode().splitlines()
        pictures = b""
        for line in lines:
            payload = bytes.fromhex(line.split()[6])[12:]
            # RFC 4629: two bytes, and two zero bytes of a start code left out when P is set.
            pictures += (b"\0\0" if payload[0] & 4 else b"") + payload[2:]
        self.assertEqual(pictures, (SAMPLES / "truth" / "h263.h263").read_bytes())

    def test_one_track_of_two(self):
        both = run("packets", sample("two_amrnb_hinted")).stdout.decode().splitlines()
        for track in ("65536", "65537"):
            one = run("packets", sample("two_amrnb_hinted"), "--track", track).stdout.decode()
            self.assertEqual(one.splitlines(), [line for line in both if line.startswith(track)])
        self.assert_fails(run("packets", sample("two_amrnb_hinted"), "--track", 1), 1,
                          "no hint track with this ID")
        self.assert_fails(run("packets", sample("amrnb_plain")), 1, "no hint track")

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
                self.assertEqual(run("packets", sample(name), "--pcap", out).returncode, 0)
                captured, text = self.capture(out)
                lines = [line.split() for line in
                         run("packets", sample(name), "--hex").stdout.decode().splitlines()]
                tracks = sorted({line[0] for line in lines})
                self.assertEqual(captured, {5004 + 2 * number: [line[6] for line in lines
                                                                if line[0] == track]
                                            for number, track in enumerate(tracks)})
                self.assertIn("c=IN IP4 192.0.2.2", text)
                self.assertEqual(re.findall(r"(?m)^m=\w+ (\d+)", text),
                                 [str(port) for port in captured])
                if name.startswith("av_"):
                    self.assertIn("m=video 5004 RTP/AVP 96", text)
                    self.assertIn("a=rtpmap:97 AMR-WB/16000", text)

    def test_names_and_texts_add_no_line_to_the_description(self):
        data = pathlib.Path(sample("amrnb_hinted")).read_bytes()
        text = boxes(data, [b"moov", b"trak", b"udta", b"hnti", b"sdp "])[0]
        evil = b"m=audio 1 RTP/AVP 97\rc=IN IP4 6.6.6.6\nc=IN IP4 6.6.6.6\nt=1 1\na=\x1b[2J\n"
        path = self.scratch / "clip\r\nc=IN IP4 6.6.6.6"
        path.write_bytes(data.replace(text, evil.ljust(len(text), b"\n")))
        out = self.scratch / "cap.pcap"
        self.assertEqual(run("packets", path, "--pcap", out).returncode, 0)
        lines = self.capture(out)[1].split("\r\n")
        self.assertEqual([line[:2] for line in lines],
                         ["v=", "o=", "s=", "c=", "t=", "m=", "a=", ""])
        self.assertEqual(lines[3], "c=IN IP4 192.0.2.2")
        for line in lines:
            self.assertNotRegex(line, r"[\x00-\x1f]")

    def test_captures_that_are_refused(self):
        folder, name = self.scratch / "folder", sample("h263_hinted")
        folder.mkdir()
        out = folder / "cap.pcap"
        (folder / "link.pcap").symlink_to("link.sdp")
        for path, code, message in [(folder / "z.sdp", 2, "another, such as"),
                                    (folder / "z.SDP", 2, "another, such as"),
                                    (folder / "link.pcap", 2, "leads to the same file"),
                                    (name, 2, "is the input"), ("-", 2, "needs a file")]:
            self.assert_fails(run("packets", name, "--pcap", path), code, message)
        self.assertEqual(len(list(folder.iterdir())), 1)
        self.assertEqual(run("packets", name, "--pcap", out).returncode, 0)
        size = out.stat().st_size
        out.write_bytes(b"old")
        self.assert_fails(run("packets", name, "--pcap", out, "--limit", size - 1), 1,
                          f"longer than {size - 1} bytes; --limit BYTES")
        self.assertEqual(out.read_bytes(), b"old")
        self.assertEqual(run("packets", name, "--pcap", out, "--limit", size).returncode, 0)
        self.assertEqual(out.stat().st_size, size)

    def test_packets_that_are_left_out_are_a_failure(self):
        data = pathlib.Path(sample("h263_hinted")).read_bytes()
        whole = run("packets", sample("h263_hinted")).stdout
        hint = data.rindex(b"stbl")
        chunks, runs = (data.index(kind, hint) + 4 for kind in (b"stco", b"stsc"))
        together = int.from_bytes(data[runs + 12:runs + 16], "big")
        second = int.from_bytes(data[chunks + 12:chunks + 16], "big")  # offset of a chunk
        cases = [
            (data[:chunks + 4] + bytes(4) + data[chunks + 8:], False, "30 of 30 hint samples"),
            # A packet of more constructors than its hint sample has.
            (data[:second + 14] + b"\xff\xff" + data[second + 16:], True,
             f"hint sample {together + 1} of 30 is damaged; its packets and all after them")]
        out = self.scratch / "cap.pcap"
        for damaged, some, message in cases:
            with self.subTest(message=message):
                out.write_bytes(b"old")
                result = run("packets", "-", stdin=damaged)
                self.assert_fails(result, 1, message)
                self.assertTrue(whole.startswith(result.stdout))
                self.assertEqual(bool(result.stdout), some)
                self.assert_fails(run("packets", "-", "--pcap", out, stdin=damaged), 1, message)
                self.assertEqual(out.read_bytes() != b"old", some)


class Boxes(ToolTest):
    def test_tree_agrees_with_an_independent_lister(self):
        golden, name = {}, None
        listing = pathlib.Path(__file__).parent / "golden" / "box_list.txt"
        for line in listing.read_text().splitlines():
            if line.startswith("file "):
                name = line[5:-4]
                golden[name] = []
            elif not line.startswith("#") and line.strip():
                depth, rest = line.split(" ", 1)
                kind, offset, size = rest.rsplit(" ", 2)
                golden[name].append((int(depth), kind, int(offset), int(size)))
        self.assertGreater(len(golden), 30)
        for name, expected in golden.items():
            with self.subTest(name=name):
                result = run("boxes", sample(name), "--json")
                self.assertEqual((result.returncode, result.stderr), (0, b""))
                seen = set()

                def walk(boxes, depth):
                    for box in boxes:
                        seen.add((depth, box["type"], box["offset"], box["size"]))
                        walk(box.get("children", []), depth + 1)

                walk(json.loads(result.stdout), 0)
                theirs = set(expected)
                # Boxes inside those that the model skips are not in the tree.
                self.assertTrue(all(row in theirs for row in seen if row[1] not in ("url ",)),
                                seen - theirs)
                modelled = {"ftyp", "moov", "mdat", "free", "mvhd", "trak", "tkhd", "tref", "edts",
                            "elst", "mdia", "mdhd", "minf", "dinf", "stbl", "stsd", "stts", "stsc",
                            "stsz", "stco", "stss", "ctts"}
                self.assertEqual({row for row in theirs - seen if row[1] in modelled}, set())

    def test_damaged_tree_is_shown_to_where_it_ends(self):
        data = bytearray(pathlib.Path(sample("amrnb_plain")).read_bytes())
        size = int.from_bytes(data[28:32], "big")
        self.assertEqual(data[32:36], b"moov")
        data[28:32] = (len(data) * 2).to_bytes(4, "big")
        result = run("boxes", "-", stdin=bytes(data))
        self.assert_fails(result, 1, f"Invalid size found in box.  Current file position is 28, "
                                     f"box size is {len(data) * 2}")
        self.assertIn("ftyp", result.stdout.decode())
        self.assertGreater(size, 8)

    def test_foreign_codec_of_mp4v_shows_the_tree(self):
        # The library ends the process when it opens such a file through the class API.
        for name in ("mpeg4_hinted", "mpeg4_plain", "mpeg4_b_hinted"):
            data = pathlib.Path(sample(name)).read_bytes()
            at = data.index(b"esds") + 8
            at += data[at:].index(4)  # the tag of the decoder configuration
            at += 2 + data[at + 1: at + 4].count(0x80)
            self.assertEqual(data[at], 0x20)
            own = run("boxes", "-", stdin=data).stdout.decode()
            self.assertIn("object_type_indication=32", own)
            for object_type in (0, 0x40, 0x60, 0x6C, 0xFF):
                with self.subTest(name=name, object_type=object_type):
                    changed = data[:at] + bytes([object_type]) + data[at + 1:]
                    result = run("boxes", "-", stdin=changed)
                    self.assertEqual((result.returncode, result.stderr), (0, b""))
                    self.assertEqual(result.stdout.decode(),
                                     own.replace("indication=32", f"indication={object_type}"))


# Media tracks of one kind, and what the tool must give back of them.
PLAIN = {
    "amrnb_plain": ("ar", "amrnb.amr"), "amrnb_plain_mdat_first": ("ar", "amrnb.amr"),
    "amrwb_plain": ("ar", "amrwb.amr"), "h263_plain": ("vr", "h263.h263"),
    "mpeg4_plain": ("vr", "mpeg4.m4v"), "h264_plain": ("vr", "h264.h264"),
}


def boxes(data, path):
    """The bodies of the boxes at a path below the top level, in order."""
    if not path:
        return [data]
    found = []
    at = 0
    while at + 8 <= len(data):
        size = int.from_bytes(data[at:at + 4], "big")
        if data[at + 4:at + 8] == path[0]:
            found += boxes(data[at + 8:at + size], path[1:])
        at += max(size, 8)
    return found


STBL = [b"moov", b"trak", b"mdia", b"minf", b"stbl"]


def payload_bits(payloads):
    """A picture out of RFC 2190 packets, which may share a byte at their ends. An independent
    hinter spoils mode B headers with negative vectors, which then do not have it."""
    picture = bytearray()
    left = 0  # bits of the last byte that are not its packet's; None when not reported
    for payload in payloads:
        reported = payload[:4] != b"\xff" * 4
        begin, end = payload[0] >> 3 & 7, payload[0] & 7
        data = bytearray(payload[8 if payload[0] & 0x80 else 4:])
        if reported and left is not None:
            assert begin == (8 - left) % 8, "the bits of two packets do not meet"
        if reported and begin:
            kept = 0xFF << (8 - begin) & 0xFF
            picture[-1] = picture[-1] & kept | data.pop(0) & ~kept
        elif not reported and (left or left is None and data[0] == picture[-1]):
            picture.pop()
        picture += data
        left = end if reported else None
    return bytes(picture)


def units(payloads):
    """The NAL units of RFC 6184 packets: single ones, STAP-A and FU-A."""
    found = []
    for payload in payloads:
        if payload[0] & 31 == 24:
            at = 1
            while at < len(payload):
                size = int.from_bytes(payload[at:at + 2], "big")
                found.append(payload[at + 2:at + 2 + size])
                at += 2 + size
            continue
        if payload[0] & 31 != 28:
            found.append(payload)
            continue
        if payload[1] & 0x80:
            found.append(bytes([payload[0] & 0xE0 | payload[1] & 31]))
        found[-1] += payload[2:]
    return found


def speech(payload, wide):
    """The frames of an octet-aligned RFC 4867 packet."""
    sizes = ([17, 23, 32, 36, 40, 46, 50, 58, 60, 5] if wide else
             [12, 13, 15, 17, 19, 20, 26, 31, 5])
    count = next(i for i, byte in enumerate(payload[1:], 1) if not byte & 0x80)
    at = 1 + count
    for header in payload[1:at]:
        kind = header >> 3 & 15
        size = sizes[kind] if kind < len(sizes) else 0
        yield bytes([header & 0x7C]) + payload[at:at + size]
        at += size
    assert at == len(payload)


def content(packets, payload):
    """What packets carry, as a list of times and pictures or speech frames."""
    packets = [(int(p[5]), bytes.fromhex(p[6])[12:]) for p in packets]
    start = packets[0][0]
    if payload.startswith("AMR"):
        step = 320 if payload == "AMR-WB" else 160
        return [(time - start + step * i, frame) for time, data in packets
                for i, frame in enumerate(speech(data, payload == "AMR-WB"))]
    join = {"RFC 2190": payload_bits, "H.264": units, "MPEG-4": b"".join,
            "H.263": lambda all: b"".join((b"\0\0" if p[0] & 4 else b"") + p[2:] for p in all)}
    groups = itertools.groupby(packets, lambda packet: packet[0])
    return [(time - start, join[payload](data for _, data in group)) for time, group in groups]


class BoxPaths(ToolTest):
    def lines(self, *arguments):
        result = run("boxes", *arguments)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return [line.split() for line in result.stdout.decode().splitlines()[1:]]

    def test_a_path_shows_what_it_leads_to(self):
        file = sample("av_h263_amrnb_hinted")
        whole = self.lines(file)
        for path in ("moov", "moov/trak/mdia/minf/stbl/stsd", "moov/trak/tref/hint"):
            shown = self.lines(file, "--path", path)
            self.assertEqual({line[2] for line in shown} & {path.split("/")[-1]},
                             {path.split("/")[-1]})
            self.assertLessEqual({tuple(line) for line in shown}, {tuple(line) for line in whole})
        tree = json.loads(run("boxes", file, "--json", "--path", "moov/trak/mdia").stdout)
        self.assertEqual([box["type"] for box in tree], ["mdia"] * 4)
        self.assert_fails(run("boxes", file, "--path", "moov/tark"), 1, "has no box moov/tark")

    def test_numbers_are_shown_as_people_read_them(self):
        text = run("boxes", sample("av_h263_amrnb_hinted")).stdout.decode()
        for reading in ("width=176 px", "duration=30720 (2.000 s)", "language=und",
                        "modification_time=2026-11-21T", "horizontal_resolution=72 dpi"):
            self.assertIn(reading, text)

    def test_fragments_are_opened(self):
        tree = json.loads(run("boxes", SAMPLES / "wild" / "fragmented.3gp", "--json").stdout)
        parts = [part for box in tree if box["type"] == "moof" for part in box["children"]]
        runs = [child for part in parts if part["type"] == "traf" for child in part["children"]
                if child["type"] == "trun"]
        self.assertEqual(sum(run["fields"]["sample_count"] for run in runs), 131)
        extends = json.loads(run("boxes", SAMPLES / "wild" / "fragmented.3gp", "--json", "--path",
                                 "moov/mvex/trex").stdout)
        self.assertEqual([box["fields"]["track_id"] for box in extends], [1, 2])


class Hint(ToolTest):
    # --- outputs that do not become whole ---

    def folder(self):
        return sorted(path.name for path in self.scratch.iterdir())

    def test_output_comes_whole_under_its_name(self):
        whole = self.hint(sample("amrnb_plain")).read_bytes()
        old = self.scratch / "old.3gp"
        old.write_bytes(b"old")
        old.chmod(0o640)
        (self.scratch / "link.3gp").symlink_to("old.3gp")
        (self.scratch / "new_link.3gp").symlink_to("target.3gp")
        for out, file in [("link.3gp", old), ("new_link.3gp", self.scratch / "target.3gp"),
                          ("new.3gp", self.scratch / "new.3gp")]:
            with self.subTest(out=out):
                result = subprocess.run([TOOL, "hint", sample("amrnb_plain"), "-o", out],
                                        cwd=self.scratch, umask=0o027, check=False, timeout=60)
                self.assertEqual(result.returncode, 0)
                self.assertEqual(file.read_bytes(), whole)
                self.assertEqual(file.stat().st_mode & 0o777, 0o640)
        self.assertTrue((self.scratch / "link.3gp").is_symlink())
        self.assertEqual(self.folder(), ["hinted.3gp", "link.3gp", "new.3gp", "new_link.3gp",
                                         "old.3gp", "target.3gp"])

    def test_failed_write_leaves_what_was_there(self):
        def limited():
            resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))

        old = self.scratch / "old.3gp"
        old.write_bytes(b"old")
        (self.scratch / "link.3gp").symlink_to("old.3gp")
        there = self.folder()
        for out in ("old.3gp", "link.3gp", "new.3gp"):
            with self.subTest(out=out):
                result = subprocess.run([TOOL, "hint", sample("h264_plain"), "-o", out],
                                        cwd=self.scratch, preexec_fn=limited, capture_output=True,
                                        check=False, timeout=60)
                self.assert_fails(result, 1, f"{out}: File too large")
                self.assertEqual(self.folder(), there)
                self.assertEqual(old.read_bytes(), b"old")
                self.assertTrue((self.scratch / "link.3gp").is_symlink())
        self.assert_fails(run("hint", sample("amrnb_plain"), "-o", self.scratch), 1,
                          "Is a directory")
        self.assert_fails(run("hint", sample("amrnb_plain"), "-o", self.scratch / "no" / "out"), 1,
                          "No such file")

    def hint(self, source, *options):
        out = self.scratch / "hinted.3gp"
        result = run("hint", source, "-o", out, *options)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return out

    def media(self, path, mode):
        stream = run("extract", path, mode)
        self.assertEqual((stream.returncode, stream.stderr), (0, b""))
        return self.unpack(stream.stdout)

    def packets(self, path):
        result = run("packets", path, "--hex")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return [line.split() for line in result.stdout.decode().splitlines()]

    def without_configuration(self, media, name):
        """The stream without its decoder configuration, which the library delivers ahead of a
        stream with hints but at every intra picture of one without."""
        data = pathlib.Path(sample(name)).read_bytes()
        if name == "h264_plain":
            units = media.split(b"\0\0\0\1")
            return [unit for unit in units if unit[:1] not in (b"\x67", b"\x68")]
        if name == "mpeg4_plain":
            entry = boxes(data, STBL + [b"stsd"])[0]
            config = entry[entry.index(b"\0\0\1\xb0"):]
            return media.replace(config[:config.rindex(b"\x06")], b"")
        return media

    def test_media_come_back(self):
        for name, (mode, truth) in PLAIN.items():
            for options in [(), ("--mtu", 300), ("--mtu", 1400), ("--rfc2190",)]:
                with self.subTest(name=name, options=options):
                    hinted = self.hint(sample(name), *options)
                    media = self.without_configuration(self.media(hinted, mode), name)
                    plain = self.without_configuration(self.media(sample(name), mode), name)
                    self.assertEqual(media, plain)
                    if isinstance(media, bytes):
                        known = (SAMPLES / "truth" / truth).read_bytes()
                        self.assertEqual(media, self.without_configuration(known, name))
                    limit = options[1] if options[:1] == ("--mtu",) else 1400
                    self.assertLessEqual(max(int(p[1]) for p in self.packets(hinted)), limit)

    def test_agrees_with_an_independent_hinter(self):
        for name, theirs, payload, limit, *options in [
                ("amrnb", "amrnb_hinted", "AMR", 1400),
                ("amrnb", "amrnb_hinted_1450", "AMR", 1450),
                ("amrnb", "amrnb_hinted_multi", "AMR", 173),
                ("amrwb", "amrwb_hinted", "AMR-WB", 1400),
                ("h263", "h263_hinted", "H.263", 1400),
                ("h263", "h263_hinted_1450", "H.263", 1450),
                ("h263", "h263_hinted_mtu500", "H.263", 500),
                (None, "h263_rfc2190_hinted_1450", "RFC 2190", 1450, "--rfc2190"),
                (None, "h263_rfc2190_hinted_1450", "RFC 2190", 300, "--rfc2190"),
                ("mpeg4", "mpeg4_hinted", "MPEG-4", 1400),
                ("mpeg4", "mpeg4_hinted_1450", "MPEG-4", 1450),
                ("h264", "h264_hinted", "H.264", 1400),
                ("h264", "h264_hinted_1450", "H.264", 1450),
                ("h264", "h264_hinted_nooffset", "H.264", 1400)]:
            with self.subTest(name=theirs, limit=limit):
                # From the medium without hints, or from theirs in place of its own.
                source = f"{name}_plain" if name else theirs
                ours = self.packets(self.hint(sample(source), "--mtu", limit, "--replace",
                                              *options))
                carried = content(ours, payload)
                self.assertGreater(len(carried), 10)
                others = content(self.packets(sample(theirs)), payload)
                if theirs == "amrnb_hinted_1450":  # lacks the frames of its last packet
                    self.assertEqual(len(others), len(carried) // 35 * 35)
                    carried = carried[:len(others)]
                self.assertTrue(carried == others)
                self.assertLessEqual(max(int(packet[1]) for packet in ours), limit)

    def test_plays_with_the_class_api(self):
        for name in ["amrnb_plain", "amrnb_plain_mdat_first", "h263_plain", "mpeg4_plain"]:
            mode, truth = PLAIN[name]
            for options in [(), ("--mtu", 300), ("--rfc2190",)]:
                with self.subTest(name=name, options=options):
                    hinted = self.hint(sample(name), *options)
                    result = run("extract", hinted, mode, "--api", "class")
                    self.assertEqual((result.returncode, result.stderr), (0, b""))
                    if mode == "ar":
                        known = (SAMPLES / "truth" / truth).read_bytes()
                        self.assertEqual(self.unpack(result.stdout), known)
                        continue
                    records = json.loads(run("inspect", "-", "--json", stdin=result.stdout).stdout)
                    payloads = [r["payload"] for r in records["records"]
                                if r["record"] == "TEL_Packet_Header"]
                    self.assertEqual(payloads, [p[6][24:] for p in self.packets(hinted)])

    def test_track_and_movie_headers_come_over(self):
        data = bytearray(pathlib.Path(sample("h264_plain")).read_bytes())
        # Silent, disabled, turned, of another display size, in front; a version-1 movie header.
        tkhd = data.index(b"tkhd") + 4
        data[tkhd + 3] = 2
        data[tkhd + 32:tkhd + 40] = bytes.fromhex("fffe000101800000")
        data[tkhd + 40:tkhd + 44] = bytes(4)
        data[tkhd + 44:tkhd + 48] = bytes.fromhex("00010000")
        data[tkhd + 76:tkhd + 84] = bytes.fromhex("00c4800000908000")
        mvhd = data.index(b"mvhd") + 4
        timescale = data[mvhd + 12:mvhd + 16]
        self.assertNotEqual(timescale, (600).to_bytes(4, "big"))
        data[mvhd:mvhd + 20] = (b"\1" + bytes(19) + timescale + bytes(4) +
                                data[mvhd + 16:mvhd + 20])
        for box, more in [(mvhd - 8, 12), (data.index(b"moov") - 4, 12)]:
            size = int.from_bytes(data[box:box + 4], "big") + more
            data[box:box + 4] = size.to_bytes(4, "big")
        stco = data.index(b"stco") + 8
        for at in range(stco + 4, stco + 4 + 4 * int.from_bytes(data[stco:stco + 4], "big"), 4):
            if data.index(b"moov") < data.index(b"mdat"):
                offset = int.from_bytes(data[at:at + 4], "big") + 12
                data[at:at + 4] = offset.to_bytes(4, "big")
        copy = self.scratch / "patched.3gp"
        copy.write_bytes(data)
        after = self.hint(copy).read_bytes()
        self.assertEqual(self.media(self.scratch / "hinted.3gp", "vr"),
                         self.media(self.hint(sample("h264_plain")), "vr"))
        self.assertEqual(boxes(after, [b"moov", b"mvhd"])[0][12:16], timescale)
        for header in (b"tkhd", b"edts"):
            self.assertEqual(boxes(after, [b"moov", b"trak", header])[0],
                             boxes(data, [b"moov", b"trak", header])[0])

    def test_rfc2190_has_its_payload_type(self):
        hinted = self.hint(sample("h263_plain"), "--rfc2190", "--mtu", 500)
        packets = self.packets(hinted)
        self.assertEqual({packet[3] for packet in packets}, {"34"})
        # Mode B follows a cut between macroblocks.
        self.assertTrue(any(packet[6][24:26] >= "80" for packet in packets))

    def test_independent_player_reads_it(self):
        if shutil.which("ffmpeg") is None or shutil.which("ffprobe") is None:
            self.skipTest("no ffmpeg")
        # All that it says, and of every file with hints: it does not decode them.
        known = re.compile(rb"^Unsupported codec with id 0 for input stream \d+\n", re.MULTILINE)
        for name in PLAIN:
            with self.subTest(name=name):
                hinted = self.hint(sample(name))
                probed = subprocess.run(["ffprobe", "-v", "warning", hinted], capture_output=True,
                                        check=True, timeout=60)
                self.assertEqual(known.sub(b"", probed.stderr), b"")
                played = []
                for path in (sample(name), hinted):
                    listed = subprocess.run(
                        ["ffmpeg", "-v", "warning", "-i", path, "-map", "0:0", "-c", "copy", "-f",
                         "framemd5", "-"], capture_output=True, check=True, timeout=60)
                    self.assertEqual(known.sub(b"", listed.stderr), b"")
                    played.append(self.framemd5(listed.stdout.decode()))
                self.assertEqual(*played)

    @staticmethod
    def framemd5(text):
        """Times in seconds, sizes and sums of all packets."""
        unit = fractions.Fraction(re.search(r"#tb 0: (\S+)", text)[1])
        rows = [line.replace(" ", "").split(",") for line in text.splitlines() if line[0] != "#"]
        return [[int(time) * unit for time in row[1:4]] + row[4:] for row in rows]

    def test_clips_of_every_form_come_back_sample_by_sample(self):
        modes = {"samr": "ar", "s263": "vr", "mp4v": "vr", "avc1": "vr"}
        for truth in sorted((SAMPLES / "wild").glob("*.frames")):
            clip, = (path for path in truth.parent.glob(truth.stem + ".*") if path != truth)
            rows = [line.split() for line in truth.read_text().splitlines()]
            hinted = self.hint(clip)
            for codec in {row[1] for row in rows} & set(modes):
                samples = [(int(row[5]), row[7]) for row in rows if row[1] == codec]
                apis = ["function"] + ["class"] * (codec != "avc1")
                for api, options in itertools.product(apis, [(), ("--arriving", 5000)]):
                    with self.subTest(clip=clip.name, codec=codec, api=api, options=options):
                        stream = run("extract", hinted, modes[codec], "--api", api, *options)
                        self.assertEqual((stream.returncode, stream.stderr), (0, b""))
                        media = self.unpack(stream.stdout)
                        if codec == "avc1":
                            units = media.split(b"\0\0\0\1")[1:]
                            media = b"".join(struct.pack(">I", len(unit)) + unit for unit in units)
                        # A header or the decoder configuration may be ahead of them.
                        at = len(media) - sum(size for size, _ in samples)
                        for size, digest in samples:
                            self.assertEqual(hashlib.md5(media[at:at + size]).hexdigest(), digest)
                            at += size

    def test_hinted_file_is_refused_unless_replaced(self):
        out = self.scratch / "out.3gp"
        for name, mode in [("av_h263_amrnb_hinted", "ar"), ("av_h264_amrwb_hinted", "vr"),
                           ("mpeg4_b_hinted", "vr"), ("h264_slices_b_hinted", "vr"),
                           ("h263_cif_hinted", "vr"), ("amrwb_dtx_hinted", "ar")]:
            with self.subTest(name=name):
                self.assert_fails(run("hint", sample(name), "-o", out), 1, "--replace")
                self.assertFalse(out.exists())
                hinted = self.hint(sample(name), "--replace")
                self.assertEqual(self.media(hinted, mode), self.media(sample(name), mode))
                again = self.scratch / "again.3gp"
                again.write_bytes(hinted.read_bytes())
                # What was made once is made the same from itself.
                self.assertEqual(self.hint(again, "--replace").read_bytes(), again.read_bytes())

    def test_what_cannot_be_hinted(self):
        out = self.scratch / "out.3gp"
        data = pathlib.Path(sample("amrnb_plain")).read_bytes()
        (self.scratch / "cut.3gp").write_bytes(data[:-20])
        (self.scratch / "none.3gp").write_bytes(b"")
        cases = [
            (sample("aac_plain"), (), 1, "no AMR, H.263, MPEG-4 or H.264 track"),
            (self.scratch / "cut.3gp", (), 1, "sample 298 of track 1"),
            (self.scratch / "none.3gp", (), 1, "no movie box"),
            (sample("amrnb_plain"), ("--mtu", 63), 2, "63"),
            (sample("amrwb_plain"), ("--mtu", 64), 1,
             "sample 1 cannot be cut into packets of at most 64 bytes; a frame needs up to 74"),
            ("", (), 2, "name of a file is empty"),
        ]
        self.assert_fails(run("hint", sample("amrnb_plain"), "-o", ""), 2, "file is empty")
        self.hint(sample("amrwb_plain"), "--mtu", 74)
        for path, options, code, message in cases:
            with self.subTest(path=str(path)):
                result = run("hint", path, "-o", out, *options)
                self.assertEqual(result.returncode, code)
                self.assertIn(message, result.stderr.decode().splitlines()[-1])
                self.assertFalse(out.exists())
        cut = self.scratch / "cut.3gp"
        self.assert_fails(run("hint", cut, "-o", cut), 1, "sample 298")
        salvaged = run("hint", cut, "-o", out, "--salvage")
        self.assertEqual(salvaged.returncode, 0)
        self.assertIn(b"kept 297 of the 298 samples", salvaged.stderr)
        copy = self.scratch / "in.3gp"
        copy.write_bytes(data)
        self.assert_fails(run("hint", copy, "-o", copy), 2, "is the input")
        self.assertEqual(copy.read_bytes(), data)
        if pathlib.Path("/dev/full").exists():
            self.assert_fails(run("hint", copy, "-o", "/dev/full"), 1, "No space left")

    def test_standard_streams(self):
        data = pathlib.Path(sample("h264_plain")).read_bytes()
        piped = run("hint", "-", "-o", "-", stdin=data)
        self.assertEqual((piped.returncode, piped.stderr), (0, b""))
        self.assertEqual(piped.stdout, self.hint(sample("h264_plain")).read_bytes())


def needs_root(test):
    return unittest.skipUnless(os.geteuid() == 0, "only root can act as a second user")(test)


def demuxed(path, stream):
    """Size, digest, times in milliseconds and sync flag of each sample, as an independent demuxer
    has them."""
    shown = subprocess.run(
        ["ffprobe", "-v", "error", "-select_streams", stream, "-show_packets", "-show_data_hash",
         "md5", "-of", "json", str(path)], capture_output=True, check=True)
    return [(int(p["size"]), p["data_hash"], float(p["pts_time"]) * 1000,
             float(p["dts_time"]) * 1000, p["flags"][0])
            for p in json.loads(shown.stdout)["packets"]]


class Pack(ToolTest):
    def pack(self, out, *arguments, stdin=None):
        result = run("pack", *arguments, "-o", out, stdin=stdin)
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    @unittest.skipUnless(shutil.which("ffprobe"), "ffprobe is not installed")
    def test_an_independent_demuxer_finds_the_samples_of_the_original(self):
        media = [(name, "ar", "a:0") for name in SPEECH if name != "two_amrnb_hinted"]
        media += [(name, "vr", "v:0") for name in VIDEO]
        out = self.scratch / "packed.3gp"
        for (name, mode, stream), api in itertools.product(media, ["function", "class"]):
            extracted = run("extract", sample(name), mode, "--api", api)
            # The hint track of this file ends before its media do.
            if extracted.returncode or (name, api) == ("amrnb_hinted_1450", "class"):
                continue
            with self.subTest(name=name, api=api):
                self.pack(out, "-", stdin=extracted.stdout)
                expected, found = demuxed(sample(name), stream), demuxed(out, stream)
                self.assertEqual([p[:2] for p in found], [p[:2] for p in expected])
                # The function API plays a frame of speech every 20 ms, whatever the file declares.
                most = 7 if "plain" in name or "1450" in name and mode == "ar" else 0.51
                for a, b in zip(found, expected):
                    self.assertLess(max(abs(a[2] - b[2]), abs(a[3] - b[3])), most)
                if name != "h263plus_hinted":  # has no table of sync samples
                    self.assertEqual([p[4] for p in found], [p[4] for p in expected])

    @unittest.skipUnless(shutil.which("ffmpeg"), "ffmpeg is not installed")
    def test_two_streams_become_one_file_that_plays(self):
        for name in ["av_h263_amrnb_hinted", "av_h264_amrwb_hinted"]:
            with self.subTest(name=name):
                audio, out = self.scratch / "audio", self.scratch / "both.3gp"
                audio.write_bytes(self.extract(name, "ar"))
                self.pack(out, "--audio", audio, "--video", "-", "--hint",
                          stdin=self.extract(name, "vr"))
                decoded = [subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", "0:v",
                                           "-map", "0:a", "-f", "framemd5", "-"],
                                          capture_output=True, check=True).stdout
                           for path in (sample(name), str(out))]
                digests = [re.findall(rb"^(\d),.*, (\w+)$", text, re.M) for text in decoded]
                self.assertEqual(digests[0], digests[1])
                self.assertGreater(len(digests[0]), 100)

    def test_cut_streams_are_packed_as_far_as_they_are_whole(self):
        stream = self.extract("amrnb_plain", "ar")
        cut, out = self.scratch / "cut.native", self.scratch / "out.3gp"
        cut.write_bytes(stream[:68 + 10 * 57 + 30])
        self.assert_fails(run("pack", cut, "-o", out), 1,
                          "cut.native: damaged from byte 663 on: the stream ends inside a speech "
                          "frame: 32 bytes wanted, 5 left; packed 10 samples before it, left out")
        again = self.extract_file(out, "ar")
        self.assertEqual(again[68:], stream[68:68 + 10 * 57])

    def extract_file(self, path, mode):
        result = run("extract", path, mode)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def test_what_cannot_be_packed_leaves_what_was_there(self):
        out = self.scratch / "out.3gp"
        out.write_bytes(b"before")
        audio, video = self.scratch / "a.native", self.scratch / "v.native"
        audio.write_bytes(self.extract("amrnb_plain", "ar"))
        video.write_bytes(self.extract("h263_plain", "vr"))
        for arguments, code, message in [
                (["/dev/null"], 1, "the stream ends inside PROP_Header_Info"),
                ([sample("amrnb_plain")], 1, "this is a 3GP file"),
                (["--audio", video], 1, "v.native: this is a video stream"),
                (["--audio", audio, "--video", audio], 1, "a.native: this is an audio stream"),
                (["--audio", "-", "--video", "-"], 2, "only one of --audio and --video"),
                ([audio, "--video", video], 2, "exclude each other"),
                ([], 2, "needs a STREAM")]:
            with self.subTest(arguments=arguments):
                self.assert_fails(run("pack", *arguments, "-o", out), code, message)
                self.assertEqual(out.read_bytes(), b"before")
        self.assert_fails(run("pack", audio, "-o", audio), 2, "is the input")


class Datagrams:
    """Receives what comes to ports of this machine, from an even one on."""

    def __init__(self, tracks):
        while True:
            self.port = random.randrange(10000, 30000) * 2
            self.sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                            for _ in range(2 * tracks)]
            try:
                for number, one in enumerate(self.sockets):
                    one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
                    one.bind(("127.0.0.1", self.port + number))
                    one.settimeout(10)
                return
            except OSError:
                self.close()

    def close(self):
        for one in self.sockets:
            one.close()

    def take(self, number):
        """All that has come to a port."""
        taken = []
        self.sockets[number].setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                taken.append(self.sockets[number].recv(1 << 16))
        return taken


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
            for line in (SAMPLES / "truth" / f"{name}.packets").read_text().splitlines():
                track, length, marker, kind, _, time, digest = line.split()
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

    @unittest.skipUnless(shutil.which("ffmpeg"), "ffmpeg is not installed")
    def test_an_independent_receiver_decodes_every_frame(self):
        # With hints of the file, of the tool for a file that has none, and in place of such that
        # receivers do not know.
        for name, tracks in [("amrnb_plain", 1), ("amrwb_hinted", 1), ("h263_hinted", 1),
                             ("h263_hinted_selfref", 1), ("mpeg4_hinted_1450", 1),
                             ("mpeg4_b_hinted", 1), ("h264_slices_b_hinted", 1),
                             ("av_h264_amrwb_hinted", 2)]:
            with self.subTest(name=name):
                decode = ["-map", "0:v?", "-map", "0:a?", "-fps_mode", "passthrough", "-f",
                          "framemd5", "-"]
                known = subprocess.run(["ffmpeg", "-v", "error", "-ignore_editlist", "1", "-i",
                                        sample(name), *decode], capture_output=True, check=True)
                frames = sorted(re.findall(rb"^(\d),.*, (\w+)$", known.stdout, re.M))
                self.assertGreater(len(frames), 20)
                for _ in range(3):  # a busy machine can lose datagrams
                    out, errors = self.play(sample(name), tracks, decode)
                    received = sorted(re.findall(rb"^(\d),.*, (\w+)$", out, re.M))
                    if received == frames:
                        break
                self.assertEqual(self.other_lines(errors), [])
                self.assertEqual(received, frames)

    def play(self, path, tracks, decode):
        """What an independent receiver makes of what is sent to it, and what it says."""
        description = self.scratch / "clip.sdp"
        here = Datagrams(tracks)
        to = f"127.0.0.1:{here.port}"
        run("send", path, "--to", to, "--sdp", description, "--speed", 1000)
        here.close()
        player = subprocess.Popen(["ffmpeg", "-v", "error", "-protocol_whitelist", "file,udp,rtp",
                                   "-i", description, *decode],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.wait_for_port(here.port + 2 * tracks - 1)
        sent = run("send", path, "--to", to, "--speed", 3)
        played = player.communicate(timeout=60)
        self.assertEqual((sent.returncode, sent.stderr), (0, b""))
        return played

    @staticmethod
    def other_lines(errors):
        """Without those on times, which the output format does not take as they are."""
        return [line for line in errors.decode().splitlines() if "DTS" not in line]

    @staticmethod
    def wait_for_port(port):
        wanted = f":{port:04X} "
        for _ in range(500):
            if wanted in pathlib.Path("/proc/net/udp").read_text():
                return
            time.sleep(0.02)
        raise TimeoutError("nobody listens")

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

    def test_what_cannot_be_sent(self):
        here = Datagrams(1)
        self.addCleanup(here.close)
        to = f"127.0.0.1:{here.port}"
        nobody = f"127.0.0.1:{here.port + 2}"
        for arguments, code, message in [
                (("amrnb_hinted", "--to", "127.0.0.1"), 2, "HOST:PORT"),
                (("amrnb_hinted", "--to", "::1:5004"), 2, "HOST:PORT"),
                (("amrnb_hinted", "--to", "127.0.0.1:70000"), 2, "HOST:PORT"),
                (("amrnb_hinted", "--to", "127.0.0.1:5005"), 2, "even port"),
                (("two_amrnb_hinted", "--to", "127.0.0.1:65534"), 2, "beyond 65535"),
                (("amrnb_hinted", "--to", to, "--speed", 0), 2, "--speed"),
                (("amrnb_hinted", "--to", to, "--from", 60000), 1, "after the end"),
                (("aac_plain", "--to", to), 1, "no AMR, H.263, MPEG-4 or H.264 track"),
                (("amrnb_hinted", "--to", nobody, "--speed", 1000), 1, "nobody listened")]:
            with self.subTest(arguments=arguments):
                self.assert_fails(run("send", sample(arguments[0]), *arguments[1:]), code, message)
        data = pathlib.Path(sample("amrnb_hinted")).read_bytes()
        movie = boxes(data, [b"moov"])[0]
        hint = movie[movie.rindex(b"trak") - 4:]
        hint = hint[:int.from_bytes(hint[:4], "big")] * 64
        many = self.scratch / "many.3gp"
        many.write_bytes(struct.pack(">I4s", len(hint) + len(movie) + 8, b"moov") + hint + movie)
        self.assert_fails(run("send", many, "--to", to), 1, "65 hint tracks; the most")
        self.assertEqual(here.take(0), [])


class Outputs(ToolTest):
    """What an output replaces, follows and leaves."""

    COMMANDS = [("hint", sample("amrnb_plain")), ("report", sample("amrnb_plain")),
                ("unpack", "stream"), ("extract", sample("amrnb_plain"), "ar")]

    def setUp(self):
        super().setUp()
        stream = self.scratch / "stream"
        stream.write_bytes(self.extract("amrnb_plain", "ar"))

    def write(self, command, out, **options):
        options = {"umask": 0o022, **options}
        return subprocess.run([TOOL, *command, "-o", out], cwd=self.scratch, capture_output=True,
                              check=False, timeout=60, **options)

    def listing(self):
        return sorted(str(path.relative_to(self.scratch)) for path in self.scratch.rglob("*"))

    def assert_leaves_all(self, command, out, message, victim, **options):
        there = self.listing()
        self.assert_fails(self.write(command, out, **options), 1, message)
        self.assertEqual((victim.read_bytes(), self.listing()), (b"old", there))

    def test_permissions_of_own_files_are_kept_and_special_bits_never(self):
        out = self.scratch / "out"
        for command in self.COMMANDS:
            for before, after in [(0o640, 0o640), (0o4755, 0o755), (0o2711, 0o711), (0o6666, 0o666)]:
                with self.subTest(command=command[0], before=oct(before)):
                    out.write_bytes(b"old")
                    out.chmod(before)
                    self.assertEqual(self.write(command, "out").returncode, 0)
                    self.assertEqual(oct(out.stat().st_mode & 0o7777), oct(after))

    @needs_root
    def test_permissions_of_files_of_others_are_not_copied(self):
        out = self.scratch / "out"
        self.scratch.chmod(0o1777)
        for command in self.COMMANDS:
            with self.subTest(command=command[0]):
                out.write_bytes(b"old")
                os.chown(out, NOBODY, NOBODY)
                out.chmod(0o6777)
                self.assertEqual(self.write(command, "out").returncode, 0)
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
            for command in self.COMMANDS:
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
                        self.assertEqual(self.write(command, "shared/link").returncode, 0)
                        self.assertGreater((self.scratch / target).stat().st_size, 3)
                        self.assertTrue(link.is_symlink())
                        if target == "new":
                            (self.scratch / target).unlink()

    def test_what_cannot_be_looked_at_is_not_taken_for_absent(self):
        victim = self.scratch / "victim"
        victim.write_bytes(b"old")
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
        victim = self.scratch / "locked" / "victim"
        victim.parent.mkdir()
        victim.write_bytes(b"old")
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
        old = self.scratch / "old"
        old.write_bytes(b"old")
        stream = self.extract("amrnb_plain", "ar")
        others = {signal.SIGKILL, signal.SIGSTOP, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU,
                  signal.SIGCHLD, signal.SIGCONT, signal.SIGURG, signal.SIGWINCH, signal.SIGXFSZ}
        if b"__asan_" in pathlib.Path(TOOL).read_bytes():  # has handlers of its own
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
            plain = self.write(command, "-").stdout
            self.assertEqual(self.write(command, "/dev/stdout").stdout, plain)
            with (self.scratch / "out").open("wb") as out:
                out.write(b"before ")
                out.flush()
                subprocess.run([TOOL, *command, "-o", "-"], cwd=self.scratch, stdout=out,
                               check=True, timeout=60)
            self.assertEqual((self.scratch / "out").read_bytes(), b"before " + plain)


class Inspect(ToolTest):
    def test_codes_are_explained_and_zeros_counted(self):
        stream = self.extract("amrnb_plain", "ar")
        text = run("inspect", "-", stdin=stream).stdout.decode()
        self.assertIn("coding 33 (AMR-NB, up to 12.2 kbit/s) sampling_rate 64 (8000 Hz)", text)
        stream = self.extract("h264_plain", "vr")
        text = run("inspect", "-", stdin=stream).stdout.decode()
        self.assertRegex(text, r"level 11 \(1\.1\) config 00000001[0-9a-f]+ and \d+ zeros length")

    def test_every_record_is_named(self):
        stream = self.extract("amrnb_dtx_hinted", "ar")
        result = run("inspect", "-", "--json", stdin=stream)
        self.assertEqual(result.returncode, 0, result.stderr)
        records = json.loads(result.stdout)["records"]
        self.assertEqual([r["record"] for r in records[:5]],
                         ["PROP_Header_Info", "AUD_Codec_Header", "AUD_Header_IndxInfo",
                          "VID_FileInfo", "AUD_AudFrame_Native"])
        self.assertEqual(records[0]["fields"]["value"], 715)
        self.assertEqual(len(records), 4 + 715)
        self.assertEqual([r["fields"]["sequence"] for r in records[4:]], list(range(715)))
        text = run("inspect", "-", stdin=stream).stdout.decode()
        self.assertIn('medium "AUDIO   "', text)
        self.assertEqual(len(text.splitlines()), len(records))

    def test_video_frames_and_their_damage(self):
        stream = self.extract("h263_hinted", "vr")
        result = run("inspect", "-", "--json", stdin=stream)
        self.assertEqual(result.returncode, 0, result.stderr)
        records = json.loads(result.stdout)["records"]
        self.assertEqual([r["record"] for r in records[:9]],
                         ["PROP_Header_Info", "VID_Header_NTSInfo", "VID_Header_IndxInfo",
                          "VID_Header_CodecInfo", "VID_Header_H263CodecConfig", "VID_FileInfo",
                          "VID_Frame_Record", "VID_Frame_Words", "TEL_Packet_Header"])
        self.assertEqual(records[3]["fields"]["codec"], "s263+")
        packets = [r["fields"]["sequence"] for r in records if r["record"] == "TEL_Packet_Header"]
        self.assertEqual([(n - packets[0]) % 65536 for n in packets], list(range(56)))
        for at, value, reason in [(40, b"x", "names no codec"), (92, b"\xff", "does not"),
                                  (96, b"\x09", "ends before its last"), (104, b"\x05", "not 4 and 1"),
                                  (112, b"\x01", "")]:
            damaged = stream[:at] + value + stream[at + 1:]
            self.assert_fails(run("inspect", "-", stdin=damaged), 1, reason)
        self.assert_fails(run("inspect", "-", stdin=stream[:-1]), 1, "ends inside a frame")

    def test_damage_is_located(self):
        stream = bytearray(self.extract("amrnb_plain", "ar"))
        frame = 68 + 3 * 57
        cases = [
            (b"", 0, "ends inside PROP_Header_Info"),
            (stream[: frame + 30], frame + 25, "ends inside a speech frame"),
            (b"OTHER" + stream[5:], 0, "name of a medium"),
            (stream[:frame] + b"\xff\xff\xff\xff" + stream[frame + 4:], frame, "no frame has"),
            (stream[:frame] + b"\x3a" + stream[frame + 1:], frame, "cannot have"),
            (stream[:frame + 4] + b"\x14" + stream[frame + 5:], frame, "another coder"),
            (stream[:frame + 20] + b"\x01" + stream[frame + 21:], frame + 20, "is not 0"),
        ]
        for damaged, at, reason in cases:
            with self.subTest(reason=reason):
                result = run("inspect", "-", "--json", stdin=bytes(damaged))
                self.assert_fails(result, 1, reason)
                damage = json.loads(result.stdout)["damage"]
                if at is not None:
                    self.assertEqual(damage["offset"], at)
        self.assert_fails(run("inspect", sample("amrnb_plain")), 1, "extract a track of it first")
        # Unpacking keeps what comes before the damage.
        result = run("unpack", "-", "-o", "-", stdin=bytes(stream[: frame + 30]))
        self.assert_fails(result, 1, "kept what comes before, left out 5 bytes")
        truth = (SAMPLES / "truth" / "amrnb.amr").read_bytes()
        self.assertEqual(result.stdout, truth[: 6 + 3 * 32])

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

        def run_in_little_memory(*arguments):
            limit = 100 << 20
            if b"__asan_" in pathlib.Path(TOOL).read_bytes():
                limit = resource.RLIM_INFINITY
            return subprocess.run(
                [TOOL, *arguments], cwd=self.scratch, capture_output=True, timeout=120, check=True,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))).stdout

        records = run_in_little_memory("inspect", "long.native").splitlines()
        self.assertEqual(len(records), 4 + 298)
        self.assertEqual(int(records[4].split()[0]), 68 + padding)
        self.assertEqual(run_in_little_memory("unpack", "long.native", "-o", "-"),
                         (SAMPLES / "truth" / "amrnb.amr").read_bytes())

    def test_unpacking_what_lacks_packets_fails(self):
        stream = self.extract("h264_hinted", "vr")
        records = json.loads(run("inspect", "-", "--json", stdin=stream).stdout)["records"]
        starts = [r["offset"] for r in records if r["record"] == "VID_Frame_Record"]
        packets = [r for r in records if r["record"] == "TEL_Packet_Header"]
        inside = sum(starts[3] <= packet["offset"] < starts[5] for packet in packets)
        reserved = bytearray(stream)
        payload = bytes.fromhex(packets[9]["payload"])
        reserved[stream.index(payload)] = 30  # a reserved type of NAL unit
        for damaged, message in [(stream[:starts[3]] + stream[starts[5]:],
                                  f"{inside} packets are missing"),
                                 (bytes(reserved), "1 packet is malformed")]:
            result = run("unpack", "-", "-o", "-", stdin=damaged)
            self.assert_fails(result, 1, f"standard input: {message}; kept the rest")
            self.assertGreater(len(result.stdout), len(stream) // 2)

    def test_where_nothing_is_unpacked_the_output_stays(self):
        stream = self.extract("amrnb_plain", "ar")
        out = self.scratch / "out"
        for content in [b"", b"no stream", stream[:40], stream[:68], stream[:70]]:
            out.write_bytes(b"old")
            self.assertEqual(run("unpack", "-", "-o", out, stdin=content).returncode, 1)
            self.assertEqual(out.read_bytes(), b"old")
        self.assertEqual([path.name for path in self.scratch.iterdir()], ["out"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=1)
