#include "CKELVOAudio/vorbis_guard.h"

#include <string.h>

/* A codebook's entries times dimensions sizes its lookup tables; real
 * encoders stay far below this, and stb_vorbis's int arithmetic far above. */
#define MAX_LOOKUP_CELLS (UINT64_C(1) << 24)

/* The bytes of one Ogg packet, segment by segment, across pages. */
typedef struct {
  const uint8_t* data;
  uint64_t length;
  uint64_t table;     /* the current page's segment table */
  unsigned segments;  /* on the current page */
  unsigned segment;   /* index of the next one */
  uint64_t next;      /* where the next segment's bytes start */
  uint64_t pos, end;  /* unread bytes of the current segment */
  int last;           /* the current segment ends the packet */
} OggPacket;

static int page_open(OggPacket* p, uint64_t at) {
  if (at > p->length || p->length - at < 27 || memcmp(p->data + at, "OggS", 4) != 0) return 0;
  p->segments = p->data[at + 26];
  if (p->length - at - 27 < p->segments) return 0;
  p->table = at + 27;
  p->segment = 0;
  p->next = p->table + p->segments;
  return 1;
}

static int next_segment(OggPacket* p) {
  if (p->last) return 0;
  while (p->segment == p->segments) {
    if (!page_open(p, p->next)) return 0;
  }
  const unsigned size = p->data[p->table + p->segment++];
  p->pos = p->next;
  p->end = p->next + size;
  p->next = p->end;
  p->last = size < 255;
  return p->end <= p->length;
}

/* Consumes `count` bytes of the packet, keeping the first four in `out` when
 * it is not NULL; 0 when the packet ends first. */
static int take(OggPacket* p, uint64_t count, uint8_t* out) {
  uint64_t kept = 0;
  while (count > 0) {
    if (p->pos == p->end && !next_segment(p)) return 0;
    uint64_t piece = p->end - p->pos;
    if (piece > count) piece = count;
    for (uint64_t i = 0; out && i < piece && kept < 4; ++i) out[kept++] = p->data[p->pos + i];
    p->pos += piece;
    count -= piece;
  }
  return 1;
}

static int take_u32(OggPacket* p, uint32_t* value) {
  uint8_t b[4];
  if (!take(p, 4, b)) return 0;
  *value = (uint32_t)b[0] | ((uint32_t)b[1] << 8) | ((uint32_t)b[2] << 16) | ((uint32_t)b[3] << 24);
  return 1;
}

/* Drops the rest of the current packet; the next read starts the next one. */
static void finish_packet(OggPacket* p) {
  while (next_segment(p)) {
  }
  p->pos = p->end;
  p->last = 0;
}

static uint64_t arena_bytes(uint64_t size) { return (size + 7) & ~(uint64_t)7; }

/* The comment packet: vendor, count, and count strings, each with its u32
 * length. 0 when a field runs past the packet or the total is too large. */
static int comments_fit(OggPacket* p, uint64_t* needed) {
  uint32_t vendor = 0, count = 0;
  if (!take(p, 7, NULL) || !take_u32(p, &vendor) || !take(p, vendor, NULL) || !take_u32(p, &count)) return 0;
  *needed = arena_bytes((uint64_t)vendor + 1);
  if (count > INT32_MAX) return 1; /* read as a negative count: no list at all */
  *needed += arena_bytes((uint64_t)count * sizeof(char*));
  for (uint32_t i = 0; i < count && *needed <= KELVO_VORBIS_MAX_COMMENT_BYTES; ++i) {
    uint32_t size = 0;
    if (!take_u32(p, &size) || !take(p, size, NULL)) return 0;
    *needed += arena_bytes((uint64_t)size + 1);
  }
  return *needed <= KELVO_VORBIS_MAX_COMMENT_BYTES;
}

/* Bits of a packet, least significant first, as Vorbis packs them. */
typedef struct {
  OggPacket* packet;
  uint64_t acc;
  int bits;
} Bits;

