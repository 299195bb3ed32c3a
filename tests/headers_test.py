# SPDX-License-Identifier: Apache-2.0
"""Each public header compiles by itself in the standards that it names, and so do the examples in
its first comment; the loops of hosts.h are those of the example that plays a pipe."""

import itertools
import os
import pathlib
import re
import subprocess
import textwrap
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADERS = sorted((ROOT / "include" / "kestrel").glob("*.h"))
COMPILERS = {"c": os.environ.get("KESTREL_CC", "cc"), "c++": os.environ.get("KESTREL_CXX", "c++")}

# What stands around the examples of a header; %s is the example.
C_PLAYER = """
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
"""
AROUND = {
    "c3gpinterface.h": """
        void consume(const unsigned char*, unsigned);
        unsigned play(KST_IOSTREAM_CALLBACK_INTERFACE* callbacks) {
            unsigned char buffer[1000];
            %s
            return status;
        }""",
    "hinter.h": C_PLAYER + """
        #include <kestrel/hosts.h>
        void hint(kst_host* upload, kst_host* hinted) { %s }""",
    "packer.h": C_PLAYER + """
        #include <kestrel/hosts.h>
        #include <kestrel/kestrel.h>
        int pack(mm_Interface* handle, kst_host* file) {
            unsigned char buffer[KST_LARGEST_CHUNK];
            int32_t status;
            int result;
            kst_pack_stream about;
            about.struct_size = sizeof about;
            %s
            return status == KST_END_OF_FILE ? result : -1;
        }""",
    "probe.h": C_PLAYER + """
        #include <kestrel/hosts.h>
        void look(kst_host* host) { %s }""",
    "kestrel.h": C_PLAYER + """
        void consume(const unsigned char*, uint32_t);
        int32_t play(KST_IOSTREAM_CALLBACK_INTERFACE* callbacks) {
            %s
            return status;
        }""",
    "native_records.h": C_PLAYER + """
        #ifdef __cplusplus
        using namespace kestrel;
        #endif
        bool is_video(const void* stream, size_t count) { %s }""",
}


def standards(text):
    """The standards that a header names: {"c": "c11", "c++": "c++17"}."""
    said = re.sub(r"\n(//| \*)", "", text).split("#ifndef")[0]
    match = re.search(r"Usable from (?:(C11) and )?(C\+\+(?:11|14|17|20))\.", said)
    return {"c++" if name.startswith("C++") else "c": name.lower()
            for name in (match.groups() if match else ()) if name}


def examples(text):
    """The indented blocks of the first comment, without their margin."""
    comment = re.sub(r"(?m)^(?:/\*| \*/?|//) ?", "", text.split("#ifndef")[0])
    return [textwrap.dedent(block).strip("\n")
            for block in re.findall(r"(?:^    .*\n|^\n(?=    ))+", comment, re.M)]


def compile_text(language, standard, text):
    return subprocess.run(
        [COMPILERS[language], "-x", language, f"-std={standard}", "-pedantic", "-Wall", "-Wextra",
         "-Werror", "-fsyntax-only", f"-I{ROOT / 'include'}", "-"],
        input=text, capture_output=True, text=True)


class Headers(unittest.TestCase):
    def assert_compiles(self, language, standard, text):
        result = compile_text(language, standard, text)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_each_compiles_in_the_standards_that_it_names(self):
        for header in HEADERS:
            named = standards(header.read_text())
            self.assertIn("c++", named, f"{header.name} names no standard")
            for language, standard in named.items():
                with self.subTest(header=header.name, standard=standard):
                    self.assert_compiles(language, standard,
                                         f"#include <kestrel/{header.name}>\n" * 2 + "extern int unused;\n")

    def test_examples_compile(self):
        for header in HEADERS:
            found = examples(header.read_text())
            if header.name == "hosts.h":  # see the next test
                continue
            self.assertEqual(header.name in AROUND, bool(found), header.name)
            for example, named in itertools.product(found, standards(header.read_text()).items()):
                with self.subTest(header=header.name, standard=named[1]):
                    text = f"#include <stdbool.h>\n#include <kestrel/{header.name}>\n" + AROUND[
                        header.name].replace("%s", example)
                    self.assert_compiles(*named, text)

    def test_loops_for_a_file_that_arrives_are_those_of_the_example(self):
        whole = (ROOT / "examples" / "play_pipe.c").read_text()
        loops = examples((ROOT / "include" / "kestrel" / "hosts.h").read_text())
        self.assertEqual(len(loops), 2)
        for loop in loops:
            self.assertIn(textwrap.indent(loop, "    "), whole)


if __name__ == "__main__":
    unittest.main()
