#include "CKELVOAudio/kelvo_audio.h"
#include "CKELVOAudio/vorbis_guard.h"

#include <mpg123.h>
#include <stdlib.h>
#include <string.h>

#define STB_VORBIS_HEADER_ONLY
#define STB_VORBIS_NO_STDIO
#include <stb_vorbis.h>

/* MP3 input goes to the decoder in pieces, so it never holds a second copy
 * of a large file. */
#define MP3_FEED_BYTES 16384
/* stb_vorbis keeps all its state in one block: the comments, whose size is
 * known before it starts, plus this much for codebooks and the rest; a stream
 * whose setup asks for more is refused instead of steering our allocations.
 * libvorbis output needs about 220 KB. */
#define VORBIS_SETUP_BYTES (2 * 1024 * 1024)
/* The longest Vorbis block is 8192 samples, of which 4096 come out per frame. */
#define VORBIS_MAX_FRAME 4096
#define OPUS_SCAN_BYTES 512

/* The growing mono output of one decode. */
typedef struct {
  float* samples;
  uint64_t frames;
  uint64_t capacity;
} MonoSink;

/* Makes room for `more` frames; 0 when that would pass the frame limit or
 * memory runs out. */
static int sink_reserve(MonoSink* sink, uint64_t more) {
  if (more > KELVO_AUDIO_MAX_FRAMES - sink->frames) return 0;
  const uint64_t need = sink->frames + more;
  if (need <= sink->capacity) return 1;
  uint64_t capacity = sink->capacity ? sink->capacity : 16384;
  while (capacity < need) capacity *= 2;
  if (capacity > KELVO_AUDIO_MAX_FRAMES) capacity = KELVO_AUDIO_MAX_FRAMES;
  float* grown = realloc(sink->samples, (size_t)capacity * sizeof(float));
  if (!grown) return 0;
  sink->samples = grown;
  sink->capacity = capacity;
  return 1;
}

static int sink_add_float(MonoSink* sink, const float* interleaved, uint64_t frames, int channels) {
  if (!sink_reserve(sink, frames)) return 0;
  float* out = sink->samples + sink->frames;
  if (channels == 1) {
    memcpy(out, interleaved, (size_t)frames * sizeof(float));
  } else {
    for (uint64_t f = 0; f < frames; ++f, interleaved += channels) {
      float sum = 0.0f;
      for (int c = 0; c < channels; ++c) sum += interleaved[c];
      out[f] = sum / (float)channels;
    }
  }
  sink->frames += frames;
  return 1;
}

static int sink_add_short(MonoSink* sink, const short* interleaved, uint64_t frames, int channels) {
  if (!sink_reserve(sink, frames)) return 0;
  float* out = sink->samples + sink->frames;
  for (uint64_t f = 0; f < frames; ++f, interleaved += channels) {
    int sum = 0;
    for (int c = 0; c < channels; ++c) sum += interleaved[c];
    out[f] = (float)sum / (float)channels * (1.0f / 32768.0f);
  }
  sink->frames += frames;
  return 1;
}

/* Hands the sink to the caller when it holds audio, else releases it. */
static int sink_finish(MonoSink* sink, uint32_t rate, float** samples, uint64_t* frames, uint32_t* sampleRate) {
  if (sink->frames == 0 || rate == 0) {
    free(sink->samples);
    return 0;
  }
  *samples = sink->samples;
  *frames = sink->frames;
  *sampleRate = rate;
  return 1;
}

/* Only 32-bit float output, at any rate and channel count the stream has. */
static int mp3_configure(mpg123_handle* mh) {
  const long* rates = NULL;
  size_t count = 0;
  if (mpg123_param(mh, MPG123_ADD_FLAGS, MPG123_QUIET, 0.0) != MPG123_OK) return 0;
  if (mpg123_format_none(mh) != MPG123_OK) return 0;
  mpg123_rates(&rates, &count);
  for (size_t i = 0; i < count; ++i) {
    if (mpg123_format(mh, rates[i], MPG123_MONO | MPG123_STEREO, MPG123_ENC_FLOAT_32) != MPG123_OK) return 0;
  }
  return mpg123_open_feed(mh) == MPG123_OK;
}

