#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/debian-packages.txt that are not installed yet.
# Idempotent and non-interactive: with everything present it changes nothing and asks nothing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
missing=()
while read -r pkg; do
  pkg="${pkg%%#*}"; pkg="${pkg//[[:space:]]/}"
  [ -n "$pkg" ] || continue
  status="$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)"
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done < "$here/debian-packages.txt"
[ "${#missing[@]}" -eq 0 ] && exit 0
echo "install-deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
