# SPDX-License-Identifier: Apache-2.0
"""What is written about Kestrel is so: quotes are the files' text, links lead somewhere, man pages
and completion know every option, and the examples of man pages run as written."""

import contextlib
import gzip
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from support.tool import Datagrams

TOOL = pathlib.Path(os.environ["KESTREL_TOOL"])
MAN = pathlib.Path(os.environ["KESTREL_MAN"])
ROOT = pathlib.Path(__file__).resolve().parent.parent
COMPLETION = ROOT / "tools" / "completion" / "kestrel"
SAMPLES = ROOT / "samples"


def tool_help(*command):
    return subprocess.run([TOOL, *command, "--help"], check=True, capture_output=True,
                          text=True).stdout


def listed(text, title):
    """The first words of the entries of one list in a help text."""
    body = re.search(rf"^{title}:\n((?:  .*\n)+)", text, re.M)
    return re.findall(r"^  (\S+)", body.group(1), re.M) if body else []


def commands():
    return listed(tool_help(), "Commands")


def options(*command):
    return [name for entry in listed(tool_help(*command), "Options") for name in entry.split(",")]


def complete(*words):
    """What Bash offers for the last of the words."""
    script = (f'source "{COMPLETION}"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
              '_kestrel "$1"; printf "%s\\n" "${COMPREPLY[@]}"')
    result = subprocess.run(["bash", "-c", script, "bash", TOOL, *words], check=True,
                            capture_output=True, text=True)
    return sorted(result.stdout.split())


def run_in(folder, line, shell=("bash", "-euo", "pipefail", "-c")):
    """Runs a command line as it is written, with the tool on the path, and returns what it prints.
    What it sends goes to ports that are free and that somebody listens on."""
    path = f"{TOOL.parent}:{os.environ['PATH']}"
    with contextlib.closing(Datagrams(2)) as here:
        line = line.replace(":5004", f":{here.port}")
        return subprocess.run([*shell, line], cwd=folder, check=True, capture_output=True,
                              text=True, env={**os.environ, "PATH": path}).stdout


class Layers(unittest.TestCase):
    """Includes follow the layers that the build files declare."""

    def check(self, *folder):
        return subprocess.run([ROOT / "scripts" / "layers", *folder], capture_output=True, text=True)

    def test_no_include_goes_up(self):
        self.assertEqual(self.check().returncode, 0, self.check().stderr)

    def test_a_planted_include_or_circle_is_found(self):
        for file, line, fault in (
                ("native/codec/avcc.cpp", '#include "boxes/box_base.h"', "codec may not use"),
                ("common/bytes.h", '#include <kestrel/../../native/orb_native.h>', "common may not use"),
                ("native/stream/plausible.cpp", '#include "../../companion/hinter/samples.h"', "stream may not use"),
                ("native/new/file.cpp", "#include <cstdint>", "is in no module")):
            with self.subTest(file=file), tempfile.TemporaryDirectory() as scratch:
                for folder in ("common", "native", "boxes", "propfile", "interface", "companion", "include"):
                    shutil.copytree(ROOT / folder, pathlib.Path(scratch, folder))
                planted = pathlib.Path(scratch, file)
                planted.parent.mkdir(exist_ok=True)
                planted.write_text(line + "\n" + (planted.read_text() if planted.exists() else ""))
                self.assertIn(fault, self.check(scratch).stderr)
        with tempfile.TemporaryDirectory() as scratch:
            for name, used in (("a", "b"), ("b", "a")):
                folder = pathlib.Path(scratch, name)
                folder.mkdir()
                (folder / "CMakeLists.txt").write_text(
                    f"kestrel_module({name} USES {used} SOURCES {name}.cpp)")
            self.assertIn("circle: a -> b -> a", self.check(scratch).stderr)


