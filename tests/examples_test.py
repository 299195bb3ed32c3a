# SPDX-License-Identifier: Apache-2.0
"""The examples, played against what the command-line tool delivers and against the truth."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BIN = pathlib.Path(os.environ["KESTREL_EXAMPLES"])
TOOL = os.environ["KESTREL_TOOL"]
SAMPLES = pathlib.Path(os.environ["KESTREL_SAMPLES"])
ROOT = pathlib.Path(__file__).resolve().parent.parent


def run(*command, **more):
    return subprocess.run([*map(str, command)], capture_output=True, timeout=60, check=False, **more)


def unpacked(stream):
    return run(TOOL, "unpack", "-", "-o", "-", input=stream).stdout


class Examples(unittest.TestCase):
    def assert_plays(self, result, truth):
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(unpacked(result.stdout), (SAMPLES / "truth" / truth).read_bytes())

    def test_smallest_host(self):
        for name, mode, truth in [("amrnb_plain", "ar", "amrnb.amr"),
                                  ("amrwb_hinted", "ar", "amrwb.amr"),
                                  ("h263_hinted", "vr", "h263.h263")]:
            self.assert_plays(run(BIN / "smallest_host", SAMPLES / f"{name}.3gp", mode), truth)

    def test_pipe(self):
        """Writes to the player in small steps with rests, so that it meets data that is not there
        yet."""
        slowly = 'for _ in {0..16}; do head -c "$2"; sleep 0.01; done <"$1" | "$3" "$4"'
        for name, mode, truth in [("amrnb_plain_mdat_first", "ar", "amrnb.amr"),
                                  ("av_h263_amrnb_hinted", "vr", "h263.h263"),
                                  ("h263_plain", "vr", "h263.h263")]:
            with self.subTest(name):
                file = SAMPLES / f"{name}.3gp"
                self.assert_plays(run("bash", "-c", slowly, "slowly", file,
                                      file.stat().st_size // 16, BIN / "play_pipe", mode), truth)

    def test_pipe_plays_while_the_file_arrives(self):
        """Half of a file whose movie box comes first is played before the rest is there."""
        data = (SAMPLES / "h263_plain.3gp").read_bytes()
        player = subprocess.Popen([BIN / "play_pipe", "vr"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        player.stdin.write(data[:len(data) // 2])
        player.stdin.flush()
        early = player.stdout.read(4096)  # would wait for ever if the rest were needed
        player.stdin.write(data[len(data) // 2:])
        player.stdin.close()
        stream = early + player.stdout.read()
        player.stdout.close()
        self.assertEqual(player.wait(timeout=60), 0)
        self.assertEqual(unpacked(stream), (SAMPLES / "truth" / "h263.h263").read_bytes())

    def test_class_api_seeks(self):
        file = SAMPLES / "h263_hinted.3gp"
        for milliseconds in (0, 700, 1999):
            seek = run(BIN / "class_seek", file, "vr", milliseconds)
            tool = run(TOOL, "extract", file, "vr", "--api", "class", "--from", milliseconds)
            self.assertEqual((seek.returncode, tool.returncode), (0, 0), seek.stderr)
            self.assertEqual(seek.stdout, tool.stdout)
        self.assert_plays(run(BIN / "class_seek", file, "vr", 0), "h263.h263")

    def test_upload_of_any_form_plays_on_both_apis(self):
        for clip, mode, truth in [("wild/fragmented.3gp", "vr", "h263.h263"),
                                  ("wild/three_gpp2.3g2", "vr", "h263.h263"),
                                  ("amrnb_plain.3gp", "ar", "amrnb.amr")]:
            with self.subTest(clip), tempfile.TemporaryDirectory() as folder:
                streams = [pathlib.Path(folder) / api for api in ("function", "class")]
                result = run(BIN / "hint_upload", mode, *streams,
                             input=(SAMPLES / clip).read_bytes())
                self.assertEqual(result.returncode, 0, result.stderr)
                for stream in streams:
                    self.assertEqual(unpacked(stream.read_bytes()),
                                     (SAMPLES / "truth" / truth).read_bytes())
        result = run(BIN / "hint_upload", "ar", os.devnull, os.devnull, input=b"no clip")
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"no movie box", result.stderr)

    def test_what_cannot_be_played_is_reported(self):
        plain = SAMPLES / "h263_plain.3gp"
        cut = plain.read_bytes()[:-1000]
        for result, text in [
                (run(BIN / "class_seek", plain, "vr", 0), b"Hint tracks"),
                (run(BIN / "class_seek", SAMPLES / "h263_hinted.3gp", "vr", 2001), b"imestamp"),
                (run(BIN / "smallest_host", plain, "ar"), b"unknown failure"),
                (run(BIN / "smallest_host", SAMPLES / "none.3gp", "ar"), b"No such file"),
                (run(BIN / "play_pipe", "vr", input=cut), b"play_pipe: the file is cut")]:
            self.assertEqual(result.returncode, 1)
            self.assertIn(text, result.stderr)
        clip = SAMPLES / "h263_cif_hinted.3gp"
        for program in ([BIN / "smallest_host", clip, "vr"], [BIN / "class_seek", clip, "vr", "0"],
                        [BIN / "play_pipe", "vr"], [BIN / "hint_upload", "vr", "/dev/full", "/dev/full"]):
            with clip.open("rb") as file, open("/dev/full", "wb") as full:
                result = subprocess.run(program, stdin=file, stdout=full, stderr=subprocess.PIPE)
            self.assertEqual(result.returncode, 1)
            self.assertIn(b"the output could not be written", result.stderr)


class ReaderOfNativeStreams(unittest.TestCase):
    """examples/read_stream.py knows nothing but docs/native-format.md."""

    def read(self, stream):
        result = run(sys.executable, ROOT / "examples" / "read_stream.py", "-", "/dev/stdout",
                     input=stream)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def test_rebuilds_every_sample_as_unpack_does(self):
        streams = 0
        for file in sorted([*SAMPLES.glob("*.3gp"), *SAMPLES.glob("wild/*.*")]):
            for mode, api in ((mode, api) for mode in ("ar", "vr") for api in ("function", "class")):
                stream = run(TOOL, "extract", file, mode, "--api", api, "-o", "-").stdout
                if len(stream) <= 68:  # a file that this API does not play
                    continue
                with self.subTest(file=file.name, mode=mode, api=api):
                    self.assertEqual(self.read(stream), unpacked(stream))
                    streams += 1
        self.assertGreater(streams, 50)

    def test_rebuilds_the_streams_of_the_page(self):
        page = (ROOT / "docs" / "native-format.md").read_text()
        examples = re.findall(r"### .*, (\d+) bytes\n\n((?:    .*\n)+)", page)
        self.assertEqual(len(examples), 2)
        for size, lines in examples:
            stream = b""
            for at, hexadecimal, zeros in re.findall(
                    r"^ *(\d+)  (?:((?:[0-9a-f]{2} )*[0-9a-f]{2})(?= {2}|$)|\(00 \* (\d+)\))", lines, re.M):
                self.assertEqual(len(stream), int(at))
                stream += bytes(int(zeros)) if zeros else bytes.fromhex(hexadecimal)
            self.assertEqual(len(stream), int(size))
            self.assertEqual(self.read(stream), unpacked(stream))


class RunSlice(unittest.TestCase):
    """A list in slices, as the tasks of a batch job."""

    TASKS = 2

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        (self.folder / "a b").mkdir()
        self.names = [f"a b/{i}.3gp" for i in range(9)] + ["-last.3gp"]
        for name in self.names:
            (self.folder / name).write_bytes((SAMPLES / "h263_plain.3gp").read_bytes())
        (self.folder / "list").write_text("".join(f"./{name}\n" for name in self.names))

    def start(self, task, *arguments, tool=pathlib.Path(TOOL).parent):
        env = {**os.environ, "PATH": f"{tool}:{os.environ['PATH']}",
               "JOB_COMPLETION_INDEX": str(task), "TASKS": str(self.TASKS)}
        return subprocess.Popen([ROOT / "examples" / "at-scale" / "run-slice", *arguments],
                                cwd=self.folder, env=env, stderr=subprocess.DEVNULL,
                                start_new_session=True)

    def run_all(self, *arguments):
        return [self.start(task, *arguments).wait(timeout=120) for task in range(self.TASKS)]

    def test_a_killed_task_is_completed_by_another_run(self):
        killed = self.start(0, "hint", "list", "out")
        while killed.poll() is None and not list((self.folder / "out").glob("a b/*")):
            time.sleep(0.01)
        with contextlib.suppress(ProcessLookupError):  # it may have ended
            os.killpg(killed.pid, signal.SIGKILL)
        killed.wait()
        self.assertEqual(self.run_all("hint", "list", "out"), [0, 0])
        # By their names: a killed process leaves its temporary file beside them.
        whole = run(TOOL, "check", *(self.folder / "out" / name for name in self.names))
        self.assertEqual((whole.returncode, whole.stdout.count(b"plays\tplays")),
                         (0, len(self.names)))

    def test_the_exit_status_is_the_result(self):
        (self.folder / self.names[1]).write_bytes(b"no clip")
        for command in ("hint", "check"):
            self.assertEqual(self.run_all(command, "list", command), [0, 1])
        reports = [(self.folder / "check" / f"{task}.tsv").read_text() for task in range(self.TASKS)]
        self.assertEqual([report.count("\n") for report in reports], [5, 5])
        self.assertEqual(self.start(self.TASKS, "check", "list", "check").wait(), 2)
        self.assertEqual(self.start(0, "check", "none", "check").wait(), 2)

    def test_a_task_without_verdicts_could_not_run(self):
        stand_in = self.folder / "bin" / "kestrel"
        stand_in.parent.mkdir()
        stand_in.touch(0o755)
        for ends, options in [("kill -9 $$", []), ("exit 127", []),
                              (f'exec "{TOOL}" "$@"', ["--nosuch"])]:
            stand_in.write_text(f"#!/bin/sh\n{ends}\n")
            for command in ("hint", "check"):
                with self.subTest(command=command, ends=ends):
                    task = self.start(0, command, "list", "out", *options, tool=stand_in.parent)
                    self.assertEqual(task.wait(timeout=60), 2)
                    self.assertEqual(list((self.folder / "out").rglob("*.*")), [])


if __name__ == "__main__":
    unittest.main()
