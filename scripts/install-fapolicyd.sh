#!/usr/bin/env bash
# Installs Debian's fapolicyd for the zorvd benchmark's comparison, and makes
# sure it never runs as a service: installed and started with its stock
# configuration it would watch every ext4 and tmpfs of the machine and deny
# every execution it does not trust. The unit is masked before the package
# arrives, and package scripts are kept from starting services meanwhile.
# The benchmark runs its own fapolicyd, in a mount namespace of its own.
set -euo pipefail

dpkg-query -W -f='${Status}' fapolicyd 2>/dev/null | grep -q 'install ok installed' && exit 0
[ "$(id -u)" -eq 0 ] || { echo "run as root" >&2; exit 2; }

mkdir -p /etc/systemd/system
ln -sf /dev/null /etc/systemd/system/fapolicyd.service

policy=/usr/sbin/policy-rc.d
ours=
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' > "$policy"
  chmod 755 "$policy"
  ours=1
fi
trap '[ -z "$ours" ] || rm -f "$policy"' EXIT

apt-get update -qq
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends fapolicyd
if pgrep -x fapolicyd > /dev/null; then
  echo "fapolicyd was started by its package; stopping it" >&2
  pkill -x fapolicyd
fi
