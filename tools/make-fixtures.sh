#!/usr/bin/env bash
# Regenerates the audio fixtures under tests/fixtures/ from speech synthesised
# with espeak-ng. The generated files are committed, so the tests never need
# these tools; run this only to change or add a fixture.
#
# Needs (Debian 12): espeak-ng sox lame vorbis-tools opus-tools python3
#
# What comes out:
#   speech.wav              16 kHz mono 16-bit speech, the reference for the codecs
#   speech-mono.mp3         the same as MP3 (LAME tag, so decoders can trim the padding)
#   speech-left.mp3         stereo MP3: the speech on the left, silence on the right
#   speech.ogg              Ogg Vorbis, mono
#   speech-left.ogg         Ogg Vorbis, stereo, speech left and silence right
#   speech.opus             Ogg Opus, which the decoder must refuse
#   wav-s16.wav             0.3 s of the speech, the reference for the WAV layouts
#   wav-u8.wav wav-s24.wav wav-s32.wav wav-f32.wav
#                           the same in other sample formats (s24 is WAVE_FORMAT_EXTENSIBLE)
#   wav-stereo.wav          left the speech, right the speech times -0.5
#   wav-ext-f32.wav         extensible, 32-bit float sub-format
#   wav-list-odd.wav        a 5-byte LIST chunk (with its pad byte) before "fmt "
#   wav-fmt-after-data.wav  "data" first, "fmt " last
#   wav-truncated.wav       data chunk declares twice what is there, cut mid-sample
#   wav-12bit-sync.wav      12-bit PCM (refused) whose samples contain an MPEG sync
set -euo pipefail
cd "$(dirname "$0")/.."
out=tests/fixtures
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for tool in espeak-ng sox lame oggenc opusenc python3; do
  command -v "$tool" >/dev/null || { echo "make-fixtures: $tool is missing" >&2; exit 1; }
done

espeak-ng -v en-us -s 170 -w "$work/raw.wav" "Welcome aboard, flight two four seven."
sox "$work/raw.wav" -r 16000 -c 1 -b 16 "$out/speech.wav" trim 0.05 1.6
sox "$out/speech.wav" -c 2 "$work/left.wav" remix 1 0

lame --quiet -T -m m -b 64 "$out/speech.wav" "$out/speech-mono.mp3"
lame --quiet -T -m s -b 48 "$work/left.wav" "$out/speech-left.mp3"
oggenc --quiet -q 0 --serial 1 -o "$out/speech.ogg" "$out/speech.wav"
oggenc --quiet -q 0 --serial 2 -o "$out/speech-left.ogg" "$work/left.wav"
opusenc --quiet --bitrate 16 --serial 3 "$out/speech.wav" "$out/speech.opus"

sox "$out/speech.wav" "$out/wav-s16.wav" trim 0.3 0.3
sox "$out/wav-s16.wav" -e unsigned -b 8 "$out/wav-u8.wav"
sox "$out/wav-s16.wav" -b 24 "$out/wav-s24.wav"
# wavpcm: a plain 32-bit integer header. sox would otherwise write it as
# extensible, and 32-bit extensible files are read as float.
sox "$out/wav-s16.wav" -b 32 -e signed -t wavpcm "$out/wav-s32.wav"
sox "$out/wav-s16.wav" -b 32 -e float "$out/wav-f32.wav"
sox "$out/wav-s16.wav" -c 2 -b 16 "$out/wav-stereo.wav" remix 1 1v-0.5

python3 - "$out" <<'EOF'
import struct, sys
out = sys.argv[1]

def chunks(path):
    data = open(path, 'rb').read()
    pos, found = 12, {}
    while pos + 8 <= len(data):
        cid, size = data[pos:pos + 4], struct.unpack('<I', data[pos + 4:pos + 8])[0]
        found[cid] = data[pos + 8:pos + 8 + size]
        pos += 8 + size + (size & 1)
    return found

def chunk(cid, body, declared=None):
    size = len(body) if declared is None else declared
    return cid + struct.pack('<I', size) + body + (b'\0' if len(body) & 1 else b'')

def riff(*parts):
    body = b'WAVE' + b''.join(parts)
    return b'RIFF' + struct.pack('<I', len(body)) + body

def fmt(tag, channels, rate, bits, extra=b''):
    align = channels * bits // 8
    return struct.pack('<HHIIHH', tag, channels, rate, rate * align, align, bits) + extra

ref = chunks(f'{out}/wav-s16.wav')
pcm16, fmt16 = ref[b'data'], ref[b'fmt ']
floats = chunks(f'{out}/wav-f32.wav')[b'data']

open(f'{out}/wav-list-odd.wav', 'wb').write(
    riff(chunk(b'LIST', b'INFOx'), chunk(b'fmt ', fmt16), chunk(b'data', pcm16)))
open(f'{out}/wav-fmt-after-data.wav', 'wb').write(
    riff(chunk(b'data', pcm16), chunk(b'fact', struct.pack('<I', len(pcm16) // 2)), chunk(b'fmt ', fmt16)))
half = len(pcm16) // 2 + 1  # ends in the middle of a sample
open(f'{out}/wav-truncated.wav', 'wb').write(
    riff(chunk(b'fmt ', fmt16), b'data' + struct.pack('<I', len(pcm16) * 2) + pcm16[:half]))
float_guid = bytes.fromhex('0300000000001000800000aa00389b71')
extensible = struct.pack('<HHI', 22, 32, 4) + float_guid
open(f'{out}/wav-ext-f32.wav', 'wb').write(
    riff(chunk(b'fmt ', fmt(0xFFFE, 1, 16000, 32, extensible)), chunk(b'data', floats)))
samples12 = bytes([0x10, 0xFF, 0xF0, 0x20] * 64)
open(f'{out}/wav-12bit-sync.wav', 'wb').write(
    riff(chunk(b'fmt ', fmt(1, 1, 16000, 12)), chunk(b'data', samples12)))
EOF

ls -l "$out"
du -ch "$out"/* | tail -1
