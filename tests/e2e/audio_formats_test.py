#!/usr/bin/env python3
"""Compressed audio end to end: lines spoken by the real `kelvo serve` in every
format, through both the OpenAI-compatible and the native route, decoded by
Debian's own decoders (mpg123, opusdec, flac, sox) and held against the WAV of
the same line; the encoded variants are cached beside it."""
import array
import math
import os
import subprocess
import sys
import tempfile
import unittest
import wave

os.environ.setdefault("KELVO_BIN", sys.argv.pop(1) if len(sys.argv) > 1 else "build/kelvo")
from serve_test import Server, free_port  # noqa: E402  (reads KELVO_BIN)

# Each format's independent decoder: (input, output WAV) -> command.
DECODERS = {
    "mp3": lambda src, dst: ["mpg123", "-q", "-w", dst, src],
    "opus": lambda src, dst: ["opusdec", "--quiet", src, dst],
    "flac": lambda src, dst: ["flac", "-s", "-d", "-f", "-o", dst, src],
    "wav": lambda src, dst: ["sox", src, dst],
    "pcm": lambda src, dst: ["sox", "-t", "raw", "-r", "24000", "-e", "signed", "-b", "16", "-c", "1", "-L",
                             src, dst],
}
LINES = {"en": "Flight KV 12 to Lisbon is now boarding at gate B 12",
         "zh": "各位旅客请注意,KV12 次航班现在开始登机,请到 B12 号登机口"}


def read_wav(path):
    with wave.open(path) as w:
        assert w.getsampwidth() == 2 and w.getnchannels() == 1, path
        samples = array.array("h", w.readframes(w.getnframes()))
        return samples, w.getframerate()


def rms(samples):
    return math.sqrt(sum(s * s for s in samples) / max(len(samples), 1))


class AudioFormatsTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-formats-")
        self.srv = Server(self.home, free_port())

    def tearDown(self):
        self.srv.stop()
        subprocess.run(["rm", "-rf", self.home], check=False)

    def speak(self, language, fmt, headers=None):
        # zh goes through the native route's "format", en through the OpenAI route.
        if language == "zh":
            return self.srv.request("POST", "/v1/tts", {"text": LINES[language], "language": language,
                                                        "format": fmt}, headers)
        return self.srv.request("POST", "/v1/audio/speech", {"model": "tts-1", "input": LINES[language],
                                                             "language": language, "response_format": fmt}, headers)

    def test_every_format_decodes_to_the_line_and_is_cached(self):
        cache = os.path.join(self.home, "temp")
        for language in LINES:
            status, headers, _ = self.srv.request("POST", "/v1/tts", {"text": LINES[language], "language": language})
            self.assertEqual(status, 200)
            wav_path = os.path.join(self.home, f"{language}.wav")
            with open(wav_path, "wb") as f:
                f.write(self.srv.request("POST", "/v1/tts", {"text": LINES[language], "language": language})[2])
            reference, rate = read_wav(wav_path)
            seconds = len(reference) / rate
            tag = headers["ETag"]
            for fmt, decoder in DECODERS.items():
                with self.subTest(language=language, format=fmt):
                    status, headers, body = self.speak(language, fmt)
                    self.assertEqual(status, 200, body[:200])
                    self.assertEqual(headers["X-KELVO-Cache"], "hit")  # the WAV entry serves every format
                    src = os.path.join(self.home, f"{language}.{fmt}")
                    dst = src + ".decoded.wav"
                    with open(src, "wb") as f:
                        f.write(body)
                    run = subprocess.run(decoder(src, dst), capture_output=True, text=True)
                    self.assertEqual(run.returncode, 0, run.stderr)
                    decoded, decoded_rate = read_wav(dst)
                    self.assertEqual(decoded_rate, int(headers["X-KELVO-Sample-Rate"]))
                    self.assertAlmostEqual(len(decoded) / decoded_rate, seconds, delta=0.02 * seconds)
                    self.assertAlmostEqual(rms(decoded) / rms(reference), 1.0, delta=0.25)
                    if fmt in ("flac", "wav"):
                        self.assertEqual(decoded, reference)  # lossless: every sample as stored

                    # The variant is stored beside the WAV under the entry's tag, and served
                    # from there: the same bytes (Opus would differ in its random serial number).
                    self.assertEqual(headers["ETag"], tag if fmt == "wav" else f"{tag}.{fmt}")
                    self.assertEqual(os.path.exists(os.path.join(cache, headers["ETag"])), fmt != "wav")
                    status, again_headers, again = self.speak(language, fmt)
                    self.assertEqual((status, again), (200, body))
                    status, _, empty = self.speak(language, fmt, {"If-None-Match": headers["ETag"]})
                    self.assertEqual((status, empty), (304, b""))

        _, stats = self.srv.json("GET", "/v1/stats")
        on_disk = sum(os.path.getsize(os.path.join(cache, n)) for n in os.listdir(cache) if not n.startswith("index"))
        self.assertEqual(stats["cache_bytes"], on_disk)  # the variants count in the cache's size
        self.assertEqual(self.srv.json("DELETE", "/v1/cache"), (200, {"cleared": True}))
        self.assertEqual([n for n in os.listdir(cache) if not n.startswith("index")], [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
