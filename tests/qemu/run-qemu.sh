#!/usr/bin/env bash
# Boots the IA32 binaries on real firmware: OVMF in QEMU starts its own UEFI Shell, which runs
# "ZAPROM-S.efi -dbg" from a FAT disk. OVMF offers no OBLIS service, so the run must end at
# function 10h with the firmware's "not supported" answer; the console and ZAPROM.Log must say so.
# Usage: run-qemu.sh KOBALT_EFI ZAPROM_S_EFI SCRATCH_DIR
# Exit 0 on success, 1 on a failed check, 77 when QEMU, OVMF, mtools or UEFIExtract are missing.
set -uo pipefail

kobalt_efi=${1:?kobalt.efi}
shell_efi=${2:?ZAPROM-S.efi}
scratch=${3:?scratch directory}

ovmf_code=${OVMF_CODE:-/usr/share/OVMF/OVMF32_CODE_4M.secboot.fd}
ovmf_vars=${OVMF_VARS:-/usr/share/OVMF/OVMF32_VARS_4M.fd}

skip() {
  echo "SKIP: $*"
  exit 77
}
fail() {
  echo "FAIL: $*"
  echo "---- console (escapes stripped):"
  cat "$scratch/console.txt" 2>/dev/null || echo "(no console)"
  echo "---- ZAPROM.Log:"
  cat "$scratch/ZAPROM.Log" 2>/dev/null || echo "(no log)"
  exit 1
}

for tool in qemu-system-i386 mkfs.vfat mmd mcopy UEFIExtract timeout; do
  command -v "$tool" >/dev/null 2>&1 || skip "$tool not installed"
done
[ -r "$ovmf_code" ] || skip "$ovmf_code missing (package ovmf-ia32)"
[ -r "$ovmf_vars" ] || skip "$ovmf_vars missing (package ovmf-ia32)"
[ -r "$kobalt_efi" ] || fail "$kobalt_efi not built"
[ -r "$shell_efi" ] || fail "$shell_efi not built"

mkdir -p "$scratch"

# The UEFI Shell is a file of OVMF's own firmware volume; extract it once per scratch folder.
shell_binary="$scratch/BOOTIA32.EFI"
if [ ! -s "$shell_binary" ] || [ "$shell_binary" -ot "$ovmf_code" ]; then
  extract="$scratch/extract"
  rm -rf "$extract"
  mkdir -p "$extract"
  cp "$ovmf_code" "$extract/ovmf.fd"
  (cd "$extract" && UEFIExtract ovmf.fd all >/dev/null 2>&1)
  found=$(find "$extract" -type d -name '* Shell' | head -n 1)
  [ -n "$found" ] || fail "no Shell file found in $ovmf_code"
  body=$(find "$found" -path '*PE32 image section/body.bin' | head -n 1)
  [ -n "$body" ] && [ -s "$body" ] || fail "no PE32 section in the Shell file of $ovmf_code"
  cp "$body" "$shell_binary"
  rm -rf "$extract"
fi

disk="$scratch/disk.img"
vars="$scratch/vars.fd"
rm -f "$disk" "$scratch/console.raw" "$scratch/console.txt" "$scratch/ZAPROM.Log"
printf 'fs0:\r\nZAPROM-S.efi -dbg\r\nreset -s\r\n' >"$scratch/startup.nsh"
mkfs.vfat -C "$disk" 65536 >/dev/null || fail "mkfs.vfat failed"
export MTOOLS_SKIP_CHECK=1
mmd -i "$disk" ::/EFI ::/EFI/BOOT || fail "mmd failed"
mcopy -i "$disk" "$shell_binary" ::/EFI/BOOT/BOOTIA32.EFI || fail "mcopy of the Shell failed"
mcopy -i "$disk" "$shell_efi" ::/ZAPROM-S.efi || fail "mcopy of ZAPROM-S.efi failed"
mcopy -i "$disk" "$kobalt_efi" ::/kobalt.efi || fail "mcopy of kobalt.efi failed"
mcopy -i "$disk" "$scratch/startup.nsh" ::/startup.nsh || fail "mcopy of startup.nsh failed"
cp "$ovmf_vars" "$vars"

timeout 120 qemu-system-i386 -machine q35,smm=on \
  -global driver=cfi.pflash01,property=secure,value=on \
  -drive if=pflash,format=raw,unit=0,readonly=on,file="$ovmf_code" \
  -drive if=pflash,format=raw,unit=1,file="$vars" \
  -drive format=raw,file="$disk" \
  -nographic -net none -no-reboot </dev/null >"$scratch/console.raw" 2>&1
qemu_status=$?

# Terminal escapes (CSI sequences, charset selections) and carriage returns out, text kept.
sed -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' -e 's/\x1b[()][A-Za-z0-9]//g' -e 's/\x1b[=>c]//g' -e 's/\r//g' \
  "$scratch/console.raw" >"$scratch/console.txt"
mcopy -i "$disk" ::/ZAPROM.Log "$scratch/ZAPROM.Log" 2>/dev/null
# The log may be written as 16-bit text; compare it as plain text.
if [ -f "$scratch/ZAPROM.Log" ] && head -c 2 "$scratch/ZAPROM.Log" | od -An -tx1 | grep -q 'ff fe'; then
  iconv -f UTF-16LE -t UTF-8 "$scratch/ZAPROM.Log" | sed 's/^\xef\xbb\xbf//; s/\r//g' >"$scratch/ZAPROM.Log.txt" &&
    mv "$scratch/ZAPROM.Log.txt" "$scratch/ZAPROM.Log"
fi

[ "$qemu_status" -eq 124 ] && fail "QEMU did not finish within 120 seconds"
[ "$qemu_status" -eq 0 ] || fail "QEMU ended with status $qemu_status"

# Each text must appear after the one before it.
expect_in_order() {
  local file=$1
  shift
  local from=1 text line
  for text in "$@"; do
    line=$(tail -n +"$from" "$file" | grep -n -F -m 1 -- "$text" | cut -d: -f1)
    [ -n "$line" ] || fail "\"$text\" missing from $(basename "$file") (or out of order)"
    from=$((from + line - 1))
  done
}

expect_in_order "$scratch/console.txt" "Error: OBLIS 10h failed." "Internal Error EF" "Function not supported." \
  "Error: Initialize" "OBLIS 10h failed."
# The host's load steps all worked: it reports each failed one on a line of its own.
if grep -F "ZAPROM-S: " "$scratch/console.txt" | grep -v -F "ZAPROM-S.efi"; then
  fail "a load step of ZAPROM-S failed"
fi
[ -f "$scratch/ZAPROM.Log" ] || fail "ZAPROM.Log was not written"
# ShellFlashMain opens its trace before it has seen -dbg, so its opening line is not in the log;
# its closing line is, with the reason.
expect_in_order "$scratch/ZAPROM.Log" "===> Initialize" "<=== Initialize (SMI_IsSupport fail)" \
  "<=== ShellFlashMain (Initialize failed)"
echo "PASS: the Shell ran ZAPROM-S, kobalt.efi loaded and reported the missing OBLIS service"
exit 0
