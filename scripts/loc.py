#!/usr/bin/env python3
"""Lines of C++ and Python per top-level directory that are neither blank nor
only a comment, and the share of test code (tests/ and fuzz/) among them.

usage: scripts/loc.py [repository root]
"""
import os
import sys

CPP = (".cpp", ".h", ".hpp", ".cc")


def count(path):
    """Counts the lines of one file that hold code."""
    n, in_block, python = 0, False, path.endswith(".py")
    with open(path, errors="replace") as f:
        for line in f:
            s = line.strip()
            if python:
                n += bool(s) and not s.startswith("#")
                continue
            if in_block:
                if "*/" not in s:
                    continue
                in_block, s = False, s.split("*/", 1)[1].strip()
            elif s.startswith("/*"):
                if "*/" not in s:
                    in_block = True
                    continue
                s = s.split("*/", 1)[1].strip()
            n += bool(s) and not s.startswith("//")
    return n


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")
    groups = {}
    for d, dirs, files in os.walk(root):
        rel = os.path.relpath(d, root)
        top = rel.split(os.sep)[0]
        if rel != "." and (top.startswith(".") or top.startswith("build")):
            dirs[:] = []
            continue
        for f in files:
            if f.endswith(CPP) or f.endswith(".py"):
                key = top if top != "." else "(root)"
                groups[key] = groups.get(key, 0) + count(os.path.join(d, f))
    test = groups.get("tests", 0) + groups.get("fuzz", 0)
    total = sum(groups.values())
    for k in sorted(groups):
        print(f"{k:10s} {groups[k]:6d}")
    print(f"test share {test}/{total} = {100.0 * test / max(total, 1):.1f} %")


if __name__ == "__main__":
    main()
