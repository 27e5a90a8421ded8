#!/usr/bin/env bash
# Installs the Debian 12 packages the build needs, and only when one is missing,
# so a second run costs a dpkg query and nothing more. Works as root or via sudo.
set -euo pipefail

KELVO_PACKAGES=(
  cmake ninja-build g++ pkg-config
  libssl-dev libicu-dev nlohmann-json3-dev libsimdjson-dev libfontconfig-dev
  python3 libmpg123-dev libstb-dev libboost1.81-dev libcurl4-openssl-dev libcli11-dev zlib1g-dev
  libasound2-dev
  libgtest-dev libgmock-dev libbenchmark-dev libsoundtouch-dev
  libpugixml-dev
  scdoc dpkg-dev file lintian
)

missing=()
for pkg in "${KELVO_PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "kelvo: installing Debian packages: ${missing[*]}" >&2
as_root=()
[[ $(id -u) -eq 0 ]] || as_root=(sudo)
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
