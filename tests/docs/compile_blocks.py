#!/usr/bin/env python3
"""Compiles every C and C++ block of the given Markdown files: compile_blocks.py CC CXX FLAGS FILE..."""

import re
import shlex
import subprocess
import sys

compilers = {
    "c": [sys.argv[1], "-xc", "-std=c99", "-pedantic"],
    "cpp": [sys.argv[2], "-xc++", "-std=c++17", "-pedantic"],
}
flags = ["-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-"] + shlex.split(sys.argv[3])
count = {}
failures = 0
for path in sys.argv[4:]:
    text = open(path, encoding="utf-8").read()
    for block in re.finditer(r"^```(c|cpp)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        line = text.count("\n", 0, block.start(2)) + 1
        code = f'#line {line} "{path}"\n' + block[2]
        failures += subprocess.run(compilers[block[1]] + flags, input=code, text=True).returncode != 0
        count[path] = count.get(path, 0) + 1
for path in sys.argv[4:]:
    print(f"{path}: {count.get(path, 0)} blocks")
sys.exit(failures != 0 or not all(count.get(path) for path in sys.argv[4:]))