class ManPages(unittest.TestCase):
    def pages(self):
        yield "kestrel", ()
        for command in commands():
            yield f"kestrel-{command}", (command,)

    def test_each_command_has_a_page_with_every_option(self):
        for name, command in self.pages():
            with self.subTest(page=name):
                page = MAN / f"{name}.1"
                self.assertTrue(page.exists(), f"write docs/man/{name}.mdoc")
                text = subprocess.run(["mandoc", "-Tascii", page], check=True, capture_output=True,
                                      text=True).stdout
                text = re.sub(".\x08", "", text)  # bold and underlined
                entries = set(re.findall(r"^ {5}(?=-)(.*)$", text, re.M))
                documented = {word.strip(",") for entry in entries for word in entry.split()}
                self.assertEqual([], [option for option in options(*command)
                                      if option not in documented])
                for argument in listed(tool_help(*command), "Arguments"):
                    self.assertRegex(text, rf"(?m)^ {{5}}{re.escape(argument)}(?!\w)")

    def test_each_exported_function_has_a_page(self):
        names = {line.split()[1].split("@@")[0]
                 for library in ("kestrel", "kestrel_hosts")
                 for line in (ROOT / "cmake" / "exports" / f"{library}.64-bit").read_text()
                 .splitlines() if line.startswith("T ") and not line.startswith("T _Z")}
        with tempfile.TemporaryDirectory() as scratch:
            out = pathlib.Path(scratch) / "reference"
            package = pathlib.Path(scratch) / "package"
            documents = ROOT / "docs" / "packaged.py"
            subprocess.run([sys.executable, documents, package], check=True)
            subprocess.run([sys.executable, ROOT / "docs" / "man" / "make_function_pages.py", out,
                            package], check=True)
            pages = {page.name.removesuffix(".3.gz"): gzip.decompress(page.read_bytes()).decode()
                     for page in (out / "man3").glob("*.3.gz")}
            self.assertEqual(names - pages.keys(), set())
            self.assertEqual(pages["C3gpInterface"], ".so man3/kestrel_c3gpinterface.h.3\n")
            for header in (ROOT / "include" / "kestrel").glob("*.h"):
                page = out / "page.3"
                page.write_text(pages[f"kestrel_{header.name}"])
                lint = subprocess.run(["mandoc", "-Tlint", "-Wwarning", page], check=False,
                                      capture_output=True, text=True)
                self.assertEqual((lint.returncode, lint.stdout), (0, ""), header.name)
                shown = subprocess.run(["mandoc", "-Tutf8", "-Owidth=200", page], check=True,
                                       capture_output=True, text=True).stdout
                words = re.compile(r'\w{3,}|"')
                shown = re.sub(".\x08", "", shown)
                about, code = header.read_text().split("\n  private:")[0].split("#ifndef", 1)
                said = about.split("\n", 1)[1] + "".join(re.findall(r"(?m)^    [^(\n]*; +/[/*].*", code))
                self.assertEqual(set(words.findall(said)) - set(words.findall(shown)), set())
                self.assertIn(f"#include <kestrel/{header.name}>", shown)
            shutil.move(out / "html", package)
            subprocess.run([sys.executable, documents, "--check", package], check=True)

    def test_mandoc_finds_nothing_to_complain_of(self):
        for page in MAN.glob("*.1"):
            result = subprocess.run(["mandoc", "-Tlint", "-Wwarning", page], check=False,
                                    capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_examples_run_as_written(self):
        for source in sorted((ROOT / "docs" / "man").glob("*.mdoc")):
            lines = re.findall(r"^\.Dl (.*)$", source.read_text(), re.M)
            self.assertTrue(lines, f"{source.name} has no example")
            with tempfile.TemporaryDirectory() as scratch:
                shutil.copy(SAMPLES / "av_h263_amrnb_hinted.3gp", f"{scratch}/clip.3gp")
                shutil.copy(SAMPLES / "h263_plain.3gp", f"{scratch}/plain.3gp")
                upload = (SAMPLES / "wild" / "fragmented.3gp").read_bytes()
                pathlib.Path(scratch, "upload.mp4").write_bytes(upload[:len(upload) * 2 // 3])
                for line in lines:
                    with self.subTest(page=source.name, line=line):
                        run_in(scratch, line)


class Words(unittest.TestCase):
    def test_every_word_of_check_is_explained(self):
        footer = tool_help("check").split("Columns 2 and 3")[1]
        words = re.findall(r"^  ([a-z0-9-]+)  +\w", footer, re.M)
        self.assertGreater(len(words), 8)
        page = (ROOT / "docs" / "man" / "kestrel-check.mdoc").read_text().replace("\\-", "-")
        self.assertEqual(re.findall(r"^\.It Sy (\S+)", page, re.M), words)
        table = re.findall(r"^\| `([a-z0-9][a-z0-9-]*)` \|", (ROOT / "docs" / "report.md").read_text(), re.M)
        self.assertEqual(table, words)


class Readme(unittest.TestCase):
    def test_commands_run_as_written(self):
        lines = re.findall(r"^    build/x64/bin/(kestrel .*)$", (ROOT / "README.md").read_text(),
                           re.M)
        self.assertGreater(len(lines), 2)
        with tempfile.TemporaryDirectory() as scratch:
            (pathlib.Path(scratch) / "samples").symlink_to(SAMPLES)
            for line in lines:
                run_in(scratch, line)

    def test_shows_what_a_command_prints(self):
        text = (ROOT / "README.md").read_text()
        command, output = re.search(
            r"^    build/x64/bin/kestrel (.*)\n\nprints\n\n```text\n((?:.*\n)+?)```", text, re.M).groups()
        printed = subprocess.run([TOOL, *command.split()], cwd=ROOT, check=False,
                                 capture_output=True, text=True).stdout
        self.assertEqual(printed, output)


class Guides(unittest.TestCase):
    def run_all(self, folder, document, section):
        """What each indented block of a section prints."""
        text = (ROOT / "docs" / document).read_text().split(f"\n{section}")[1].split("\n## ")[0]
        # Of a pipe, the last command decides: check fails where files do not play.
        return [run_in(folder, block, ("bash", "-euc"))
                for block in re.findall(r"(?m)^((?:    .*\n)+)", text)]

    def test_commands_run_as_written(self):
        with tempfile.TemporaryDirectory() as scratch:
            folder = pathlib.Path(scratch)
            for name in ("clip.3gp", "more/plain.3gp", "clips/a.3gp", "clips/sub folder/-b.3gp"):
                (folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(SAMPLES / "h263_plain.3gp", folder / name)
            (folder / "hinted").mkdir()
            (folder / "hinted" / ".kestrel-abcdefghijkl").touch()
            self.assertEqual(self.run_all(folder, "report.md", "## `kestrel report`"), [""])
            self.assertTrue((folder / "report.html").exists())
            lines, to_hint = self.run_all(folder, "report.md", "## `kestrel check`")
            self.assertEqual((lines.count("\n"), to_hint), (2, "hint\tmore/plain.3gp\n"))
            self.run_all(folder, "at-scale.md", "## One machine")
            self.assertEqual((folder / "verdicts.tsv").read_text().count("\n"), 2)
            self.assertEqual({str(path.relative_to(folder / "hinted"))
                              for path in (folder / "hinted").rglob("*") if path.is_file()},
                             {"a.3gp", "sub folder/-b.3gp"})


class Completion(unittest.TestCase):
    def test_offers_what_the_help_lists(self):
        self.assertEqual(complete(""), sorted(commands() + options()))
        for command in commands():
            self.assertEqual(complete(command, "-"), sorted(options(command)), command)

    def test_offers_what_fits_what_was_begun(self):
        cases = {
            ("ex",): ["extract"],
            ("extract", "--ou"): ["--output"],
            ("extract", "clip.3gp", "ar", "--api", ""): ["class", "function"],
            ("extract", "clip.3gp", "vr", "--sync", "n"): ["nearest", "next"],
            ("extract", "--output", ""): [],  # a file, which Bash looks up
            ("extract", ""): [],
            ("nonsense", "--"): [],
        }
        for words, offered in cases.items():
            self.assertEqual(complete(*words), offered, words)


class Documents(unittest.TestCase):
    documents = [ROOT / name for name in ("README.md", "CHANGELOG.md", "CONTRIBUTING.md",
                                          "SECURITY.md")] + sorted((ROOT / "docs").glob("*.md"))

    def test_links_lead_somewhere(self):
        for document in self.documents:
            text = re.sub(r"(?s)<!-- package.*?-->", "", document.read_text())
            for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text):
                self.assertTrue((document.parent / link).exists(), f"{document.name}: {link}")

    def test_every_source_file_names_the_licence(self):
        sources = [file for folder in ROOT.iterdir() if folder.is_dir() and folder.name != "build"
                   for file in folder.rglob("*") if file.suffix in (".c", ".cpp", ".h", ".py", ".cmake")
                   or file.name == "CMakeLists.txt"]
        self.assertGreater(len(sources), 300)
        self.assertEqual([], [str(file) for file in sources
                              if "SPDX-License-Identifier: Apache-2.0" not in file.read_text()[:80]])

    def test_every_document_is_in_the_index(self):
        index = (ROOT / "docs" / "index.md").read_text()
        for document in (ROOT / "docs").glob("*.md"):
            if document.name != "index.md":
                self.assertIn(f"({document.name})", index)

    def test_quotes_are_the_text_of_the_files(self):
        """A quote is an indented block after a line that ends with the link of its file."""
        text = (ROOT / "README.md").read_text()
        quotes = re.findall(r"\]\((examples/\S+)\)[^\n]*:\n\n((?:(?:    .*)?\n)+)", text)
        self.assertEqual({file for file, _ in quotes},
                         {f"examples/{path.name}" for path in (ROOT / "examples").glob("*.c*")})
        for file, quote in quotes:
            lines = re.sub("(?m)^    ", "", quote).strip("\n").split("\n")
            whole = (ROOT / file).read_text().split("\n")
            margin = {len(line) - len(line.lstrip()) for line in whole if line.strip() ==
                      lines[0].strip()}
            runs = (["\n".join(line[cut:] for line in whole[at:at + len(lines)])
                     for at in range(len(whole)) for cut in margin])
            self.assertIn("\n".join(lines), runs, file)


if __name__ == "__main__":
    unittest.main()
