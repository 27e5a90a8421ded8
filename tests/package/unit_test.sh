#!/bin/sh
# The systemd unit: `systemd-analyze verify` accepts it, `security` rates it at
# most 2.5 ("OK"), and, where systemd runs, `kelvo serve` started by
# systemd-run with the unit's own [Service] restrictions starts its engine
# child (the inference double) and speaks a line through it.
# Usage: unit_test.sh <kelvo> <kelvo.service.in> <s2_double.py>
set -u
kelvo=$(realpath "$1")
unit_in=$2
double=$3
command -v systemd-analyze >/dev/null || { echo "systemd is not installed"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }

unit=$work/kelvo.service
sed "s|@KELVO_BINDIR@|$(dirname "$kelvo")|" "$unit_in" >"$unit"
systemd-analyze verify --man=no "$unit" || fail "systemd-analyze verify refuses the unit"
report=$(systemd-analyze security --offline=true "$unit") || fail "systemd-analyze security failed"
score=$(printf '%s\n' "$report" | sed -n 's/.*Overall exposure level for kelvo.service: \([0-9.]*\).*/\1/p')
[ -n "$score" ] || fail "no overall exposure level in: $report"
awk -v s="$score" 'BEGIN { exit !(s <= 2.5) }' || fail "exposure $score is over 2.5:
$(printf '%s\n' "$report" | grep '✗')"
echo "exposure level $score"

if [ ! -d /run/systemd/system ]; then
  echo "systemd is not running here: the restrictions were not tried on a live service"
  exit 0
fi

# The same restrictions, on a data root of its own holding the inference double.
name=kelvo-unit-test-$$
root=/var/lib/$name
mkdir -p "$root/engine" "$root/models"
cp "$double" "$root/engine/s2" && chmod 755 "$root/engine/s2"
printf 'gguf' >"$root/models/x.gguf"
user=root
if getent passwd kelvo >/dev/null; then user=kelvo; chown -R kelvo:kelvo "$root"; fi
trap 'systemctl stop "$name" 2>/dev/null; rm -rf "$work" "$root"' EXIT
set --
while IFS= read -r line; do
  case $line in
    \#* | '' | \[*) ;;
    Type=* | User=* | Group=* | ExecStart=* | Restart* | Environment=* | StateDirectory* | WantedBy=*) ;;
    *) set -- "$@" -p "$line" ;;
  esac
done <<UNIT
$(sed -n '/^\[Service\]/,/^\[Install\]/p' "$unit")
UNIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
systemd-run --unit="$name" --collect -p Type=exec -p User="$user" -p ReadWritePaths="$root" \
  --setenv=KELVO_HOME="$root" "$@" "$kelvo" serve --bind 127.0.0.1 --port "$port" || fail "systemd-run failed"
python3 - "$port" <<'PY' || { journalctl -u "$name" --no-pager | tail -n 30; cat "$root/logs/s2-engine.log"; fail "no line spoken under the unit's restrictions"; }
import json, sys, time, urllib.request
base = f"http://127.0.0.1:{sys.argv[1]}"
deadline = time.monotonic() + 60
while time.monotonic() < deadline:
    try:
        if json.load(urllib.request.urlopen(base + "/v1/health", timeout=5))["engine_ready"]:
            break
    except OSError:
        pass
    time.sleep(0.2)
else:
    sys.exit("the engine child never became ready")
body = json.dumps({"text": "Boarding now at gate 4", "language": "en"}).encode()
reply = urllib.request.urlopen(urllib.request.Request(base + "/v1/tts", data=body, method="POST"), timeout=60)
engine = reply.headers["X-KELVO-Engine"]
if reply.status != 200 or engine == "placeholder":
    sys.exit(f"status {reply.status}, engine {engine}")
print("spoken by", engine, "under the unit's restrictions")
PY
