#!/usr/bin/env bash
# Counts non-blank, non-comment lines of the C/C++/CUDA and Python files git tracks, tests against the rest.
# Test lines: everything under Tests/, and Python files under a tests/ folder or named test_*.py.
# Comment lines: // lines and /* */ blocks in C/C++/CUDA, # lines in Python. A line with code and a
# trailing comment counts as code; Python docstrings count as code.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.cu' '*.h' '*.hpp' '*.cuh' '*.py' | python3 -c '
import os, re, sys

def code_lines(path):
    python = path.endswith(".py")
    n, in_block = 0, False
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            s = line.strip()
            if python:
                n += bool(s) and not s.startswith("#")
                continue
            if in_block:
                if "*/" not in s:
                    continue
                in_block, s = False, s.split("*/", 1)[1].strip()
            while s.startswith("/*"):
                if "*/" not in s:
                    in_block, s = True, ""
                else:
                    s = s.split("*/", 1)[1].strip()
            n += bool(s) and not s.startswith("//")
    return n

def is_test(path):
    name = os.path.basename(path)
    return path.startswith("Tests/") or (path.endswith(".py") and
        ("/tests/" in "/" + path or name.startswith("test_")))

tests = other = 0
for path in sys.stdin.read().split("\0"):
    if path and os.path.isfile(path):
        if is_test(path):
            tests += code_lines(path)
        else:
            other += code_lines(path)
print(f"test lines:  {tests}")
print(f"other lines: {other}")
print(f"share:       {100.0 * tests / max(other, 1):.1f} %")
'
