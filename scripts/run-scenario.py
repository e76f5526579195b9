#!/usr/bin/env python3
"""One scenario, two platforms: runs a scenario through zaprom-sim and through the IA32 binaries
on OVMF in QEMU (the driver's bridge variant, answered by oblis-bridge with the same machine,
flash and EC), then compares what both left: the flash, the EC, ZAPROM.Log, the SMI trace, the
console text, the flash summary, the exit status and any files the scenario names.

usage: run-scenario.py --build BUILD_DIR [--platform both|sim|qemu] [--work DIR]
                       [--alter-start-flash sim|qemu] SCENARIO.json

A scenario is a JSON file; paths in it count from its own folder:
  machine     machine file (optional: the embedded default machine)
  machine_changes  keys laid over the machine file's, as in a machine file
  flash       the starting flash: {"image": DESCRIPTION} built by zaprom-image, or {"file": PATH};
              left out: the machine's own default content
  ec          the machine's EC is kept in a file and compared: {} starts it erased, {"file": PATH}
              with that content; left out: the EC is neither kept nor compared
  volume      files put on the tool's volume: {NAME: {"image": DESCRIPTION} or {"file": PATH}};
              a NAME may hold folders ("EFI/Dovrin/kobalts.bin")
  arguments   the tool's arguments
  launcher    instead of arguments: the firmware starts the launcher kobaltApp.efi, which carries
              the bridge driver (ia32/kobalt-bridge.efi) with its slots filled:
              {"driver": {"bios"|"ec"|"ini"|"cert"|"cert2": {"image"|"file": ...}}, "boot": B};
              without "driver" the launcher's slot stays empty. B is "shell" (the default: the
              Shell runs kobaltApp.efi) or "firmware" (kobaltApp.efi is \EFI\BOOT\BOOTIA32.EFI
              and the firmware's boot manager starts it, no Shell before it). zaprom-sim runs
              the same launcher file with --launcher
  keys        keys for the tool's prompts, in order: [{"after": TEXT, "send": KEYS}]; zaprom-sim
              gets all of them at the start, QEMU each one once TEXT is on the screen. KEYS are
              characters and {ENTER} or {ESC}
  fetch       files the run leaves on the volume, compared byte for byte (and with a packed image so named)
  package     the tool is started as a package built from ia32/ZAPROM-S.efi by zaprom-image pack-rom:
              {"name": FILE, "images": [{"name": N, "image"|"file": ...}], "ini": {"file": PATH},
              "defaults": TEXT, "permit": TEXT}; FILE lies on the volume and is argument 0
  firmware    "plain": OVMF as it is, with the production ia32/kobalt.efi and no bridge; the
              machine must play a firmware without the OBLIS service. The exit status, the log
              and the console are compared; a plain firmware has no flash, EC or trace to compare

--alter-start-flash flips one byte of the starting flash on one side only: the control that the
comparison sees a difference. Exit status: 0 when both platforms agree, 1 on a difference or a
failed run, 2 on a bad use, 77 when QEMU, OVMF or the FAT tools are missing.
"""
import argparse
import json
import os
import pty
import re
import select
import shutil
import subprocess
import sys
import time

