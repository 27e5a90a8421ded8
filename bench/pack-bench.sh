#!/usr/bin/env bash
# Clone-pack export and import against Info-ZIP on the same files, side by side:
# 20 voices x 3 clips of 10 s 44.1 kHz WAV (about 50 MB). Targets: each at most
# 1.5 x the time of `zip -6` / `unzip`, and the peak memory of an import at most
# twice the archive's size.
#
#   bench/pack-bench.sh [build-dir]      (default: build; needs kelvo-bench)
#
# Export and import times are Google Benchmark's mean of 3 rounds; zip and
# unzip are the best of 3 rounds, timed here. Peak memory is the maximum
# resident set of a process that does nothing but import (/usr/bin/time -v).
set -euo pipefail
cd "$(dirname "$0")/.."
bench="${1:-build}/kelvo-bench"
for tool in "$bench" zip unzip /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "pack-bench: $tool is missing" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KELVO_PACK_BENCH_DIR="$work"

# ms of one Google Benchmark run, given its filter.
kelvo_ms() {
  "$bench" --benchmark_filter="^$1/" --benchmark_format=json 2>/dev/null |
    awk -F'[:,]' '/"real_time"/ { printf "%d\n", $2; exit }'
}

# Best of 3 wall-clock runs of a command, in ms; `prepare` runs untimed before each.
best_ms() {
  local prepare=$1 best=
  shift
  for _ in 1 2 3; do
    eval "$prepare"
    local start end
    start=$(date +%s%N)
    "$@"
    end=$(date +%s%N)
    local ms=$(((end - start) / 1000000))
    [[ -z $best || $ms -lt $best ]] && best=$ms
  done
  echo "$best"
}

export_ms=$(kelvo_ms BM_PackExport)  # also leaves the library in src/ and the pack
clips=("$work"/src/clone/*.wav)
zip_ms=$(best_ms 'rm -f "$work/ref.zip"' zip -q -6 -j "$work/ref.zip" "${clips[@]}")
import_ms=$(kelvo_ms BM_PackImport)
unzip_ms=$(best_ms 'rm -rf "$work/unzipped"' unzip -q "$work/ref.zip" -d "$work/unzipped")
peak_kb=$(/usr/bin/time -v "$bench" --benchmark_filter='^BM_PackImport/' 2>&1 >/dev/null |
  awk -F': ' '/Maximum resident set size/ {print $2}')

pack_bytes=$(stat -c %s "$work/pack.cln")
zip_bytes=$(stat -c %s "$work/ref.zip")
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
echo "files: ${#clips[@]} clips, $(du -cb "${clips[@]}" | tail -1 | cut -f1) bytes; pack $pack_bytes bytes, zip -6 $zip_bytes bytes"
printf '%-8s %10s %10s %7s %s\n' step kelvo info-zip ratio goal
printf '%-8s %8s ms %8s ms %7s %s\n' export "$export_ms" "$zip_ms" "$(ratio "$export_ms" "$zip_ms")" "<= 1.5"
printf '%-8s %8s ms %8s ms %7s %s\n' import "$import_ms" "$unzip_ms" "$(ratio "$import_ms" "$unzip_ms")" "<= 1.5"
printf '%-8s %8s MB %8s MB %7s %s\n' "peak" "$((peak_kb / 1024))" "$((pack_bytes / 1048576))" \
  "$(ratio "$((peak_kb * 1024))" "$pack_bytes")" "<= 2 (import peak RSS / archive size)"
