#!/usr/bin/env python3
"""Makes sources of the C and C++ blocks of Markdown files: extract_blocks.py FOLDER FILE...

A block is named after its file and its heading, with a number from the second one below it on:
guide_a_list, guide_the_service_side_2. C becomes NAME.c and a program NAME.cpp as it stands. Anything else becomes
NAME.inc, in a namespace of that name, for a test to include.
"""

import pathlib
import re
import sys

folder = pathlib.Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)


def name_of(*words):
    return re.sub(r"\W+", "_", " ".join(words).lower()).strip("_")


for path in map(pathlib.Path, sys.argv[2:]):
    text = path.read_text(encoding="utf-8")
    heading = ""
    count = {}
    for found in re.finditer(r"^#+ ([^\n]*)$|^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        if found[1]:
            heading = found[1]
            continue
        if found[2] not in ("c", "cpp"):
            continue
        name = name_of(path.stem, heading)
        count[name] = count.get(name, 0) + 1
        if count[name] > 1:
            name += f"_{count[name]}"
        line = text.count("\n", 0, found.start(3)) + 1
        if found[2] == "c" or "int main(" in found[3]:
            (folder / f"{name}.{found[2]}").write_text(f'#line {line} "{path}"\n{found[3]}', encoding="utf-8")
            continue
        lines = found[3].splitlines()
        code = next(i for i, each in enumerate(lines) if each and not each.startswith("#include"))
        (folder / f"{name}.inc").write_text(
            "\n".join(lines[:code] + [f"namespace {name} {{", f'#line {line + code} "{path}"'] + lines[code:])
            + "\n}\n", encoding="utf-8")
