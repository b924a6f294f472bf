#!/usr/bin/env bash
# Installs the Debian packages the Linux build needs, only those missing.
# Usage: scripts/deps.sh [extra packages...]
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libsqlite3-dev libcjson-dev libgtest-dev libbenchmark-dev libcli11-dev libssl-dev "$@")

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
