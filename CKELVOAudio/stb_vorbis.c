/* The stb_vorbis decoder itself, compiled once from the single-file library
 * that Debian's libstb-dev ships as a header. Only the memory reader is used. */
#define STB_VORBIS_NO_STDIO
#include <stb_vorbis.h>
