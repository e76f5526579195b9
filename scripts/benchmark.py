#!/usr/bin/env python3
"""Side-by-side benchmark: zaprom-sim and flashrom's dummy programmer on the same update jobs.

Builds an old flash and a new image for 4, 8, 16 and 32 MB parts of 4 KB blocks and a 32 MB
part of 64 KB blocks, in three kinds: every block changed, ten scattered blocks changed, nothing
changed. The firmware-guarded ranges (NV storage, FTW) stay equal in each pair, since the tool
leaves them alone; a changed block keeps its first 256 bytes (descriptor, BVDT head), so both
images carry the same identity. Each job runs once through zaprom-sim and once through
`flashrom -p dummy:emulate=CHIP,image=FLASH -w NEW -V`; it prints wall and CPU (user+sys) time,
peak resident memory, erases and programs (in blocks of the machine's table) of both, the
ratios, and the goals against their limits. A missed goal is printed, not an error.

zaprom-sim counts come from its --stats file. flashrom's come from its verbose log, where each
erase block of the chosen eraser shows as START-END:FLAGS, E for an erase and W for a write.
flashrom emulates only some parts: SST25VF032B (4 MB), MX25L6436 (8 MB), W25Q128FV (16 MB).
Its VARIABLE_SIZE chip erases only the whole chip, so 32 MB shows n/a for flashrom. A 32 MB part
of 4 KB blocks has 8192 blocks, more than the tool's block table takes: it refuses that part.

    python3 scripts/benchmark.py [--build build] [--work build/bench] [--no-flashrom]

The model of the physical minimum, from the typical figures of the W25Q128JV data sheet (erase
45 ms per 4 KB sector, 120 ms per 32 KB, 150 ms per 64 KB block; program 0.4 ms per 256-byte
page; read 160 ns per byte, 8 clocks at 50 MHz), for the blocks of the firmware's table: every
block the tool may write is read once to compare; every changed block is erased once,
programmed page by page once and read once to verify. Protected blocks are neither read nor
written. The column "model" is zaprom-sim's modelled time over that minimum.
"""
import argparse
import json
import os
import random
import shutil
import subprocess
import sys
import time
from pathlib import Path

MB = 1 << 20
# Emulated chip, and the definition flashrom is told to use where several match its ID.
FLASHROM_CHIPS = {4 * MB: ("SST25VF032B", None),
                  8 * MB: ("MX25L6436", "MX25L6436E/MX25L6445E/MX25L6465E/MX25L6473E/MX25L6473F"),
                  16 * MB: ("W25Q128FV", None)}
SIZE_INDEX = {4 * MB: 6, 8 * MB: 7, 16 * MB: 8}
ERASE_NS = {0x10000: 150_000_000, 0x8000: 120_000_000, 0x1000: 45_000_000}
PAGE_NS, READ_BYTE_NS, PAGE = 400_000, 160, 256
KEEP = 256  # head of each changed block that stays: descriptor and BVDT live there
KINDS = ("all", "ten", "none")
GOAL_CPU_RATIO, GOAL_MEMORY_MIB, GOAL_MODEL_RATIO = 0.5, 96, 1.05


def erase_ns(block):
    for unit in (0x10000, 0x8000):
        if block % unit == 0:
            return block // unit * ERASE_NS[unit]
    return (block + 0xFFF) // 0x1000 * ERASE_NS[0x1000]


def guarded_ranges(size):
    """NV storage, FTW backup (protected) and FTW state (private) at the BIOS region's start."""
    bios = (1 << 32) - size + size // 2
    return [(bios, 0x40000, 6), (bios + 0x40000, 0x40000, 7), (bios + 0x80000, 0x10000, 8)]


