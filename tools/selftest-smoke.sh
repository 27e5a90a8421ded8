#!/bin/sh
# Runs `kelvo-selftest smoke` in two fresh data roots. Without an engine it
# must exit 1 with exactly one failed check, naming what is missing; with the
# inference double installed as engine/s2 beside a dummy model it must pass
# every check. Usage: selftest-smoke.sh <kelvo-selftest> <s2_double.py>
set -u
selftest=$1
double=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
unset KELVO_ENGINE_DIR

out=$(KELVO_HOME="$home/empty" "$selftest" smoke)
status=$?
printf '%s\n' "$out"
[ "$status" -eq 1 ] || { echo "smoke without an engine: exit $status, expected 1"; exit 1; }
[ "$(printf '%s\n' "$out" | grep -c '^✗')" -eq 1 ] || { echo "expected exactly one failed check"; exit 1; }
printf '%s\n' "$out" | grep -q '^✗ .*engine/s2, models/\*\.gguf' || { echo "the failure must name what is missing"; exit 1; }

mkdir -p "$home/full/engine" "$home/full/models"
cp "$double" "$home/full/engine/s2"
chmod 755 "$home/full/engine/s2"
printf 'gguf' > "$home/full/models/x.gguf"
out=$(KELVO_HOME="$home/full" "$selftest" smoke)
status=$?
printf '%s\n' "$out"
[ "$status" -eq 0 ] || { echo "smoke against the double: exit $status"; cat "$home/full/logs/s2-engine.log"; exit 1; }
if printf '%s\n' "$out" | grep -q '^✗'; then exit 1; fi
[ "$(printf '%s\n' "$out" | grep -c '^✓')" -eq 8 ] || { echo "expected eight passed checks"; exit 1; }
if grep -q 'protocol mistake' "$home/full/logs/s2-engine.log"; then cat "$home/full/logs/s2-engine.log"; exit 1; fi
