#!/usr/bin/env bash
# Installs the Debian packages the build, tests and tools need, when any is missing.
# Extra package names given as arguments are installed too (bench/run.sh adds python3-skimage).
set -euo pipefail
packages=(g++ cmake make libgtest-dev libtbb-dev libstb-dev libopenexr-dev libzstd-dev python3 python3-pil python3-numpy python3-zstandard "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
