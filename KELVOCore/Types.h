// Core records shared by every part of KELVO: requests, results, errors, voices,
// engine parameters, decoded audio, and the small text helpers that normalise
// what clients send (languages, airlines, speeds).
//
// Everything here is a plain value: copied on assignment, no shared state, no
// locks, so any thread may use any of it freely. Text is UTF-8 in std::string.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kelvo {

using Bytes = std::vector<std::uint8_t>;
using TimePoint = std::chrono::system_clock::time_point;

namespace KELVO {
inline constexpr float speedMin = 0.5f;
inline constexpr float speedMax = 2.0f;
inline constexpr std::int64_t defaultSampleRate = 44100;
inline constexpr std::int64_t defaultHttpPort = 17150;
inline constexpr std::int64_t s2DefMaxTokens = 1024;
inline constexpr float s2DefTemperature = 0.58f;
inline constexpr float s2DefTopP = 0.8f;
inline constexpr std::int64_t s2DefTopK = 40;
inline constexpr float s2DefRepPenalty = 1.1f;
}  // namespace KELVO

// ---- Enumerations -----------------------------------------------------------

// Wire form of `automatic` is "default", not "auto": clients have always sent
// "default" for "no preference".
enum class TtsGender : int { automatic = 0, female = 1, male = 2 };
inline constexpr TtsGender allGenders[] = {TtsGender::automatic, TtsGender::female, TtsGender::male};
TtsGender parseGender(std::string_view code);  // lenient: f/female/女, m/male/男, else automatic
std::string_view code(TtsGender g);            // "default", "female", "male"
std::string_view zhName(TtsGender g);          // the localisation key of `display`
std::string display(TtsGender g);              // localised for the current UI language

enum class TtsPriority : int { normal = 0, high = 1 };

enum class TtsSpeedMode : int { engine = 0, localStretch = 1, localResample = 2 };
TtsSpeedMode parseSpeedMode(std::string_view code);  // "stretch", "resample", else engine
std::string_view code(TtsSpeedMode m);               // "engine", "stretch", "resample"
std::string display(TtsSpeedMode m);

// `metal` keeps its historical code: on this build it means "the GPU back-end".
enum class ComputeBackend : int { automatic = 0, cpu = 1, metal = 2 };
inline constexpr ComputeBackend allComputeBackends[] = {ComputeBackend::automatic, ComputeBackend::cpu,
                                                        ComputeBackend::metal};
ComputeBackend parseComputeBackend(std::string_view code);  // "cpu"; "metal"/"gpu"; else automatic
std::string_view code(ComputeBackend b);                    // "auto", "cpu", "metal"
std::string display(ComputeBackend b);

enum class VoiceKind : int { cloned = 0, profile = 1 };

// The forms a line is delivered in (names, types and encoders: AudioFormat.h).
enum class AudioFormat : int { wav, mp3, opus, flac, pcm };

// ---- Errors -------------------------------------------------------------------

enum class TtsErrorCode : int {
  none,
  emptyText,
  textTooLong,
  badVoice,
  badSpeed,
  badAudio,
  engineNotConnected,
  engineFailed,
  queueFull,
  timeout,
  cloneFailed,
  notFound,
  badPack,
};
std::string_view errorName(TtsErrorCode c);  // wire name, e.g. "engine_not_connected"
int httpStatus(TtsErrorCode c);              // `none` deliberately maps to 500

// The one exception type that crosses module boundaries. `message` is already
// localised by whoever throws it; what() returns it unchanged.
class TtsError : public std::runtime_error {
 public:
  using Code = TtsErrorCode;
  TtsError(TtsErrorCode code, std::string message);
  TtsErrorCode code;
  std::string message;
  int httpStatus() const { return kelvo::httpStatus(code); }
};

// ---- Records ------------------------------------------------------------------

struct TtsRequest {
  std::string text;
  std::string airline;   // ICAO code, upper case after normalize()
  std::string language;  // as given; the pipeline applies normLang
  TtsGender gender = TtsGender::automatic;
  float speed = 1.0f;
  std::string voiceId;
  std::string style;
  TtsPriority priority = TtsPriority::normal;
  std::int64_t sampleRate = 0;  // 0 = service default
  std::int64_t seed = 0;

  // Trims text, airline (also upper-cased), style and voiceId, clamps speed,
  // raises a negative sampleRate to 0 and unwraps a "[style]" in brackets.
  void normalize();
  // The text handed to the engine: "[style] text" when a style is set.
  std::string effectiveText() const;
  // The same, appended to `out` without a string of its own.
  void appendEffectiveText(std::string& out) const;
  // One log line: "[lang/gender/voice xSPEED style] text".
  std::string describe() const;
  static TtsRequest make(std::string text, std::string language, TtsGender gender, float speed);
};

