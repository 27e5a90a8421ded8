#!/usr/bin/env bash
# Builds and runs the whole test suite (unit tests and the self-test binary).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
ctest --test-dir build --output-on-failure -j "$(nproc)"
