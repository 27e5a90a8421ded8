#!/usr/bin/env bash
# Builds KELVO and runs the service in the foreground (Ctrl-C stops it).
# Extra arguments go to `kelvo serve`, e.g. scripts/run.sh --port 18000.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
exec build/kelvo serve "$@"
