#!/usr/bin/env bash
# Regenerates the zip fixtures under tests/fixtures/ with the two writers packs
# most often come from besides our own: Info-ZIP and Python's zipfile. The
# results are committed, so the tests never need these tools; run this only to
# change a fixture. Afterwards it checks that archives written by ZipWriter pass
# `unzip -t` and Python's zipfile.testzip() (the unit tests run the same check
# when the tools are installed, and skip it otherwise).
#
# Needs (Debian 12): zip unzip python3; a built build/kelvo-tests for the check.
#
# What comes out (contents the tests know by heart):
#   zip-infozip.zip  Info-ZIP `zip -6`: "hello.txt" ("hello zip\n" x 200, deflated),
#                    "audio/wav-s16.wav" (the WAV fixture, stored via -n .wav),
#                    an archive comment, and Info-ZIP's extra fields, whose
#                    lengths differ between local and central headers
#   zip-python-dd.zip Python zipfile writing to a pipe, so every entry has a
#                    data descriptor and zeros in its local sizes:
#                    "a.txt" ("data descriptor\n" x 100, deflated),
#                    "empty.txt" (empty, deflated: a 2-byte stream),
#                    "b.bin" (bytes 0..255 x 4, stored)
set -euo pipefail
cd "$(dirname "$0")/.."
out=tests/fixtures
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for tool in zip unzip python3; do
  command -v "$tool" >/dev/null || { echo "make-zip-fixtures: $tool is missing" >&2; exit 1; }
done

mkdir -p "$work/tree/audio"
for _ in $(seq 200); do echo "hello zip"; done >"$work/tree/hello.txt"
cp "$out/wav-s16.wav" "$work/tree/audio/wav-s16.wav"
# Fixed times, so a rerun gives the same bytes.
touch -d '2024-01-02 03:04:05 UTC' "$work/tree/hello.txt" "$work/tree/audio/wav-s16.wav" "$work/tree/audio"
rm -f "$out/zip-infozip.zip"
(cd "$work/tree" && echo "a comment at the end of the archive" |
  TZ=UTC zip -q -6 -z -n .wav "$OLDPWD/$out/zip-infozip.zip" hello.txt audio/wav-s16.wav)

python3 - "$out/zip-python-dd.zip" <<'EOF'
import io, sys, zipfile

class Pipe(io.RawIOBase):
    """A sink that cannot seek, which makes zipfile write data descriptors."""
    def __init__(self, f): self.f = f
    def writable(self): return True
    def write(self, b): return self.f.write(b)

def entry(name, method):
    info = zipfile.ZipInfo(name, date_time=(2024, 1, 2, 3, 4, 6))
    info.compress_type = method
    return info

with open(sys.argv[1], 'wb') as raw, zipfile.ZipFile(Pipe(raw), 'w') as z:
    z.writestr(entry('a.txt', zipfile.ZIP_DEFLATED), b'data descriptor\n' * 100)
    z.writestr(entry('empty.txt', zipfile.ZIP_DEFLATED), b'')
    z.writestr(entry('b.bin', zipfile.ZIP_STORED), bytes(range(256)) * 4)
EOF

unzip -tq "$out/zip-infozip.zip"
unzip -tq "$out/zip-python-dd.zip"
ls -l "$out"/zip-*.zip

# The other direction: what ZipWriter makes must satisfy both tools.
if [[ -x build/kelvo-tests ]]; then
  build/kelvo-tests --gtest_filter='Zip.OtherToolsAcceptWhatWeWrite' --gtest_brief=1
else
  echo "make-zip-fixtures: build/kelvo-tests is not built; skipped the check of ZipWriter output" >&2
fi
