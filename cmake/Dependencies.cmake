# Every dependency is a Debian 12 package; scripts/deps.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_package(nlohmann_json 3 REQUIRED)
# The cache index is read with simdjson: at 100,000 lines nlohmann alone would
# hold up the start for about a second.
find_package(simdjson REQUIRED)
# Asio and Beast are header-only: the HTTP server needs no Boost library.
find_package(Boost 1.81 REQUIRED)
# libcurl talks to the inference process and the online services. Only its
# header is built against; the library is opened at run time (CurlLoader.cpp).
find_package(CURL REQUIRED)
find_package(ZLIB REQUIRED)
# The update check reads the release feed's Atom fallback with a real XML parser.
find_package(pugixml REQUIRED)
pkg_check_modules(FONTCONFIG REQUIRED IMPORTED_TARGET fontconfig)
pkg_check_modules(MPG123 REQUIRED IMPORTED_TARGET libmpg123)
# Local playback; only the player talks to it.
pkg_check_modules(ALSA REQUIRED IMPORTED_TARGET alsa)
# Only the directory of stb_vorbis.h: the decoder is compiled into CKELVOAudio.
pkg_check_modules(STB REQUIRED stb)
if(KELVO_TESTS)
  find_package(GTest REQUIRED)
endif()
if(KELVO_BENCH)
  find_package(benchmark REQUIRED)
  # The reference time-stretcher the benchmarks compare against; nothing else links it.
  pkg_check_modules(SOUNDTOUCH REQUIRED IMPORTED_TARGET soundtouch)
endif()
# Compressed audio out: MP3, Ogg Opus and FLAC encoders, each used by one file.
pkg_check_modules(LAME REQUIRED IMPORTED_TARGET lame)
pkg_check_modules(OPUSENC REQUIRED IMPORTED_TARGET libopusenc)
pkg_check_modules(FLAC REQUIRED IMPORTED_TARGET flac)
