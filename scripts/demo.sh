#!/usr/bin/env bash
# The tool's main job on the embedded default machine: builds a demo image whose BIOS version is
# newer than the machine's, and flashes it block by block with the trace on. The flash file is
# kept in build/demo, so running this again shows every block comparing equal and nothing
# written. Remove build/demo to start from the machine's original flash.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target zaprom-sim zaprom-image
work=build/demo
mkdir -p "$work"
./build/zaprom-image build examples/images/demo-newer.json -o "$work/demo-newer.fd"
status=0
./build/zaprom-sim --volume "$work" --flash "$work/flash.bin" --trace-smi "$work/smi.jsonl" -- demo-newer.fd -dbg ||
  status=$?
echo
echo "---- zaprom-sim exit status: $status (the log is $work/ZAPROM.Log, the SMI trace $work/smi.jsonl)"
exit "$status"
