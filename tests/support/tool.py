# SPDX-License-Identifier: Apache-2.0
"""What the tests of the command-line tool share: running it, the samples, and the boxes of a file."""

import contextlib
import os
import pathlib
import random
import re
import socket
import struct
import subprocess
import tempfile
import unittest

TOOL = os.environ["KESTREL_TOOL"]
SAMPLES = pathlib.Path(os.environ["KESTREL_SAMPLES"])
IS_SANITIZED = b"__asan_" in pathlib.Path(TOOL).read_bytes()
NOBODY = 65534  # a user without rights

# Samples with what their playing gives, below truth/.
SPEECH = {
    "amrnb_plain": "amrnb", "amrnb_plain_mdat_first": "amrnb", "amrnb_hinted": "amrnb",
    "amrnb_hinted_1450": "amrnb", "amrnb_hinted_multi": "amrnb", "amrnb_dtx_hinted": "amrnb_dtx",
    "two_amrnb_hinted": "amrnb_dtx", "amrwb_plain": "amrwb", "amrwb_hinted": "amrwb",
    "amrwb_dtx_hinted": "amrwb_dtx",
}
VIDEO = {
    "av_h263_amrnb_hinted": "h263.h263", "h263_plain": "h263.h263", "h263_hinted": "h263.h263",
    "h263_hinted_1450": "h263.h263", "h263_hinted_mtu500": "h263.h263",
    "h263_hinted_selfref": "h263.h263", "h263_cif_hinted": "h263_cif.h263",
    "h263plus_hinted": "h263plus.h263", "h264_plain": "h264.h264", "h264_hinted": "h264.h264",
    "h264_hinted_1450": "h264.h264", "h264_hinted_nooffset": "h264.h264",
    "av_h264_amrwb_hinted": "h264.h264", "h264_slices_b_hinted": "h264_slices_b.h264",
    "mpeg4_plain": "mpeg4.m4v", "mpeg4_hinted": "mpeg4.m4v", "mpeg4_hinted_1450": "mpeg4.m4v",
    "mpeg4_b_hinted": "mpeg4_b.m4v",
}
MEDIA = [*((name, "ar", f"{truth}.amr") for name, truth in SPEECH.items()),
         *((name, "vr", truth) for name, truth in VIDEO.items())]
PLAIN = [row for row in MEDIA if "plain" in row[0]]
# Not played there: other codecs, a choice of tracks, hints that end early or hold the media.
ON_CLASS_API = {name for name, _, truth in MEDIA
                if "hinted" in name and not re.match("amrwb|h264", truth)
                and name not in ("two_amrnb_hinted", "amrnb_hinted_1450", "h263_hinted_selfref")}

STBL = [b"moov", b"trak", b"mdia", b"minf", b"stbl"]


def sample(name):
    return str(SAMPLES / f"{name}.3gp")


def load(name):
    return (SAMPLES / f"{name}.3gp").read_bytes()


def true_packets(name):
    """The packets of a sample's hint tracks as an independent reader lists them."""
    text = (SAMPLES / "truth" / f"{name}.packets").read_text()
    return [line.split() for line in text.splitlines()]


def run(*arguments, stdin=None, **options):
    return subprocess.run([TOOL, *map(str, arguments)], input=stdin, capture_output=True,
                          timeout=300, check=False, **options)


def boxes(data, path):
    """The bodies of the boxes at a path below the top level, in order."""
    if not path:
        return [data]
    found, at = [], 0
    while at + 8 <= len(data):
        size = int.from_bytes(data[at:at + 4], "big")
        if data[at + 4:at + 8] == path[0]:
            found += boxes(data[at + 8:at + size], path[1:])
        at += max(size, 8)
    return found


def box(kind, body, hole=0):
    """A box, of whose size a hole at its end is a part."""
    return struct.pack(">I4s", len(body) + hole + 8, kind) + body


def rebuilt(data, changes):
    """The boxes with the bodies of some types replaced (None leaves the box out)."""
    out, at = b"", 0
    while at + 8 <= len(data):
        size, kind = int.from_bytes(data[at:at + 4], "big"), data[at + 4:at + 8]
        body = data[at + 8:at + size]
        body = changes[kind] if kind in changes else body
        if body is not None:
            out += box(kind, rebuilt(body, changes) if kind in STBL else body)
        at += max(size, 8)
    return out


def pictures(stream, name):
    """The coded pictures of a stream: without parameter sets or configuration headers, which a
    track with hints has once and one without at every key frame."""
    if name.endswith("h264"):
        units = re.split(b"\0?\0\0\1", stream)
        return [unit for unit in units if unit and unit[0] & 31 not in (7, 8)]
    if name.endswith("m4v"):
        # Groups and pictures; a configuration begins with a visual object sequence and ends at one.
        starts = [m.start() for m in re.finditer(b"\0\0\1[\xb0\xb3\xb6]", stream)] + [len(stream)]
        units = [stream[a:b] for a, b in zip(starts, starts[1:])]
        return [unit for unit in units if unit[3] != 0xB0]
    return stream


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


class ToolTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)

    def assert_fails(self, result, code, message):
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertEqual(result.stderr.decode().count("\n"), 1, result.stderr)
        self.assertIn(message, result.stderr.decode())

    def output(self, *arguments, stdin=None):
        """What a command prints that does all it is asked."""
        result = run(*arguments, stdin=stdin)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout

    def write(self, name, data):
        path = self.scratch / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
        return path

    def extract(self, name, mode, *options):
        return self.output("extract", sample(name), mode, *options)

    def unpack(self, stream):
        return self.output("unpack", "-", "-o", "-", stdin=stream)

    def assert_true(self, media, truth):
        """The media are the pictures or the speech of a file below truth/."""
        known = (SAMPLES / "truth" / truth).read_bytes()
        self.assertTrue(pictures(media, truth) == pictures(known, truth), truth)

    def assert_recorded(self, name, lines):
        """The lines are those of a file in golden/, which KESTREL_RENEW_GOLDEN=1 writes anew."""
        golden = pathlib.Path(__file__).parent.parent / "golden" / name
        if os.environ.get("KESTREL_RENEW_GOLDEN"):
            golden.write_text("\n".join(lines) + "\n")
        self.assertEqual(lines, golden.read_text().splitlines())

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
