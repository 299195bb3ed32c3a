# SPDX-License-Identifier: Apache-2.0
"""What each command prints with --json is as its schema in docs/json says, for every sample file."""

import json
import pathlib
import unittest

import jsonschema

from support.tool import PLAIN, SAMPLES, ToolTest, load, run

SCHEMAS = pathlib.Path(__file__).resolve().parent.parent / "docs" / "json"


class JsonOutput(ToolTest):
    def setUp(self):
        super().setUp()
        self.validators = {}
        for path in SCHEMAS.glob("*.schema.json"):
            schema = json.loads(path.read_text())
            jsonschema.Draft202012Validator.check_schema(schema)
            self.validators[path.name.split(".")[0]] = jsonschema.Draft202012Validator(schema)

    def check(self, command, *arguments, stdin=None):
        result = run(command, *arguments, "--json", stdin=stdin)
        out = json.loads(result.stdout)
        errors = [f"{list(error.path)}: {error.message}"
                  for error in self.validators[command].iter_errors(out)]
        self.assertEqual(errors, [], (command, arguments))
        return out

    def test_each_command_with_json_has_a_schema(self):
        text = run("--help").stdout.decode()
        commands = text[text.index("Commands:"):].split("\n")
        with_json = {name for name in (line.split()[0] for line in commands[1:]
                                       if line.startswith("  ") and line[2] != " ")
                     if "--json" in run(name, "--help").stdout.decode()}
        self.assertEqual(set(self.validators), with_json)
        for command in with_json - {"check"}:
            self.assertIn("error", self.check(command, self.scratch / "absent"))

    def test_files(self):
        seen = set()
        for file in sorted([*SAMPLES.glob("*.3gp"), *SAMPLES.glob("wild/*.3gp")]):
            with self.subTest(file=file.name):
                about = self.check("info", file)
                self.check("boxes", file)
                self.check("packets", file, "--hex")
                for track in about["tracks"]:
                    seen |= set(track)
        self.assertLessEqual({"codec", "profile", "profile_and_level", "sync_sample_count", "width",
                              "rotation", "hints_track", "samples_not_read", "created"}, seen)

    def test_folder(self):
        for name, data in [("plain.3gp", load("amrnb_plain")), ("hinted.3gp", load("h263_hinted")),
                           ("empty.3gp", b""), ("notes.txt", b"no clip")]:
            self.write(name, data)
        for options in [(), ("--quick",), ("--api", "class")]:
            about = self.check("check", self.scratch, self.scratch / "absent", *options)
            self.assertEqual(about["summary"]["skipped"], 1)

    def test_streams(self):
        for name, mode, _ in PLAIN:
            stream = self.extract(name, mode)
            self.check("inspect", "-", stdin=stream)
            self.assertIn("damage", self.check("inspect", "-", stdin=stream[:-1]))


if __name__ == "__main__":
    unittest.main()
