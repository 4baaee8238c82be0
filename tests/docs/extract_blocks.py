#!/usr/bin/env python3
"""Makes sources of the code blocks of Markdown files: extract_blocks.py FOLDER FILE...

The name of a block consists of those of its file and heading, and of its number from the second one on:
guide_a_list, guide_the_service_side_2. C becomes NAME.c, Python NAME.py and a C++ program NAME.cpp. Other
C++ goes to blocks.inc, in a namespace with the name of the block.
"""

import pathlib
import re
import sys

folder = pathlib.Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)
included = []
for path in map(pathlib.Path, sys.argv[2:]):
    text = path.read_text(encoding="utf-8")
    heading, count = "", {}
    for found in re.finditer(r"^#+ ([^\n]*)$|^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        heading = found[1] or heading
        suffix = {"c": "c", "cpp": "cpp", "python": "py"}.get(found[2])
        if suffix is None:
            continue
        name = re.sub(r"\W+", "_", f"{path.stem} {heading}".lower()).strip("_")
        count[name] = count.get(name, 0) + 1
        name += f"_{count[name]}" if count[name] > 1 else ""
        line = text.count("\n", 0, found.start(3)) + 1
        if suffix != "cpp" or "int main(" in found[3]:
            (folder / f"{name}.{suffix}").write_text(f'#line {line} "{path}"\n{found[3]}', encoding="utf-8")
            continue
        lines = found[3].splitlines()
        code = next(i for i, each in enumerate(lines) if each and not each.startswith("#include"))
        included += lines[:code] + [f"namespace {name} {{", f'#line {line + code} "{path}"'] + lines[code:] + ["}"]
# A header may appear twice, because every block is complete.
(folder / "blocks.inc").write_text("\n".join(["// NOLINTBEGIN", *included, "// NOLINTEND", ""]), encoding="utf-8")
