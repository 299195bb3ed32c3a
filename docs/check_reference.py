#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reports public functions that have no comment in the API reference.

Usage: check_reference.py XML-FOLDER
"""
import pathlib
import sys
import xml.etree.ElementTree

# What needs no comment of its own: special members, and the overloads for each record that the
# comment of their header describes.
EXEMPT = {"C3gpInterface", "~C3gpInterface", "operator=", "visit_fields"}


def described(member):
    return any("".join(member.find(text).itertext()).strip()
               for text in ("briefdescription", "detaileddescription"))


def main():
    seen = 0
    silent = set()
    for file in pathlib.Path(sys.argv[1]).glob("*.xml"):
        for member in xml.etree.ElementTree.parse(file).iter("memberdef"):
            location = member.find("location")
            if member.get("kind") != "function" or member.get("prot") != "public":
                continue
            if "include/kestrel/" not in location.get("file"):
                continue
            name = member.findtext("name")
            seen += 1
            if name not in EXEMPT and not described(member):
                silent.add(f"{location.get('file')}:{location.get('line')}: {name}")
    print(f"{seen} functions in the reference")
    for place in sorted(silent):
        print(f"{place} has no comment", file=sys.stderr)
    return 1 if silent or seen == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