def machine(size, block):
    g = guarded_ranges(size)
    return {
        "flash": {"size": hex(size), "size_index": SIZE_INDEX.get(size, 0xFF),
                  "blocks": [{"size": hex(block), "count": size // block}]},
        "maps": {
            "protection": [{"type": t, "address": hex(a), "size": hex(n)} for a, n, t in g[:2]],
            "private": [{"address": hex(a), "size": hex(n)} for a, n, _ in g[2:]],
            "whole": [{"type": t, "address": hex(a), "size": hex(n), "attribute": 0} for a, n, t in g]
            + [{"type": 0x0A, "address": hex(g[2][0] + 0x10000), "size": "0x10000", "attribute": 0}],
        },
    }


def description(size, seed):
    return {"size": hex(size),
            "regions": {"descriptor": {"offset": "0x0", "size": "0x1000"},
                        "me": {"offset": "0x1000", "size": hex(size // 2 - 0x1000), "fill": {"random": seed}},
                        "bios": {"offset": hex(size // 2), "size": hex(size // 2), "fill": {"random": seed + 1}}},
            "bvdt": {"offset": hex(size // 2 + 0x90000), "version": "V1.03", "model": "DV-REF1000"}}


def writable_blocks(size, block):
    base = (1 << 32) - size
    guarded = guarded_ranges(size)
    return [o for o in range(0, size, block)
            if not any(base + o < a + n and a < base + o + block for a, n, _ in guarded)]


def build_pair(build, work, size, block, kind):
    """Old flash and new image of one job; returns (old, new, changed blocks)."""
    old_path = work / f"old-{size // MB}mb.bin"
    if not old_path.exists():
        (work / "d.json").write_text(json.dumps(description(size, 11)))
        subprocess.run([str(build / "zaprom-image"), "build", str(work / "d.json"), "-o", str(old_path)],
                       check=True, stdout=subprocess.DEVNULL)
    old = old_path.read_bytes()
    new = bytearray(old)
    blocks = writable_blocks(size, block)
    changed = {"all": blocks, "none": [], "ten": blocks[len(blocks) // 20::len(blocks) // 10][:10]}[kind]
    rng = random.Random(size + block)
    for offset in changed:
        new[offset + KEEP:offset + block] = rng.randbytes(block - KEEP)
    return old, bytes(new), changed


def run(command, cwd):
    """Runs one child under GNU time: its own wall, user+sys and peak RSS. A child started from
    this process directly would inherit its peak RSS (the kernel keeps it across exec), and this
    process holds the images."""
    start = time.perf_counter()
    with open(cwd / "out.txt", "wb") as out:
        status = subprocess.run(["/usr/bin/time", "-f", "%U %S %M", "-o", "time.txt"] + command, cwd=cwd,
                                stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL).returncode
    wall = time.perf_counter() - start
    user, system, rss = (cwd / "time.txt").read_text().split()[-3:]
    return {"wall": wall, "cpu": float(user) + float(system), "rss": int(rss) / 1024,
            "status": status, "log": (cwd / "out.txt").read_text(errors="replace")}


def minimum_ns(size, block, changed):
    reads = len(writable_blocks(size, block)) * block + len(changed) * block
    return reads * READ_BYTE_NS + len(changed) * (erase_ns(block) + block // PAGE * PAGE_NS)


def run_zaprom(build, job, old, new, size, block):
    (job / "flash.bin").write_bytes(old)
    (job / "new.fd").write_bytes(new)
    (job / "machine.json").write_text(json.dumps(machine(size, block)))
    r = run([str(build / "zaprom-sim"), "--machine", "machine.json", "--flash", "flash.bin", "--volume", ".",
             "--stats", "stats.json", "--", "new.fd"], job)
    stats = json.loads((job / "stats.json").read_text())
    r.update(erase=stats["erases"], prog=stats["page_programs"] * PAGE // block, stats=stats,
             ok=r["status"] == 0 and (job / "flash.bin").read_bytes() == new)
    return r


def run_flashrom(job, old, new, size):
    chip, definition = FLASHROM_CHIPS.get(size, (None, None))
    if chip is None or shutil.which("flashrom") is None:
        return None
    (job / "fr-flash.bin").write_bytes(old)
    (job / "new.fd").write_bytes(new)
    r = run(["flashrom", "-p", f"dummy:emulate={chip},image=fr-flash.bin", "-w", "new.fd", "-V"]
            + (["-c", definition] if definition else []), job)
    marks = [w.split(":", 1)[1] for w in r["log"].split() if w.startswith("0x") and "-0x" in w and ":" in w]
    r.update(erase=sum(m.count("E") for m in marks), prog=sum(m.count("W") for m in marks),
             ok=r["status"] == 0 and (job / "fr-flash.bin").read_bytes() == new)
    return r


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build", type=Path)
    parser.add_argument("--work", default=None, type=Path)
    parser.add_argument("--no-flashrom", action="store_true")
    args = parser.parse_args()
    build = args.build.resolve()
    work = (args.work or build / "bench").resolve()
    work.mkdir(parents=True, exist_ok=True)
    if not Path("/usr/bin/time").exists():
        sys.exit("benchmark.py measures each run with GNU time: sudo apt-get install time")
    if not args.no_flashrom and shutil.which("flashrom") is None:
        print("flashrom is not installed: its columns show n/a (sudo apt-get install flashrom)")
    build_type = "?"
    cache = build / "CMakeCache.txt"
    if cache.exists():
        build_type = next((l.split("=", 1)[1] for l in cache.read_text().splitlines()
                           if l.startswith("CMAKE_BUILD_TYPE:")), "?") or "(none)"
    print(f"zaprom-sim from {build} ({build_type} build); {os.cpu_count()} cores; {time.strftime('%Y-%m-%d %H:%M')}")
    jobs = [(s * MB, 0x1000) for s in (4, 8, 16, 32)] + [(32 * MB, 0x10000)]
    head = (f"{'job':<16}{'min':>6} | {'zaprom-sim: wall':>16}{'cpu':>7}{'MiB':>6}{'erase':>6}{'prog':>6}"
            f"{'model':>6} | {'flashrom: wall':>14}{'cpu':>7}{'MiB':>6}{'erase':>6}{'prog':>6} | "
            f"{'cpu/fr':>6}{'wall':>6}{'mem':>6}")
    print(head + "\n" + "-" * len(head))
    rows = []
    for size, block in jobs:
        for kind in KINDS:
            name = f"{size // MB}MB/{block // 1024}K {kind}"
            job = work / name.replace("/", "-").replace(" ", "-")
            job.mkdir(exist_ok=True)
            old, new, changed = build_pair(build, work, size, block, kind)
            z = run_zaprom(build, job, old, new, size, block)
            f = None if args.no_flashrom else run_flashrom(job, old, new, size)
            model = z["stats"]["modelled_ns"] / minimum_ns(size, block, changed)
            rows.append((size, block, kind, len(changed), z, f, model))
            line = (f"{name:<16}{len(changed):>6} | {z['wall']:>15.2f}s{z['cpu']:>6.2f}s{z['rss']:>6.0f}"
                    f"{z['erase']:>6}{z['prog']:>6}{model:>6.2f} | ")
            if f:
                line += (f"{f['wall']:>13.2f}s{f['cpu']:>6.2f}s{f['rss']:>6.0f}{f['erase']:>6}{f['prog']:>6} | "
                         f"{z['cpu'] / f['wall']:>6.2f}{z['wall'] / f['wall']:>6.2f}{z['rss'] / f['rss']:>6.2f}")
            else:
                line += f"{'n/a':>14}{'':>25} | {'n/a':>6}"
            bad = [t for t, r in (("zaprom-sim", z), ("flashrom", f)) if r and not r["ok"]]
            if z["status"] != 0:
                last = [l for l in z["log"].splitlines() if l.strip()][-2:-1] or ["?"]
                bad[0] = f"zaprom-sim (exit {z['status']}: {last[0].strip()})"
            print(line + (f"  !! {', '.join(bad)} did not end with the new image" if bad else ""), flush=True)
    if any(z["status"] != 0 and size // block > 4096 for size, block, _, _, z, _, _ in rows):
        print("\nThe tool refuses a part of more than 4096 blocks (its block table's size) at 13h:"
              " 32 MB of 4 KB blocks is one.")
    print("\nmin: blocks that differ (the least erases and programs); model: modelled time / physical minimum")
    print("cpu/fr: zaprom-sim CPU / flashrom wall; wall, mem: zaprom-sim / flashrom")
    print("\nGoals:")
    done = [r for r in rows if r[4]["status"] == 0]
    counts = all(z["erase"] == n and z["prog"] == n and (f is None or (f["erase"], f["prog"]) == (n, n))
                 for _, _, _, n, z, f, _ in done)
    goal("erases and programs are the changed blocks only, as flashrom's", counts,
         f"{len(done)} of {len(rows)} jobs ran to the end")
    for size, block, kind, n, z, f, _ in rows:
        if size == 16 * MB and f:
            ratio = z["cpu"] / f["wall"]
            goal(f"16 MB {kind}: zaprom-sim CPU / flashrom wall", ratio <= GOAL_CPU_RATIO,
                 f"{ratio:.2f} (limit {GOAL_CPU_RATIO})")
    peak = max(z["rss"] for size, block, _, _, z, _, _ in rows if block == 0x10000)
    goal("32 MB part of 64 KB blocks: peak memory", peak <= GOAL_MEMORY_MIB,
         f"{peak:.0f} MiB (limit {GOAL_MEMORY_MIB})")
    for size, block, kind, n, z, f, model in rows:
        if kind == "all" and (size, block) in ((16 * MB, 0x1000), (32 * MB, 0x10000)):
            goal(f"{size // MB} MB/{block // 1024} KB every block: modelled time / minimum",
                 model <= GOAL_MODEL_RATIO, f"{model:.3f} (limit {GOAL_MODEL_RATIO})")


def goal(what, met, figure):
    print(f"  {'PASS' if met else 'MISS'}  {what}: {figure}")


if __name__ == "__main__":
    sys.exit(main())
