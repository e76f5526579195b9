#!/usr/bin/env python3
# Fails if any of the given byte patterns stands whole in a file. The driver searches images for
# these patterns, and a secure image carries the driver itself: a pattern kept whole in the
# driver's constant data would be found in every such image.
import sys


def main():
    if len(sys.argv) < 3:
        print("usage: check-absent.py FILE PATTERN...", file=sys.stderr)
        return 2
    data = open(sys.argv[1], "rb").read()
    found = [p for p in sys.argv[2:] if p.encode("latin-1") in data]
    for pattern in found:
        at = data.find(pattern.encode("latin-1"))
        print(f"{sys.argv[1]}: '{pattern}' stands whole at offset 0x{at:x}")
    if not found:
        print(f"{sys.argv[1]}: none of {len(sys.argv) - 2} patterns stands whole")
    return 1 if found else 0


sys.exit(main())
