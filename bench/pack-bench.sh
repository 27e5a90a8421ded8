#!/usr/bin/env bash
# Clone-pack export and import against Info-ZIP on the same files, side by side:
# 20 voices x 3 clips of 10 s 44.1 kHz WAV (about 50 MB). Targets: each at most
# 1.5 x the time of `zip -6` / `unzip`, and the peak memory of an import at most
# twice the archive's size.
#
#   bench/pack-bench.sh [build-dir]      (default: build; needs kelvo-bench)
#
# Export and import times are Google Benchmark's mean of 3 rounds; zip and
# unzip are the fastest of 3 rounds. Wall and CPU time (user + system) are both
# shown: on a busy machine only the CPU times compare fairly. Peak memory is the
# maximum resident set of a process that does nothing but import.
set -euo pipefail
cd "$(dirname "$0")/.."
bench="${1:-build}/kelvo-bench"
for tool in "$bench" zip unzip /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "pack-bench: $tool is missing" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KELVO_PACK_BENCH_DIR="$work"

# "wall cpu" in ms of one Google Benchmark run (mean of its rounds), given its name.
kelvo_ms() {
  "$bench" --benchmark_filter="^$1/" --benchmark_format=json 2>/dev/null |
    awk -F'[:,]' '/"real_time"/ { wall = $2 } /"cpu_time"/ { cpu = $2 } END { printf "%d %d\n", wall, cpu }'
}

# "wall cpu" in ms of the fastest of 3 runs of a command; `prepare` runs untimed before each.
best_ms() {
  local prepare=$1 best=
  shift
  for _ in 1 2 3; do
    eval "$prepare"
    /usr/bin/time -f '%e %U %S' -o "$work/time" "$@"
    local run
    run=$(awk '{ printf "%d %d\n", $1 * 1000, ($2 + $3) * 1000 }' "$work/time")
    [[ -z $best || ${run% *} -lt ${best% *} ]] && best=$run
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
row() {  # step, kelvo "wall cpu", info-zip "wall cpu"
  local kw=${2% *} kc=${2#* } zw=${3% *} zc=${3#* }
  printf '%-7s %7s ms %7s ms %6s   %7s ms %7s ms %6s   <= 1.5\n' "$1" "$kw" "$zw" "$(ratio "$kw" "$zw")" \
    "$kc" "$zc" "$(ratio "$kc" "$zc")"
}
echo "files: ${#clips[@]} clips, $(du -cb "${clips[@]}" | tail -1 | cut -f1) bytes; pack $pack_bytes bytes, zip -6 $zip_bytes bytes"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-7s %10s %10s %6s   %10s %10s %6s   %s\n' step "kelvo" "info-zip" ratio "kelvo cpu" "zip cpu" ratio goal
row export "$export_ms" "$zip_ms"
row import "$import_ms" "$unzip_ms"
printf 'import peak RSS %d MB for a %d MB archive: %s x (goal <= 2)\n' "$((peak_kb / 1024))" \
  "$((pack_bytes / 1048576))" "$(ratio "$((peak_kb * 1024))" "$pack_bytes")"
