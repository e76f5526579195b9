#!/usr/bin/env bash
# Installs what is missing, builds the host side and the IA32 UEFI binaries, and runs every
# test: unit tests, scenario runs of zaprom-sim, and the boot of the IA32 binaries in QEMU; then
# the suite and the demos once more under ASan and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build
cmake --build build -j"$(nproc)"
ctest --test-dir build --output-on-failure -j"$(nproc)"
bash scripts/sanitize.sh
