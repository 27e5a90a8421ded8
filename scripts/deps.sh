#!/usr/bin/env bash
# Installs what the build and the tests need, and only what is missing, so a
# second run costs a dpkg query and a file comparison: the Debian 12 packages
# (as root or via sudo), then the pinned OpenAI Node SDK for the end-to-end
# test of the OpenAI-compatible route, into build/openai-sdk/.
set -euo pipefail
cd "$(dirname "$0")/.."

KELVO_PACKAGES=(
  cmake ninja-build g++ pkg-config
  libssl-dev libicu-dev nlohmann-json3-dev libsimdjson-dev libfontconfig-dev
  python3 libmpg123-dev libstb-dev libboost1.81-dev libcurl4-openssl-dev libcli11-dev zlib1g-dev
  libasound2-dev
  libgtest-dev libgmock-dev libbenchmark-dev libsoundtouch-dev
  libpugixml-dev
  python3-jsonschema python3-prometheus-client
  scdoc dpkg-dev file lintian
  libmp3lame-dev libopusenc-dev libflac-dev
  # Independent decoders the round-trip tests check the encoders against.
  mpg123 opus-tools flac sox
  nodejs
  # The browser console's tests: headless Chromium driven by Selenium.
  chromium chromium-driver python3-selenium
  # Chinese and Japanese glyphs for the console, in the browser and its screenshots.
  fonts-noto-cjk
)

missing=()
for pkg in "${KELVO_PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
# npm ships inside some Node.js builds; Debian's own package only when it is absent.
command -v npm >/dev/null || missing+=(npm)

if [[ ${#missing[@]} -gt 0 ]]; then
  echo "kelvo: installing Debian packages: ${missing[*]}" >&2
  as_root=()
  [[ $(id -u) -eq 0 ]] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The lock file pins the SDK and its checksum; the copy of it beside the
# installed modules says which lock they came from.
sdk_src=tests/e2e/openai-sdk
sdk_dir=build/openai-sdk
if ! cmp -s "$sdk_src/package-lock.json" "$sdk_dir/installed.lock"; then
  echo "kelvo: installing the OpenAI Node SDK into $sdk_dir" >&2
  rm -rf "$sdk_dir"
  mkdir -p "$sdk_dir"
  cp "$sdk_src/package.json" "$sdk_src/package-lock.json" "$sdk_dir/"
  npm ci --prefix "$sdk_dir" --no-audit --no-fund --loglevel=error
  cp "$sdk_src/package-lock.json" "$sdk_dir/installed.lock"
fi
