#!/usr/bin/env python3
"""Checks that a built UEFI image is a PE32 file for IA32 of the expected subsystem, with an
entry point and a base relocation table (gnu-efi links at address 0, so the loader must be able
to relocate it). --flat: also image base 0 and each section loaded at its file offset.
--launcher-slot CAPACITY: also the two GUIDs at 0x220 and 0x230, then the empty slot
"$_KOBALT_DRV_IMG" of that capacity, in one section.
Usage: check-pe.py IMAGE SUBSYSTEM [--flat] [--launcher-slot CAPACITY]; exit 0 when it is, 1
with the reason when not."""
import argparse
import struct
import sys

MACHINE_I386 = 0x014C
PE32_MAGIC = 0x010B
SUBSYSTEM_NAMES = {10: "EFI application", 11: "EFI boot service driver", 12: "EFI runtime driver"}
BASE_RELOCATION_DIRECTORY = 5
LOADED_IMAGE_GUID = bytes.fromhex("a1311b5b6295d2118e3f00a0c969723b")
DIRECTORY_GUID = bytes.fromhex("69440d538356ad4eaf7954d1882b8a35")
SLOT_START, SLOT_DATA = 0x220, 0x258


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


def sections_of(data):
    """(name, address, size in memory, size in the file, file offset) of each section."""
    (pe_offset,) = struct.unpack_from("<I", data, 0x3C)
    _, count, _, _, _, optional_size, _ = struct.unpack_from("<HHIIIHH", data, pe_offset + 4)
    for at in range(pe_offset + 24 + optional_size, pe_offset + 24 + optional_size + 40 * count, 40):
        yield struct.unpack_from("<8sIIII", data, at)


def check_flat(data):
    (pe_offset,) = struct.unpack_from("<I", data, 0x3C)
    (image_base,) = struct.unpack_from("<I", data, pe_offset + 24 + 28)
    moved = ["%s at 0x%X from file offset 0x%X" % (name.rstrip(b"\0").decode(), address, offset)
             for name, _, address, _, offset in sections_of(data) if address != offset]
    return "image base 0x%X, not 0" % image_base if image_base != 0 else ("section " + moved[0] if moved else None)


def check_launcher_slot(data, capacity):
    expected = [(0x220, LOADED_IMAGE_GUID, "the loaded image GUID"), (0x230, DIRECTORY_GUID, "the directory GUID"),
                (0x240, b"$_KOBALT_DRV_IMG", "the slot tag"),
                (0x250, struct.pack("<II", capacity, 0), "capacity 0x%X and size 0" % capacity)]
    for offset, value, what in expected:
        if data[offset:offset + len(value)] != value:
            return "%s not at 0x%X" % (what, offset)
    for _, memory_size, address, file_size, _ in sections_of(data):
        if address <= SLOT_START < address + memory_size:
            return None if min(memory_size, file_size) >= SLOT_DATA - address + capacity else "the slot's section ends inside it"
    return "no section holds 0x%X" % SLOT_START


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("image")
    parser.add_argument("subsystem", type=lambda text: int(text, 0))
    parser.add_argument("--flat", action="store_true")
    parser.add_argument("--launcher-slot", type=lambda text: int(text, 0))
    options = parser.parse_args()
    path, expected = options.image, options.subsystem
    try:
        problem = check(path, expected)
        with open(path, "rb") as f:
            data = f.read()
        if problem is None and options.flat:
            problem = check_flat(data)
        if problem is None and options.launcher_slot is not None:
            problem = check_launcher_slot(data, options.launcher_slot)
    except OSError as error:
        problem = str(error)
    if problem:
        print("%s: %s" % (path, problem))
        return 1
    print("%s: PE32 IA32, subsystem %d (%s)%s%s" % (path, expected, SUBSYSTEM_NAMES.get(expected, "?"),
                                                  ", loaded at its file offsets" if options.flat else "",
                                                  ", launcher slot in place" if options.launcher_slot else ""))
    return 0


if __name__ == "__main__":
    sys.exit(main())
