#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes a C++ source that holds a file's bytes as a zero-terminated array:
embed.py INPUT SYMBOL OUTPUT."""
import sys

data = open(sys.argv[1], "rb").read()
symbol = sys.argv[2]
with open(sys.argv[3], "w") as out:
    out.write(f"extern const char {symbol}[];\nconst char {symbol}[] = {{\n")
    for i in range(0, len(data), 16):
        out.write(", ".join(str(b - 256 if b > 127 else b) for b in data[i:i + 16]) + ",\n")
    out.write("0};\n")
