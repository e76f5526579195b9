#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, skipping what is already there.
set -euo pipefail
packages=(cmake g++ libgtest-dev nlohmann-json3-dev gnu-efi ovmf-ia32 qemu-system-x86 mtools dosfstools
          uefitool-cli tmux python3 coreboot-utils clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
