#!/usr/bin/env bash
# Builds and runs KELVO. Extra arguments go to the program.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
exec build/kelvo-selftest "$@"