OVMF_CODE = os.environ.get("OVMF_CODE", "/usr/share/OVMF/OVMF32_CODE_4M.secboot.fd")
OVMF_VARS = os.environ.get("OVMF_VARS", "/usr/share/OVMF/OVMF32_VARS_4M.fd")
QEMU_TIMEOUT = int(os.environ.get("ZAPROM_QEMU_TIMEOUT", "400"))
BEGIN_MARK = "==ZAPROM-RUN-BEGIN=="
END_MARK = "==ZAPROM-RUN-END=="
# What the firmware's boot manager says when it starts a boot option and when one fails.
BOOT_LINE, BOOT_STARTING, BOOT_FAILED = b"BdsDxe: ", b"BdsDxe: starting Boot", b"BdsDxe: failed to start Boot"
# Outside [0x100000, 0xF0000000) a register value is a size, a flash address or a code, never
# a buffer of the tool's memory.
BUFFER_LOW, BUFFER_HIGH = 0x100000, 0xF0000000
# The firmware's terminal also sets its text mode (ESC [ = 3 h) when the launcher selects mode 0.
ESCAPES = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]|\x1b\[=[0-9]*[A-Za-z]|\x1b[()][A-Za-z0-9]|\x1b[=>c]")
CONTROL = re.compile(rb"\x1b\[([0-9;?]*)([A-Za-z])|\x1b\[=[0-9]*[A-Za-z]|\x1b[()][A-Za-z0-9]|\x1b[=>c]|[\r\n\b]|"
                     rb"[^\x1b\r\n\b]+")
COLUMNS, ROWS = 80, 25
# zaprom-sim and oblis-bridge both end with this status when the machine loses power.
EXIT_POWER_LOST = 4
# The byte a run flips in the starting flash of one side for the control: in the first block of
# the BIOS region, which part-4mb.json protects, so that no update writes it back.
ALTERED_OFFSET = 0x200010
# The driver's slots that a launcher scenario fills, by the option of zaprom-image pack-driver.
PAYLOAD_OPTIONS = {"bios": "--bios", "ec": "--ec", "ini": "--ini", "cert": "--cert", "cert2": "--cert2"}


class Failure(Exception):
    pass


def load_scenario(path):
    with open(path) as f:
        scenario = json.load(f)
    base = os.path.dirname(os.path.abspath(path))
    known = {"description", "machine", "machine_changes", "flash", "ec", "volume", "arguments", "keys", "fetch",
             "launcher", "firmware", "package"}
    unknown = set(scenario) - known
    if unknown:
        raise Failure("%s: unknown keys %s" % (path, ", ".join(sorted(unknown))))
    for key in scenario.get("keys", []):
        if set(key) != {"after", "send"}:
            raise Failure("%s: a key needs \"after\" and \"send\": %r" % (path, key))
        serial_keys(key["send"])
    launcher = scenario.get("launcher")
    if launcher is not None:
        if "arguments" in scenario:
            raise Failure("%s: the launcher takes no arguments" % path)
        if set(launcher) - {"driver", "boot"} or launcher.get("boot", "shell") not in ("shell", "firmware") or \
                set(launcher.get("driver", {})) - set(PAYLOAD_OPTIONS):
            raise Failure("%s: a launcher is {\"driver\": {%s: ...}, \"boot\": \"shell\" or \"firmware\"}"
                          % (path, ", ".join(sorted(PAYLOAD_OPTIONS))))
    if scenario.get("firmware", "bridge") not in ("bridge", "plain") or \
            (scenario.get("firmware") == "plain" and ("launcher" in scenario or "ec" in scenario)):
        raise Failure("%s: \"firmware\" is \"bridge\" or \"plain\", and a plain firmware runs the shell host only"
                      % path)
    scenario["base"] = base
    return scenario


def serial_keys(text):
    """What a terminal on the serial line sends for a key text of zaprom-sim's --keys."""
    out, names = b"", {"{ENTER}": b"\r", "{ESC}": b"\x1b"}
    while text:
        name = next((n for n in names if text.startswith(n)), None)
        if name is None and text.startswith("{"):
            raise Failure("key %s} cannot be sent on the serial line" % text.split("}")[0])
        out += names[name] if name else text[0].encode()
        text = text[len(name) if name else 1:]
    return out


def materialise(source, out, scenario, build):
    """Writes the file a scenario entry describes to out."""
    if "image" in source:
        description = os.path.join(scenario["base"], source["image"])
        run([os.path.join(build, "zaprom-image"), "build", description, "-o", out], "zaprom-image")
    elif "file" in source:
        shutil.copyfile(os.path.join(scenario["base"], source["file"]), out)
    else:
        raise Failure("a file entry needs \"image\" or \"file\": %r" % source)


def run(command, what, **kwargs):
    result = subprocess.run(command, capture_output=True, **kwargs)
    if result.returncode != 0:
        raise Failure("%s failed (%d): %s" % (what, result.returncode, result.stderr.decode(errors="replace")))
    return result


def ec_arguments(scenario, folder):
    """The EC file of a scenario that keeps its machine's EC, with its starting content."""
    if "ec" not in scenario:
        return []
    return ["--ec", os.path.join(folder, "ec.bin")]


def prepare(scenario, build, folder, alter):
    """The starting flash and EC and the volume's files in folder; returns the flash file's path."""
    os.makedirs(os.path.join(folder, "volume"), exist_ok=True)
    flash = os.path.join(folder, "flash.bin")
    if "flash" in scenario:
        materialise(scenario["flash"], flash, scenario, build)
    if scenario.get("ec"):
        materialise(scenario["ec"], os.path.join(folder, "ec.bin"), scenario, build)
    if alter:
        if not os.path.exists(flash):
            raise Failure("--alter-start-flash needs a scenario with a starting flash")
        with open(flash, "r+b") as f:
            f.seek(ALTERED_OFFSET)
            value = f.read(1)
            f.seek(ALTERED_OFFSET)
            f.write(bytes([value[0] ^ 0x01]))
    for name, source in scenario.get("volume", {}).items():
        os.makedirs(os.path.dirname(os.path.join(folder, "volume", name)), exist_ok=True)
        materialise(source, os.path.join(folder, "volume", name), scenario, build)
    if "launcher" in scenario:
        pack_launcher(scenario, build, folder)
    if "package" in scenario:
        pack_rom(scenario, build, folder)
    return flash


def pack_rom(scenario, build, folder):
    """The package on the volume, from the IA32 shell host; each image is kept as package-NAME."""
    package = scenario["package"]
    command = [os.path.join(build, "zaprom-image"), "pack-rom", os.path.join(build, "ia32", "ZAPROM-S.efi"), "-o",
               os.path.join(folder, "volume", package["name"]), "--defaults", package.get("defaults", ""),
               "--permit", package.get("permit", "")]
    for image in package["images"]:
        materialise(image, os.path.join(folder, "package-" + image["name"]), scenario, build)
        command += ["--image", "%s=%s" % (image["name"], os.path.join(folder, "package-" + image["name"]))]
    if "ini" in package:
        command += ["--ini", os.path.join(scenario["base"], package["ini"]["file"])]
    run(command, "zaprom-image pack-rom")


def program(scenario):
    return scenario["package"]["name"] if "package" in scenario else "ZAPROM-S.efi"


def pack_launcher(scenario, build, folder):
    """kobaltApp.efi in folder: the IA32 launcher carrying the bridge driver with the scenario's
    payloads, or with its slot left empty."""
    ia32, out = os.path.join(build, "ia32"), os.path.join(folder, "kobaltApp.efi")
    payloads = scenario["launcher"].get("driver")
    if payloads is None:
        shutil.copyfile(os.path.join(ia32, "kobaltApp.efi"), out)
        return
    driver = os.path.join(folder, "kobalt-packed.efi")
    command = [os.path.join(build, "zaprom-image"), "pack-driver", os.path.join(ia32, "kobalt-bridge.efi"), "-o", driver]
    for name, source in sorted(payloads.items()):
        payload = os.path.join(folder, "payload-" + name)
        materialise(source, payload, scenario, build)
        command += [PAYLOAD_OPTIONS[name], payload]
    run(command, "zaprom-image pack-driver")
    run([os.path.join(build, "zaprom-image"), "pack-launcher", os.path.join(ia32, "kobaltApp.efi"), "--driver", driver,
         "-o", out], "zaprom-image pack-launcher")


def merged(base, changes):
    result = dict(base)
    for key, value in changes.items():
        result[key] = merged(base[key], value) if isinstance(value, dict) and isinstance(base.get(key), dict) else value
    return result


def machine_arguments(scenario, folder):
    if "machine_changes" not in scenario:
        return ["--machine", os.path.join(scenario["base"], scenario["machine"])] if "machine" in scenario else []
    machine = {}
    if "machine" in scenario:
        path = os.path.join(scenario["base"], scenario["machine"])
        with open(path) as f:
            machine = json.load(f)
        # The laid-over copy lives in the run's folder; its volumes still name the same folders.
        for volume in machine.get("volumes", []):
            volume["path"] = os.path.join(os.path.dirname(path), volume.get("path", ""))
    path = os.path.join(folder, "machine.json")
    with open(path, "w") as f:
        json.dump(merged(machine, scenario.get("machine_changes", {})), f, indent=1)
    return ["--machine", path]


DEFAULT_ATTRIBUTE = 0x07  # light grey on black, as UEFI numbers it: background << 4 | foreground
ANSI_TO_UEFI = [0, 4, 2, 6, 1, 5, 3, 7]  # terminals count red-green-blue, UEFI blue-green-red


def line_text(cells):
    """A screen line as text; where colours other than the default stand, the runs follow as
    "|first-last:attribute" in UEFI's numbering."""
    text, runs, start = "".join(c for c, _ in cells).rstrip(), [], None
    for column in range(COLUMNS + 1):
        attribute = cells[column][1] if column < COLUMNS else DEFAULT_ATTRIBUTE
        if start is not None and (column == COLUMNS or attribute != cells[start][1]):
            runs.append("%d-%d:%02X" % (start, column - 1, cells[start][1]))
            start = None
        if start is None and attribute != DEFAULT_ATTRIBUTE:
            start = column
    return text + "".join(" |" + run for run in runs)


def render(raw):
    """The text a terminal of 80 by 25 shows for a stream, as the lines in the order they were
    on the screen: cursor positions, clearing, scrolling and colours followed, so that two
    consoles differing in escape sequences only give the same text."""
    blank = (" ", DEFAULT_ATTRIBUTE)
    screen = [[blank] * COLUMNS for _ in range(ROWS)]
    transcript = []
    row = column = 0
    bright, foreground, background = False, 7, 0

    def flush_screen():
        lines = [line_text(line) for line in screen]
        while lines and not lines[-1]:
            lines.pop()
        transcript.extend(lines)

    for match in CONTROL.finditer(raw):
        token = match.group(0)
        if match.group(2) is not None:
            command, numbers = match.group(2), [int(n) if n.isdigit() else 0 for n in match.group(1).split(b";")]
            if command == b"m":
                for number in numbers:
                    if number == 0:
                        bright, foreground, background = False, 7, 0
                    elif number == 22:
                        bright = False
                    elif number == 1:
                        bright = True
                    elif 30 <= number <= 37 or 90 <= number <= 97:
                        foreground, bright = ANSI_TO_UEFI[number % 10], bright or number >= 90
                    elif 40 <= number <= 47:
                        background = ANSI_TO_UEFI[number - 40]
            elif command == b"H":
                row = min(max((numbers[0] if numbers else 1) - 1, 0), ROWS - 1)
                column = min(max((numbers[1] if len(numbers) > 1 else 1) - 1, 0), COLUMNS - 1)
            elif command == b"J" and numbers == [2]:
                flush_screen()
                screen = [[blank] * COLUMNS for _ in range(ROWS)]
            continue
        if token.startswith(b"\x1b"):
            continue
        for character in token.decode("latin-1"):
            if character == "\r":
                column = 0
                continue
            if character == "\b":
                column = max(column - 1, 0)
                continue
            if character == "\n":
                row += 1
            else:
                screen[row][column] = (character, foreground | (8 if bright else 0) | background << 4)
                column += 1
                if column == COLUMNS:
                    column, row = 0, row + 1
            if row == ROWS:
                transcript.append(line_text(screen.pop(0)))
                screen.append([blank] * COLUMNS)
                row = ROWS - 1
    flush_screen()
    return "\n".join(transcript)


def split_summary(text, prefix):
    """The console text and the flash summary line that the front end printed behind it."""
    lines = text.split("\n")
    summary = [line for line in lines if line.startswith(prefix)]
    console = [line for line in lines if not line.startswith(prefix)]
    return "\n".join(console), (summary[-1][len(prefix):] if summary else "")


def run_sim(scenario, build, folder, alter):
    flash = prepare(scenario, build, folder, alter)
    # The same folders as on the QEMU disk, where the Shell boots from \EFI\BOOT.
    os.makedirs(os.path.join(folder, "volume", "EFI", "BOOT"))
    # The shell host's own file too, which the tool opens to see whether it is a package.
    shell_host = os.path.join(build, "ia32", "ZAPROM-S.efi")
    if "launcher" not in scenario and "package" not in scenario and os.path.exists(shell_host):
        shutil.copyfile(shell_host, os.path.join(folder, "volume", "ZAPROM-S.efi"))
    command = [os.path.join(build, "zaprom-sim")] + machine_arguments(scenario, folder) + ec_arguments(
        scenario, folder) + ["--flash", flash, "--volume", os.path.join(folder, "volume"),
        "--trace-smi", os.path.join(folder, "smi.jsonl")] + (
        ["--keys", "".join(k["send"] for k in scenario["keys"])] if "keys" in scenario else []) + (
        ["--launcher", os.path.join(folder, "kobaltApp.efi")] if "launcher" in scenario else
        ["--program", program(scenario), "--"] + scenario.get("arguments", []))
    # On a terminal the emulated console sends the same kind of escape sequences as the firmware's.
    master, slave = pty.openpty()
    process = subprocess.Popen(command, stdout=slave, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    os.close(slave)
    raw = b""
    while True:
        try:
            chunk = os.read(master, 65536)
        except OSError:
            break
        if not chunk:
            break
        raw += chunk
    os.close(master)
    status = process.wait(timeout=300)
    # The front end's own lines come behind everything the tool printed.
    own = re.search(rb"^zaprom-sim: ", raw, re.M)
    console = render(raw[:own.start()] if own else raw)
    _, summary = split_summary(plain(raw[own.start():]) if own else "", "zaprom-sim: ")
    return {"status": status, "console": console, "summary": summary, "flash": flash,
            "ec": os.path.join(folder, "ec.bin"), "volume": os.path.join(folder, "volume"),
            "trace": os.path.join(folder, "smi.jsonl")}


def shell_binary(build):
    """The UEFI Shell of OVMF's own firmware volume, extracted once per build."""
    folder = os.path.join(build, "qemu-shell")
    shell = os.path.join(folder, "BOOTIA32.EFI")
    if os.path.exists(shell) and os.path.getmtime(shell) >= os.path.getmtime(OVMF_CODE):
        return shell
    extract = os.path.join(folder, "extract")
    shutil.rmtree(extract, ignore_errors=True)
    os.makedirs(extract)
    shutil.copyfile(OVMF_CODE, os.path.join(extract, "ovmf.fd"))
    subprocess.run(["UEFIExtract", "ovmf.fd", "all"], cwd=extract, capture_output=True)
    for root, dirs, files in os.walk(extract):
        if root.endswith("PE32 image section") and "body.bin" in files and " Shell" in root:
            shutil.copyfile(os.path.join(root, "body.bin"), shell)
            shutil.rmtree(extract)
            return shell
    raise Failure("no Shell file found in " + OVMF_CODE)


def mtools(command, disk, *arguments):
    environment = dict(os.environ, MTOOLS_SKIP_CHECK="1")
    return subprocess.run([command, "-i", disk] + list(arguments), capture_output=True, env=environment)


def shell_word(argument):
    return '"%s"' % argument if " " in argument else argument


def run_qemu(scenario, build, folder, alter):
    for tool in ("qemu-system-i386", "mkfs.vfat", "mcopy", "mmd", "UEFIExtract"):
        if shutil.which(tool) is None:
            skip(tool + " not installed")
    for path in (OVMF_CODE, OVMF_VARS):
        if not os.path.exists(path):
            skip(path + " missing (package ovmf-ia32)")
    flash = prepare(scenario, build, folder, alter)
    ia32 = os.path.join(build, "ia32")
    plain_firmware = scenario.get("firmware") == "plain"
    disk = os.path.join(folder, "disk.img")
    if os.path.exists(disk):
        os.remove(disk)
    run(["mkfs.vfat", "-C", disk, "65536"], "mkfs.vfat")
    script = os.path.join(folder, "startup.nsh")
    boot = scenario.get("launcher", {}).get("boot", "shell")
    if boot == "firmware":
        # The firmware's boot manager starts the launcher from the stick. Its next line after the
        # launcher returns ends the run (converse stops QEMU there); should a boot option follow
        # all the same, the built-in Shell's startup.nsh switches the machine off.
        command = "echo %s" % END_MARK
        copies = [(os.path.join(folder, "kobaltApp.efi"), "::/EFI/BOOT/BOOTIA32.EFI")]
    elif "launcher" in scenario:
        command = "echo %s\r\nkobaltApp.efi\r\necho %s %%lasterror%%" % (BEGIN_MARK, END_MARK)
        copies = [(shell_binary(build), "::/EFI/BOOT/BOOTIA32.EFI"), (os.path.join(folder, "kobaltApp.efi"), "::/kobaltApp.efi")]
    else:
        command = "echo %s\r\n%s\r\necho %s %%lasterror%%" % (
            BEGIN_MARK, " ".join([program(scenario)] + [shell_word(a) for a in scenario.get("arguments", [])]), END_MARK)
        driver = "kobalt.efi" if plain_firmware else "kobalt-bridge.efi"
        copies = [(shell_binary(build), "::/EFI/BOOT/BOOTIA32.EFI"), (os.path.join(ia32, "ZAPROM-S.efi"), "::/ZAPROM-S.efi"),
                  (os.path.join(ia32, driver), "::/kobalt.efi")]
    with open(script, "w", newline="") as f:
        f.write("@echo -off\r\nfs0:\r\n%s\r\nreset -s\r\n" % command)
    copies.append((script, "::/startup.nsh"))
    volume = os.path.join(folder, "volume")
    mtools("mmd", disk, "::/EFI", "::/EFI/BOOT")
    for root, folders, files in sorted(os.walk(volume)):
        inside = os.path.relpath(root, volume).replace(os.sep, "/")
        target = "::/" if inside == "." else "::/" + inside + "/"
        for name in sorted(folders):
            if not target + name in ("::/EFI", "::/EFI/BOOT"):
                mtools("mmd", disk, target + name)
        copies += [(os.path.join(root, name), target + name) for name in sorted(files)]
    for source, target in copies:
        if mtools("mcopy", disk, source, target).returncode != 0:
            raise Failure("mcopy of %s failed" % source)
    vars_copy = os.path.join(folder, "vars.fd")
    shutil.copyfile(OVMF_VARS, vars_copy)
    shared = os.path.join("/dev/shm" if os.path.isdir("/dev/shm") else folder,
                          "zaprom-bridge-%d-%s" % (os.getpid(), os.path.basename(os.path.dirname(folder))))
    trace = os.path.join(folder, "smi.jsonl")
    bridge_err = open(os.path.join(folder, "bridge.err"), "wb")
    # A plain firmware has no simulator beside it: a stand-in that only says it is ready.
    command = ["echo", "oblis-bridge: ready"] if plain_firmware else \
        [os.path.join(build, "oblis-bridge"), "--shared-memory", shared, "--flash", flash,
         "--trace-smi", trace] + machine_arguments(scenario, folder) + ec_arguments(scenario, folder)
    bridge = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=bridge_err)
    if not bridge.stdout.readline().startswith(b"oblis-bridge: ready"):
        bridge.wait()
        raise Failure("oblis-bridge did not start: " + open(bridge_err.name, errors="replace").read())
    qemu = ["qemu-system-i386", "-machine", "q35,smm=on", "-global", "driver=cfi.pflash01,property=secure,value=on",
            "-drive", "if=pflash,format=raw,unit=0,readonly=on,file=" + OVMF_CODE,
            "-drive", "if=pflash,format=raw,unit=1,file=" + vars_copy,
            # The tool's volume is a USB stick, as zaprom-sim's own volume is.
            "-device", "qemu-xhci", "-drive", "if=none,id=stick,format=raw,file=" + disk,
            "-device", "usb-storage,drive=stick,removable=on",
            "-display", "none", "-monitor", "none", "-serial", "stdio",
            "-object", "memory-backend-file,id=bridge,share=on,size=1M,mem-path=" + shared,
            "-device", "ivshmem-plain,memdev=bridge",
            "-net", "none", "-no-reboot"]
    started = time.monotonic()
    if boot == "firmware":
        raw, finished = converse(qemu, scenario.get("keys", []), launcher_start, launcher_end)
    else:
        raw, finished = converse(qemu, scenario.get("keys", []), lambda raw: raw.find(BEGIN_MARK.encode()))
    if not finished:
        bridge.kill()
        os.remove(shared)
        raise Failure("QEMU did not finish within %d s; console so far:\n%s" % (QEMU_TIMEOUT, plain(raw)[-3000:]))
    seconds = time.monotonic() - started
    bridge.terminate()
    summary_text = bridge.communicate(timeout=60)[0].decode("latin-1")
    bridge_err.close()
    if os.path.exists(shared):
        os.remove(shared)
    with open(os.path.join(folder, "console.raw"), "wb") as f:
        f.write(raw)
    if boot == "firmware":
        console, status = firmware_boot_console(raw, bridge.returncode == EXIT_POWER_LOST)
    else:
        console, status = shell_console(raw, bridge.returncode == EXIT_POWER_LOST)
    for name in ["ZAPROM.Log"] + scenario.get("fetch", []):
        os.makedirs(os.path.dirname(os.path.join(volume, name)), exist_ok=True)
        mtools("mcopy", disk, "-o", "::/" + name, os.path.join(volume, name))
    _, summary = split_summary(summary_text, "oblis-bridge: ")
    figures = open(bridge_err.name, errors="replace").read().strip()
    return {"status": status, "console": console, "summary": summary, "flash": flash,
            "ec": os.path.join(folder, "ec.bin"), "volume": volume, "trace": trace, "seconds": seconds,
            "figures": figures}


def shell_console(raw, power_lost):
    """The console between the run's marks, and the status the Shell saw."""
    begin, end = raw.find(BEGIN_MARK.encode()), raw.rfind(END_MARK.encode())
    if begin < 0 or (end < begin and not power_lost):
        raise Failure("the Shell did not run the tool to its end; console:\n" + plain(raw)[-3000:])
    if power_lost:
        # The guest stopped dead in the middle of the write, as zaprom-sim's run does.
        return render(raw[raw.index(b"\n", begin) + 1:]), EXIT_POWER_LOST
    return render(raw[raw.index(b"\n", begin) + 1:end]), 0 if int(plain(raw[end:]).split()[1], 16) == 0 else 1


def launcher_start(raw):
    """Where the launcher's output begins: behind the boot manager's line that starts it."""
    starting = raw.find(BOOT_STARTING)
    line_end = raw.find(b"\n", starting) if starting >= 0 else -1
    return line_end + 1 if line_end >= 0 else -1


def launcher_end(raw):
    """Where the launcher's output ends: at the boot manager's next line, which reports its
    failure, or loads the boot manager's menu after a success."""
    start = launcher_start(raw)
    end = raw.find(BOOT_LINE, start) if start >= 0 else -1
    return end if end >= 0 and raw.find(b"\n", end) >= 0 else -1


def firmware_boot_console(raw, power_lost):
    """The console of a launcher that the boot manager started, and its status: 1 when the boot
    manager reports that it failed."""
    begin, end = launcher_start(raw), launcher_end(raw)
    if begin < 0:
        raise Failure("the boot manager did not start the launcher; console:\n" + plain(raw)[-3000:])
    if power_lost:
        return render(raw[begin:]), EXIT_POWER_LOST
    if end < 0:
        raise Failure("the launcher did not return to the boot manager; console:\n" + plain(raw)[-3000:])
    return render(raw[begin:end]), 1 if raw.startswith(BOOT_FAILED, end) else 0


def converse(qemu, keys, begin_of, end_of=None):
    """Runs QEMU with the serial line on a pipe: a key at the Shell's countdown, so that it runs
    startup.nsh at once, then each of the scenario's keys once its text is on the screen behind
    the run's beginning (begin_of gives where it is, or -1). QEMU is stopped once end_of finds
    the run's end. Returns the serial output and whether QEMU ended in time."""
    process = subprocess.Popen(qemu, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    deadline, raw, pending, seen = time.monotonic() + QEMU_TIMEOUT, b"", list(keys), 0
    countdown = True
    while True:
        ready = select.select([process.stdout], [], [], max(deadline - time.monotonic(), 0))[0]
        chunk = os.read(process.stdout.fileno(), 65536) if ready else b""
        if not chunk:
            break
        raw += chunk
        if countdown and b"startup.nsh" in ESCAPES.sub(b"", raw):
            countdown = False
            process.stdin.write(b" ")
            process.stdin.flush()
        if end_of is not None and end_of(raw) >= 0:
            process.kill()
            break
        begin = begin_of(raw)
        while pending and begin >= 0:
            screen = plain(raw[begin:])
            at = screen.find(pending[0]["after"], seen)
            if at < 0:
                break
            seen = at + len(pending[0]["after"])
            process.stdin.write(serial_keys(pending.pop(0)["send"]))
            process.stdin.flush()
    finished = process.poll() is not None or time.monotonic() < deadline
    if not finished:
        process.kill()
    process.wait()
    return raw, finished


def skip(reason):
    print("SKIP: " + reason)
    sys.exit(77)


def plain(raw):
    return ESCAPES.sub(b"", raw).replace(b"\r", b"").decode("latin-1")


def normal_log(path):
    """The log with what truly differs between platforms set aside: times of day, and where the
    platform's ACPI tables lie and what their headers hold."""
    if not os.path.exists(path):
        return ["(no ZAPROM.Log)"]
    with open(path, "rb") as f:
        data = f.read()
    if data.startswith(b"\xff\xfe"):
        text = data[2:].decode("utf-16-le")
    else:
        text = data.decode("latin-1")
    lines, in_acpi_dump = [], False
    for line in text.replace("\r", "").split("\n"):
        line = re.sub(r"\[\d\d:\d\d:\d\d\]", "[hh:mm:ss]", line)
        line = re.sub(r"(FACP table address = )0x[0-9A-Fa-f]+", r"\1(platform)", line)
        if line.startswith("===== ACPI TABLE"):
            in_acpi_dump = True
        elif in_acpi_dump and re.match(r"^[0-9A-F]{4}:  ", line):
            line = line[:6] + "(platform's ACPI table)"
        else:
            in_acpi_dump = False
        lines.append(line)
    return lines


def normal_trace(path):
    """The trace with each buffer address replaced by the buffer's number in order of appearance:
    the same buffer must stand in the same places on both platforms, wherever it lies."""
    buffers, lines = {}, []
    if not os.path.exists(path):
        return ["(no SMI trace)"]
    for text in open(path):
        record = json.loads(text)
        for side in ("in", "out"):
            # ECX carries the record of 41h, 45h and 49h; a size there is the same number on both sides.
            for register in ("ecx", "esi", "edi"):
                value = record.get(side, {}).get(register)
                if isinstance(value, int) and BUFFER_LOW <= value < BUFFER_HIGH:
                    record[side][register] = "buffer %d" % buffers.setdefault(value, len(buffers) + 1)
        capsule = record.get("capsule")
        if capsule and capsule.get("addresses"):
            # A capsule's blocks lie wherever the image was read to: kept as offsets from the first.
            capsule["addresses"] = ["+0x%X" % (a - capsule["addresses"][0]) for a in capsule["addresses"]]
        lines.append(json.dumps(record, sort_keys=True))
    return lines


def compare_lines(what, left, right, differences, shown=6):
    if left == right:
        return
    count = 0
    for index in range(max(len(left), len(right))):
        a = left[index] if index < len(left) else "(missing)"
        b = right[index] if index < len(right) else "(missing)"
        if a != b:
            if count < shown:
                differences.append("%s line %d:\n  zaprom-sim: %s\n  QEMU:       %s" % (what, index + 1, a[:400], b[:400]))
            count += 1
    differences.append("%s: %d lines differ (%d against %d lines)" % (what, count, len(left), len(right)))


def compare_files(what, left, right, differences):
    a = open(left, "rb").read() if os.path.exists(left) else None
    b = open(right, "rb").read() if os.path.exists(right) else None
    if a == b:
        return
    if a is None or b is None:
        differences.append("%s: missing on %s" % (what, "zaprom-sim" if a is None else "QEMU"))
        return
    changed = [i for i in range(min(len(a), len(b))) if a[i] != b[i]] if len(a) == len(b) else []
    detail = ("%d bytes differ, the first at 0x%X" % (len(changed), changed[0])) if changed else (
        "%d against %d bytes" % (len(a), len(b)))
    differences.append("%s: %s" % (what, detail))


def compare(scenario, sim, qemu):
    differences = []
    if sim["status"] != qemu["status"]:
        differences.append("exit status: zaprom-sim %d, QEMU %d" % (sim["status"], qemu["status"]))
    if scenario.get("firmware") != "plain":
        compare_simulated(scenario, sim, qemu, differences)
    compare_lines("ZAPROM.Log", normal_log(os.path.join(sim["volume"], "ZAPROM.Log")),
                  normal_log(os.path.join(qemu["volume"], "ZAPROM.Log")), differences)
    compare_lines("console", sim["console"].strip("\n").split("\n"), qemu["console"].strip("\n").split("\n"),
                  differences)
    return differences


def compare_simulated(scenario, sim, qemu, differences):
    """What only a run with the simulator on both sides has: flash, EC, fetched files, summary, trace."""
    compare_files("flash", sim["flash"], qemu["flash"], differences)
    if "ec" in scenario:
        compare_files("EC", sim["ec"], qemu["ec"], differences)
    packed = [image["name"] for image in scenario.get("package", {}).get("images", [])]
    for name in scenario.get("fetch", []):
        compare_files(name, os.path.join(sim["volume"], name), os.path.join(qemu["volume"], name), differences)
        if os.path.basename(name) in packed:
            compare_files(name + " against the packed image", os.path.join(os.path.dirname(sim["volume"]), "package-" +
                          os.path.basename(name)), os.path.join(qemu["volume"], name), differences)
    if sim["summary"] != qemu["summary"]:
        differences.append("flash summary:\n  zaprom-sim: %s\n  QEMU:       %s" % (sim["summary"], qemu["summary"]))
    compare_lines("SMI trace", normal_trace(sim["trace"]), normal_trace(qemu["trace"]), differences)


def main():
    parser = argparse.ArgumentParser(description="Runs a scenario through zaprom-sim and QEMU and compares them.")
    parser.add_argument("--build", required=True, help="the build folder (zaprom-sim, oblis-bridge, ia32/)")
    parser.add_argument("--platform", choices=("both", "sim", "qemu"), default="both")
    parser.add_argument("--work", help="scratch folder (default: BUILD/scenarios/NAME)")
    parser.add_argument("--alter-start-flash", choices=("sim", "qemu"))
    parser.add_argument("scenario")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    name = os.path.splitext(os.path.basename(options.scenario))[0]
    work = os.path.abspath(options.work or os.path.join(build, "scenarios", name))
    try:
        scenario = load_scenario(options.scenario)
        results = {}
        for platform, runner in (("sim", run_sim), ("qemu", run_qemu)):
            if options.platform not in ("both", platform):
                continue
            folder = os.path.join(work, platform)
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
            results[platform] = runner(scenario, build, folder, options.alter_start_flash == platform)
            result = results[platform]
            extra = " in %.1f s (%s)" % (result["seconds"], result["figures"]) if "seconds" in result else ""
            print("%s: exit %d, %s%s" % (platform, result["status"], result["summary"], extra))
    except Failure as failure:
        print("FAIL: %s" % failure)
        return 1
    if len(results) < 2:
        return 0
    differences = compare(scenario, results["sim"], results["qemu"])
    for difference in differences:
        print("DIFFERENCE " + difference)
    if differences:
        print("FAIL: %s differs between zaprom-sim and QEMU (files kept in %s)" % (name, work))
        return 1
    same = "exit status, log and console" if scenario.get("firmware") == "plain" else "flash, log, SMI trace and console"
    print("PASS: %s gives the same %s on both platforms" % (name, same))
    return 0


if __name__ == "__main__":
    sys.exit(main())