struct TtsResult {
  Bytes wav;  // the audio in `format`: the WAV itself unless a client asked for another format
  std::int64_t sampleRate = 0;
  std::int64_t channels = 0;
  std::int64_t durationMs = 0;
  std::int64_t synthMs = 0;
  std::string voiceId;
  std::string language;
  TtsGender gender = TtsGender::automatic;
  float speed = 1.0f;
  std::string engine;
  std::string etag;  // for another format than WAV, the tag of that variant (AudioFormat.h: variantTag)
  bool fromCache = false;
  AudioFormat format = AudioFormat::wav;
  bool isEmpty() const { return wav.empty(); }
};

struct VoiceClip {
  std::string fileName;  // inside the voice's folder; always made by the library
  std::string text;      // transcript
  std::int64_t durationMs = 0;
};

struct VoiceInfo {
  std::string id;
  std::string display;
  VoiceKind kind = VoiceKind::cloned;
  std::string profileFile;
  std::vector<VoiceClip> clips;
  std::string language;
  TtsGender gender = TtsGender::automatic;
  std::string style;
  std::string note;
  std::int64_t seed = 0;
  TimePoint createdAt = std::chrono::system_clock::now();
  // An empty VoiceInfo is the "no voice" value.
  bool isEmpty() const { return id.empty(); }
};

struct VoiceClipInput {
  Bytes audio;  // WAV, MP3 or Ogg Vorbis
  std::string text;
};

struct VoiceCloneSpec {
  std::string display;
  std::string language;
  TtsGender gender = TtsGender::automatic;
  std::vector<VoiceClipInput> clips;
  std::string style;
  std::string note;
};

struct VoiceHint {
  std::string language;
  TtsGender gender = TtsGender::automatic;
  std::int64_t seed = 0;
  std::string display;
  VoiceHint() = default;
  explicit VoiceHint(const VoiceInfo& voice)
      : language(voice.language), gender(voice.gender), seed(voice.seed), display(voice.display) {}
};

struct S2Params {
  std::string text;
  Bytes referenceAudio;  // WAV of the reference voice; empty when a profile is used
  std::string referenceText;
  std::string voiceProfile;
  std::int64_t maxNewTokens = KELVO::s2DefMaxTokens;
  float temperature = KELVO::s2DefTemperature;
  float topP = KELVO::s2DefTopP;
  std::int64_t topK = KELVO::s2DefTopK;
  float repetitionPenalty = KELVO::s2DefRepPenalty;
  std::int64_t seed = 0;
  static S2Params defaults() { return {}; }
};

// Decoded mono audio, samples nominally in -1..1.
struct PcmBuffer {
  std::vector<float> data;
  std::int64_t sampleRate = 0;
  bool isEmpty() const { return data.empty(); }
  // round(count / rate * 1000), half away from zero; 0 without a usable rate.
  std::int64_t durationMs() const;
  static PcmBuffer silence(std::int64_t sampleRate, double ms);
};

struct CheckResult {
  std::string name;
  bool ok = false;
  std::string detail;
};

// ---- Text helpers ----------------------------------------------------------------

// Strips the full Unicode white-space set (U+3000, U+00A0, line separators …)
// from both ends, as clients paste text from everywhere.
std::string trimmed(std::string_view s);
std::string toLower(std::string_view s);  // Unicode-aware, locale-independent
std::string toUpper(std::string_view s);
// Length limits and log excerpts count characters as Unicode code points; an
// ill-formed byte counts as one.
std::int64_t characterCount(std::string_view s);
// The first `count` characters of `s`, never cutting one in half.
std::string firstCharacters(std::string_view s, std::int64_t count);

std::string normAirline(std::string_view s);  // trimmed + upper case, nothing else
// A bare lower-case language code ("zh-CN" -> "zh", "JA_jp" -> "ja", "cn" -> "zh");
// "auto" and anything not made of a-z give "".
std::string normLang(std::string_view s);
std::string langDisplay(std::string_view code);   // "中文", or localised "自动" for auto
std::string langWithCode(std::string_view code);  // "中文 (zh)", or "自动 (auto)"
const std::vector<std::string>& commonLanguages();  // the 28 codes of the language table
float clampSpeed(float v);  // 1.0 for v <= 0 or NaN, else limited to speedMin..speedMax

// printf-style formatting into a string of any length; std::string arguments
// may be passed as they are. A format the C library rejects comes back as is.
template <typename... Args>
std::string formatText(const std::string& format, const Args&... args);

// SHA-256 as 64 upper-case hex digits.
std::string sha256Utf8(std::string_view s);
std::string sha256Bytes(std::span<const std::uint8_t> data);

// ---- implementation of formatText -------------------------------------------
namespace text_detail {
template <typename A>
auto printable(const A& a) {
  if constexpr (std::is_same_v<A, std::string>) {
    return a.c_str();
  } else {
    return a;
  }
}
}  // namespace text_detail

template <typename... Args>
std::string formatText(const std::string& format, const Args&... args) {
  const int needed = std::snprintf(nullptr, 0, format.c_str(), text_detail::printable(args)...);
  if (needed < 0) return format;
  std::string out(static_cast<std::size_t>(needed) + 1, '\0');
  std::snprintf(out.data(), out.size(), format.c_str(), text_detail::printable(args)...);
  out.resize(static_cast<std::size_t>(needed));
  return out;
}

}  // namespace kelvo
