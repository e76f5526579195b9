#!/usr/bin/env bash
# The tool's main job on the embedded default machine: builds a demo image whose BIOS version is
# newer than the machine's, and flashes it block by block with the trace on. The flash file is
# kept in build/demo, so running this again shows every block comparing equal and nothing
# written. Remove build/demo to start from the machine's original flash.
#
# With the argument "capsule" it shows the road the firmware starts instead: a launcher that
# carries the driver, which carries a newer 4 MB image, an EC image and its settings, run on the
# simulated 4 MB machine. Its flash and EC are kept in build/demo-capsule, so a second run shows
# every BIOS block comparing equal; the EC has no compare and is sent again.
set -euo pipefail
cd "$(dirname "$0")/.."
road=${1:-shell}
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target zaprom-sim zaprom-image
status=0
if [ "$road" = capsule ]; then
  work=build/demo-capsule
  mkdir -p "$work"
  ./build/zaprom-image build examples/images/part-4mb-newer.json -o "$work/new.fd"
  # 128 KB of EC firmware, the size the machine's EC reports; the same bytes on every run.
  python3 -c 'import sys; sys.stdout.buffer.write(bytes((i * 7 + i // 4096) & 0xFF for i in range(0x20000)))' \
    > "$work/ec.bin"
  printf '[Log_file]\r\nFlag=1\r\nLevel=4\r\n[FlashComplete]\r\nAction=0\r\n' > "$work/platform.ini"
  ./build/zaprom-image pack-driver -o "$work/driver.bin" --bios "$work/new.fd" --ec "$work/ec.bin" \
    --ini "$work/platform.ini"
  ./build/zaprom-image pack-launcher --driver "$work/driver.bin" -o "$work/kobaltApp.bin"
  ./build/zaprom-image show "$work/kobaltApp.bin"
  echo
  ./build/zaprom-sim --machine examples/machines/part-4mb.json --volume "$work" --flash "$work/flash.bin" \
    --ec "$work/ec-content.bin" --trace-smi "$work/smi.jsonl" --launcher "$work/kobaltApp.bin" || status=$?
  if cmp -s "$work/ec.bin" "$work/ec-content.bin"; then echo "---- the EC holds the carried EC image"; fi
else
  work=build/demo
  mkdir -p "$work"
  ./build/zaprom-image build examples/images/demo-newer.json -o "$work/demo-newer.fd"
  ./build/zaprom-sim --volume "$work" --flash "$work/flash.bin" --trace-smi "$work/smi.jsonl" -- demo-newer.fd -dbg ||
    status=$?
fi
echo
echo "---- zaprom-sim exit status: $status (the log is $work/ZAPROM.Log, the SMI trace $work/smi.jsonl)"
exit "$status"
