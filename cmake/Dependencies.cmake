# Every dependency is a Debian 12 package; scripts/deps.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_package(nlohmann_json 3 REQUIRED)
pkg_check_modules(FONTCONFIG REQUIRED IMPORTED_TARGET fontconfig)
pkg_check_modules(MPG123 REQUIRED IMPORTED_TARGET libmpg123)
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
