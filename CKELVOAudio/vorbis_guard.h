/* A check of the Ogg Vorbis headers before stb_vorbis reads them.
 *
 * stb_vorbis trusts header fields that size its allocations: comment counts
 * and lengths that run past their packet, and codebooks whose entries times
 * dimensions overflow its int arithmetic, make it write outside its memory
 * block, and a comment list larger than the block makes its clean-up read
 * through a null pointer. The check walks the comment and setup headers the
 * way stb_vorbis will, and refuses the stream when such a field occurs.
 *
 * Thread-safe (pure). Cost: one pass over the two header packets.
 */
#ifndef KELVO_VORBIS_GUARD_H
#define KELVO_VORBIS_GUARD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The largest comment block accepted, in bytes: stb_vorbis sizes in int. */
#define KELVO_VORBIS_MAX_COMMENT_BYTES (256 * 1024 * 1024)

/* 1 when stb_vorbis may read the stream, with `commentBytes` set to what its
 * comments will take of its memory block; 0 when it must not. Streams that
 * stb_vorbis refuses by itself may pass. */
int kelvo_vorbis_headers_fit(const uint8_t* data, uint64_t length, uint64_t* commentBytes);

#ifdef __cplusplus
}
#endif

#endif