static int bits(Bits* b, int n, uint32_t* value) {
  while (b->bits < n) {
    uint8_t byte = 0;
    if (!take(b->packet, 1, &byte)) return 0;
    b->acc |= (uint64_t)byte << b->bits;
    b->bits += 8;
  }
  *value = (uint32_t)(b->acc & ((UINT64_C(1) << n) - 1));
  b->acc >>= n;
  b->bits -= n;
  return 1;
}

/* Bits needed for n: 0 for 0, 1 for 1, 2 for 2..3 and so on. */
static int bit_length(uint32_t n) {
  int length = 0;
  for (; n; n >>= 1) ++length;
  return length;
}

/* The largest r with r^dimensions <= entries. */
static uint64_t lookup1_values(uint32_t entries, uint32_t dimensions) {
  uint64_t r = 0;
  for (;;) {
    uint64_t power = 1;
    uint32_t d = 0;
    for (; d < dimensions && power <= entries; ++d) power *= r + 1;
    if (d < dimensions || power > entries) return r;
    ++r;
  }
}

/* Walks one codebook. Returns 1 to go on, 0 to stop the walk (stb_vorbis
 * stops there too, or the packet ended) and -1 when the codebook's lookup
 * table would overflow stb_vorbis's arithmetic. */
static int codebook(Bits* b) {
  uint32_t sync = 0, dimensions = 0, entries = 0, ordered = 0, sparse = 0, v = 0;
  if (!bits(b, 24, &sync) || sync != 0x564342 || !bits(b, 16, &dimensions) || !bits(b, 24, &entries) ||
      !bits(b, 1, &ordered)) {
    return 0;
  }
  if (!ordered && !bits(b, 1, &sparse)) return 0;
  if (dimensions == 0 && entries != 0) return 0;
  if (ordered) {
    uint32_t length = 0, current = 0;
    if (!bits(b, 5, &length)) return 0;
    for (++length; current < entries; ++length) {
      if (!bits(b, bit_length(entries - current), &v)) return 0;
      if (length >= 32 || v > entries - current) return 0;
      current += v;
    }
  } else {
    for (uint32_t j = 0; j < entries; ++j) {
      uint32_t present = 1;
      if (sparse && !bits(b, 1, &present)) return 0;
      if (present && (!bits(b, 5, &v) || v == 31)) return 0;
    }
  }
  uint32_t lookup = 0, valueBits = 0;
  if (!bits(b, 4, &lookup) || lookup > 2) return 0;
  if (lookup == 0) return 1;
  if ((uint64_t)entries * dimensions > MAX_LOOKUP_CELLS) return -1;
  if (!bits(b, 32, &v) || !bits(b, 32, &v) || !bits(b, 4, &valueBits) || !bits(b, 1, &v)) return 0;
  const uint64_t values = lookup == 1 ? lookup1_values(entries, dimensions) : (uint64_t)entries * dimensions;
  for (uint64_t j = 0; j < values; ++j) {
    if (!bits(b, (int)valueBits + 1, &v)) return 0;
  }
  return values > 0;
}

static int setup_fits(OggPacket* p) {
  uint32_t count = 0;
  Bits b = {p, 0, 0};
  if (!take(p, 7, NULL) || !bits(&b, 8, &count)) return 1;
  for (uint32_t i = 0; i <= count; ++i) {
    const int walked = codebook(&b);
    if (walked <= 0) return walked == 0;
  }
  return 1;
}

int kelvo_vorbis_headers_fit(const uint8_t* data, uint64_t length, uint64_t* commentBytes) {
  /* stb_vorbis insists on a first page holding just the 30-byte
   * identification packet; the comment packet starts on the page after it
   * and the setup packet right after the comments. */
  OggPacket p = {data, length, 0, 0, 0, 0, 0, 0, 0};
  *commentBytes = 0;
  if (!page_open(&p, 0) || p.segments != 1 || data[p.table] != 30) return 0;
  if (!page_open(&p, p.next + 30) || !comments_fit(&p, commentBytes)) return 0;
  finish_packet(&p);
  return setup_fits(&p);
}