/* Feeds the stream piece by piece and drains the decoder after each piece.
 * A decoding error ends the stream with what was decoded before it. */
static void mp3_decode_all(mpg123_handle* mh, const uint8_t* data, uint64_t length, MonoSink* sink,
                           uint32_t* rate) {
  float block[8192];
  int channels = 0;
  uint64_t fed = 0;
  for (;;) {
    size_t done = 0;
    const int rc = mpg123_read(mh, block, sizeof block, &done);
    if (rc == MPG123_NEW_FORMAT) {
      long newRate = 0;
      int encoding = 0;
      if (mpg123_getformat(mh, &newRate, &channels, &encoding) != MPG123_OK || channels < 1 ||
          encoding != MPG123_ENC_FLOAT_32 || newRate < 1) {
        return;
      }
      if (*rate == 0) *rate = (uint32_t)newRate;
      continue;
    }
    if (done > 0 && channels > 0 &&
        !sink_add_float(sink, block, done / sizeof(float) / (size_t)channels, channels)) {
      sink->frames = 0; /* over the limit: refuse the whole stream */
      return;
    }
    if (rc == MPG123_OK) continue;
    if (rc != MPG123_NEED_MORE || fed == length) return;
    const uint64_t piece = length - fed < MP3_FEED_BYTES ? length - fed : MP3_FEED_BYTES;
    if (mpg123_feed(mh, data + fed, (size_t)piece) != MPG123_OK) return;
    fed += piece;
  }
}

int kelvo_mp3_decode(const uint8_t* data, uint64_t length, float** samples, uint64_t* frames,
                     uint32_t* sampleRate) {
  if (!data || !samples || !frames || !sampleRate || length == 0) return 0;
  mpg123_handle* mh = mpg123_new(NULL, NULL);
  if (!mh) return 0;
  MonoSink sink = {NULL, 0, 0};
  uint32_t rate = 0;
  if (mp3_configure(mh)) mp3_decode_all(mh, data, length, &sink, &rate);
  mpg123_delete(mh);
  return sink_finish(&sink, rate, samples, frames, sampleRate);
}

static int carries_opus(const uint8_t* data, uint64_t length) {
  const uint64_t scan = length < OPUS_SCAN_BYTES ? length : OPUS_SCAN_BYTES;
  for (uint64_t i = 0; i + 8 <= scan; ++i) {
    if (memcmp(data + i, "OpusHead", 8) == 0) return 1;
  }
  return 0;
}

int kelvo_ogg_decode(const uint8_t* data, uint64_t length, float** samples, uint64_t* frames,
                     uint32_t* sampleRate) {
  if (!data || !samples || !frames || !sampleRate || length == 0 || length >= (UINT64_C(1) << 31)) return 0;
  if (carries_opus(data, length)) return KELVO_AUDIO_OPUS;
  uint64_t commentBytes = 0;
  if (!kelvo_vorbis_headers_fit(data, length, &commentBytes)) return 0;

  const int arenaBytes = (int)(commentBytes + VORBIS_SETUP_BYTES);
  stb_vorbis_alloc arena = {malloc((size_t)arenaBytes), arenaBytes};
  if (!arena.alloc_buffer) return 0;
  int error = 0;
  stb_vorbis* vorbis = stb_vorbis_open_memory(data, (int)length, &error, &arena);
  MonoSink sink = {NULL, 0, 0};
  uint32_t rate = 0;
  if (vorbis) {
    const stb_vorbis_info info = stb_vorbis_get_info(vorbis);
    short* block = info.channels >= 1 ? malloc((size_t)info.channels * VORBIS_MAX_FRAME * sizeof(short)) : NULL;
    if (block && info.sample_rate > 0) {
      rate = info.sample_rate;
      int got;
      while ((got = stb_vorbis_get_frame_short_interleaved(vorbis, info.channels, block,
                                                            info.channels * VORBIS_MAX_FRAME)) > 0) {
        if (!sink_add_short(&sink, block, (uint64_t)got, info.channels)) {
          sink.frames = 0;
          break;
        }
      }
    }
    free(block);
    stb_vorbis_close(vorbis);
  }
  free(arena.alloc_buffer);
  return sink_finish(&sink, rate, samples, frames, sampleRate);
}

void kelvo_audio_free(float* samples) { free(samples); }
