#!/usr/bin/env python3
"""Checks that a built UEFI image is a PE32 file for IA32 of the expected subsystem, with an
entry point and a base relocation table (gnu-efi links at address 0, so the loader must be able
to relocate it). Usage: check-pe.py IMAGE SUBSYSTEM; exit 0 when it is, 1 with the reason when not."""
import struct
import sys

MACHINE_I386 = 0x014C
PE32_MAGIC = 0x010B
SUBSYSTEM_NAMES = {10: "EFI application", 11: "EFI boot service driver", 12: "EFI runtime driver"}
BASE_RELOCATION_DIRECTORY = 5


def check(path, expected_subsystem):
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 0x40 or data[:2] != b"MZ":
        return "no MZ header"
    (pe_offset,) = struct.unpack_from("<I", data, 0x3C)
    if pe_offset + 24 > len(data) or data[pe_offset:pe_offset + 4] != b"PE\0\0":
        return "no PE signature at 0x%X" % pe_offset
    machine, sections, _, _, _, optional_size, _ = struct.unpack_from("<HHIIIHH", data, pe_offset + 4)
    if machine != MACHINE_I386:
        return "machine 0x%04X, not IA32" % machine
    if sections == 0:
        return "no sections"
    optional = pe_offset + 24
    if optional_size < 96 or optional + optional_size > len(data):
        return "optional header of %d bytes" % optional_size
    (magic,) = struct.unpack_from("<H", data, optional)
    if magic != PE32_MAGIC:
        return "optional header magic 0x%04X, not PE32" % magic
    (entry,) = struct.unpack_from("<I", data, optional + 16)
    if entry == 0:
        return "no entry point"
    (subsystem,) = struct.unpack_from("<H", data, optional + 68)
    if subsystem != expected_subsystem:
        return "subsystem %d (%s), expected %d (%s)" % (
            subsystem, SUBSYSTEM_NAMES.get(subsystem, "?"), expected_subsystem,
            SUBSYSTEM_NAMES.get(expected_subsystem, "?"))
    (directories,) = struct.unpack_from("<I", data, optional + 92)
    if directories <= BASE_RELOCATION_DIRECTORY:
        return "no base relocation directory"
    _, reloc_size = struct.unpack_from("<II", data, optional + 96 + 8 * BASE_RELOCATION_DIRECTORY)
    if reloc_size == 0:
        return "empty base relocation directory"
    return None


def main():
    if len(sys.argv) != 3:
        print(__doc__)
        return 2
    path, expected = sys.argv[1], int(sys.argv[2], 0)
    try:
        problem = check(path, expected)
    except OSError as error:
        problem = str(error)
    if problem:
        print("%s: %s" % (path, problem))
        return 1
    print("%s: PE32 IA32, subsystem %d (%s)" % (path, expected, SUBSYSTEM_NAMES.get(expected, "?")))
    return 0


if __name__ == "__main__":
    sys.exit(main())
