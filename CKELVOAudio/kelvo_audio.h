/* The C decoding module: whole MP3 and Ogg Vorbis files held in memory,
 * decoded to mono 32-bit float samples (channels averaged). MP3 goes through
 * libmpg123, Ogg Vorbis through stb_vorbis.
 *
 * Thread-safe: every call uses its own decoder state. Cost: one pass over the
 * stream; memory is the decoded mono samples plus bounded decoder state. A
 * stream that would decode to more than KELVO_AUDIO_MAX_FRAMES frames is
 * refused rather than allowed to exhaust memory.
 */
#ifndef KELVO_AUDIO_H
#define KELVO_AUDIO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* About 12 minutes at 44.1 kHz: far beyond any reference clip. */
#define KELVO_AUDIO_MAX_FRAMES (UINT64_C(1) << 25)

/* kelvo_ogg_decode's answer for an Ogg stream that carries Opus. */
#define KELVO_AUDIO_OPUS (-2)

/* Decodes a whole MP3 stream. Returns 1 and sets the three outputs (a new
 * array of `*frames` mono samples at `*sampleRate` Hz, released with
 * kelvo_audio_free), or 0 on any failure: a null argument, length 0, no
 * decodable frame. */
int kelvo_mp3_decode(const uint8_t* data, uint64_t length, float** samples, uint64_t* frames,
                     uint32_t* sampleRate);

/* Decodes a whole Ogg Vorbis stream like kelvo_mp3_decode. Returns 1 on
 * success, 0 on failure (null argument, length 0 or >= 2^31, not Vorbis,
 * corrupt), KELVO_AUDIO_OPUS when "OpusHead" occurs in the first 512 bytes. */
int kelvo_ogg_decode(const uint8_t* data, uint64_t length, float** samples, uint64_t* frames,
                     uint32_t* sampleRate);

/* Releases an array returned by either decoder; NULL is ignored. */
void kelvo_audio_free(float* samples);

#ifdef __cplusplus
}
#endif

#endif
