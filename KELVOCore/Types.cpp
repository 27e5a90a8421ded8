#include "KELVOCore/Types.h"

#include <openssl/evp.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>

#include "KELVOCore/I18n.h"

namespace kelvo {

// ---- Enumerations -----------------------------------------------------------

TtsGender parseGender(std::string_view codeText) {
  const std::string c = toLower(trimmed(codeText));
  if (c == "female" || c == "f" || c == "女") return TtsGender::female;
  if (c == "male" || c == "m" || c == "男") return TtsGender::male;
  return TtsGender::automatic;
}

std::string_view code(TtsGender g) {
  switch (g) {
    case TtsGender::female: return "female";
    case TtsGender::male: return "male";
    case TtsGender::automatic: break;
  }
  return "default";
}

std::string_view zhName(TtsGender g) {
  switch (g) {
    case TtsGender::female: return "女声";
    case TtsGender::male: return "男声";
    case TtsGender::automatic: break;
  }
  return "默认";
}

std::string display(TtsGender g) { return T(zhName(g)); }

TtsSpeedMode parseSpeedMode(std::string_view codeText) {
  const std::string c = toLower(trimmed(codeText));
  if (c == "stretch") return TtsSpeedMode::localStretch;
  if (c == "resample") return TtsSpeedMode::localResample;
  return TtsSpeedMode::engine;
}

std::string_view code(TtsSpeedMode m) {
  switch (m) {
    case TtsSpeedMode::localStretch: return "stretch";
    case TtsSpeedMode::localResample: return "resample";
    case TtsSpeedMode::engine: break;
  }
  return "engine";
}

std::string display(TtsSpeedMode m) {
  switch (m) {
    case TtsSpeedMode::localStretch: return T("本地变速不变调(WSOLA)");
    case TtsSpeedMode::localResample: return T("本地重采样(变速也变调)");
    case TtsSpeedMode::engine: break;
  }
  return T("引擎原生 speed");
}

ComputeBackend parseComputeBackend(std::string_view codeText) {
  const std::string c = toLower(trimmed(codeText));
  if (c == "cpu") return ComputeBackend::cpu;
  if (c == "metal" || c == "gpu") return ComputeBackend::metal;
  return ComputeBackend::automatic;
}

std::string_view code(ComputeBackend b) {
  switch (b) {
    case ComputeBackend::cpu: return "cpu";
    case ComputeBackend::metal: return "metal";
    case ComputeBackend::automatic: break;
  }
  return "auto";
}

std::string display(ComputeBackend b) {
  switch (b) {
    case ComputeBackend::cpu: return T("CPU(任何机器都能跑,最慢)");
    case ComputeBackend::metal: return T("Metal(Apple 芯片 GPU)");
    case ComputeBackend::automatic: break;
  }
  return T("自动(有 Apple GPU 就用 Metal)");
}

// ---- Errors -------------------------------------------------------------------

namespace {
struct ErrorRow {
  std::string_view name;
  int status;
};
// Indexed by code - 1; `none` is outside the table on purpose.
constexpr std::array<ErrorRow, 12> errorRows{{
    {"empty_text", 400},
    {"text_too_long", 413},
    {"bad_voice", 404},
    {"bad_speed", 400},
    {"bad_audio", 400},
    {"engine_not_connected", 503},
    {"engine_failed", 500},
    {"queue_full", 503},
    {"timeout", 504},
    {"clone_failed", 500},
    {"not_found", 404},
    {"bad_pack", 400},
}};
}  // namespace

std::string_view errorName(TtsErrorCode c) {
  const int i = static_cast<int>(c) - 1;
  if (i < 0 || i >= static_cast<int>(errorRows.size())) return "ok";
  return errorRows[static_cast<std::size_t>(i)].name;
}

int httpStatus(TtsErrorCode c) {
  const int i = static_cast<int>(c) - 1;
  if (i < 0 || i >= static_cast<int>(errorRows.size())) return 500;
  return errorRows[static_cast<std::size_t>(i)].status;
}

TtsError::TtsError(TtsErrorCode c, std::string msg)
    : std::runtime_error(msg), code(c), message(std::move(msg)) {}

// ---- Records ------------------------------------------------------------------

void TtsRequest::normalize() {
  text = trimmed(text);
  airline = normAirline(airline);
  style = trimmed(style);
  voiceId = trimmed(voiceId);
  speed = clampSpeed(speed);
  if (sampleRate < 0) sampleRate = 0;
  if (style.size() >= 2 && style.front() == '[' && style.back() == ']') {
    style = trimmed(std::string_view(style).substr(1, style.size() - 2));
  }
}

std::string TtsRequest::effectiveText() const {
  std::string out;
  appendEffectiveText(out);
  return out;
}

void TtsRequest::appendEffectiveText(std::string& out) const {
  if (!style.empty()) {
    out += '[';
    out += style;
    out += "] ";
  }
  out += text;
}

std::string TtsRequest::describe() const {
  char speedText[32];
  std::snprintf(speedText, sizeof speedText, "%.2f", static_cast<double>(speed));
  std::string line = "[" + language + "/" + std::string(code(gender)) + "/" + (voiceId.empty() ? "-" : voiceId) +
                     " x" + speedText;
  if (!style.empty()) line += " " + style;
  return line + "] " + text;
}

TtsRequest TtsRequest::make(std::string text, std::string language, TtsGender gender, float speed) {
  TtsRequest r;
  r.text = std::move(text);
  r.language = std::move(language);
  r.gender = gender;
  r.speed = speed;
  r.normalize();
  return r;
}

std::int64_t PcmBuffer::durationMs() const {
  if (sampleRate < 1 || data.empty()) return 0;
  return static_cast<std::int64_t>(
      std::round(static_cast<double>(data.size()) / static_cast<double>(sampleRate) * 1000.0));
}

PcmBuffer PcmBuffer::silence(std::int64_t sampleRate, double ms) {
  PcmBuffer b;
  b.sampleRate = sampleRate;
  const double count = std::round(static_cast<double>(sampleRate) * ms / 1000.0);
  if (count >= 1) b.data.assign(static_cast<std::size_t>(count), 0.0f);
  return b;
}

// ---- Text helpers ----------------------------------------------------------------

std::string trimmed(std::string_view s) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
  const auto length = static_cast<std::int32_t>(s.size());
  std::int32_t start = 0;
  while (start < length) {
    std::int32_t next = start;
    UChar32 c;
    U8_NEXT(p, next, length, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    start = next;
  }
  std::int32_t end = length;
  while (end > start) {
    std::int32_t prev = end;
    UChar32 c;
    U8_PREV(p, start, prev, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    end = prev;
  }
  return std::string(s.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
}

namespace {
std::string caseMapped(std::string_view s, bool upper) {
  // Codes and ids are nearly always plain ASCII, and they are case-mapped on
  // every request; for them the root-locale mapping is the ASCII one, without
  // the round trip through UTF-16.
  if (std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::string out(s);
    for (char& c : out) {
      if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
      if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
  }
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<std::int32_t>(s.size())));
  if (upper) {
    u.toUpper(icu::Locale::getRoot());
  } else {
    u.toLower(icu::Locale::getRoot());
  }
  std::string out;
  u.toUTF8String(out);
  return out;
}
}  // namespace

std::string toLower(std::string_view s) { return caseMapped(s, false); }
std::string toUpper(std::string_view s) { return caseMapped(s, true); }

namespace {
// Byte offset just past the first `count` code points of `s` (or its size).
std::int32_t codePointsEnd(std::string_view s, std::int64_t count, std::int64_t& counted) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
  const auto length = static_cast<std::int32_t>(std::min<std::size_t>(s.size(), INT32_MAX));
  std::int32_t at = 0;
  counted = 0;
  while (at < length && counted < count) {
    UChar32 c;
    U8_NEXT(p, at, length, c);
    ++counted;
  }
  return at;
}
}  // namespace

std::int64_t characterCount(std::string_view s) {
  std::int64_t counted = 0;
  codePointsEnd(s, INT64_MAX, counted);
  return counted;
}

std::string firstCharacters(std::string_view s, std::int64_t count) {
  std::int64_t counted = 0;
  return std::string(s.substr(0, static_cast<std::size_t>(codePointsEnd(s, count, counted))));
}

std::string normAirline(std::string_view s) { return toUpper(trimmed(s)); }

std::string normLang(std::string_view s) {
  std::string c = toLower(trimmed(s));
  if (auto dash = c.find('-'); dash != std::string::npos) {
    c.resize(dash);
  } else if (auto underscore = c.find('_'); underscore != std::string::npos) {
    c.resize(underscore);
  }
  if (c == "auto") return "";
  if (c == "cn") return "zh";
  if (c == "jp") return "ja";
  if (c == "kr") return "ko";
  for (char ch : c) {
    if (ch < 'a' || ch > 'z') return "";
  }
  return c;
}

namespace {
struct LanguageRow {
  const char* code;
  const char* name;
};
constexpr LanguageRow languageTable[] = {
    {"zh", "中文"},      {"ja", "日本語"},   {"en", "English"},    {"ko", "한국어"},   {"es", "Español"},
    {"pt", "Português"}, {"fr", "Français"}, {"de", "Deutsch"},    {"ru", "Русский"},  {"ar", "العربية"},
    {"it", "Italiano"},  {"nl", "Nederlands"}, {"pl", "Polski"},   {"tr", "Türkçe"},   {"vi", "Tiếng Việt"},
    {"th", "ไทย"},       {"id", "Indonesia"}, {"hi", "हिन्दी"},      {"sv", "Svenska"},  {"da", "Dansk"},
    {"no", "Norsk"},     {"fi", "Suomi"},    {"cs", "Čeština"},    {"el", "Ελληνικά"}, {"he", "עברית"},
    {"uk", "Українська"}, {"ro", "Română"},  {"hu", "Magyar"},
};
}  // namespace

std::string langDisplay(std::string_view codeText) {
  const std::string c = normLang(codeText);
  if (c.empty()) return T("自动");
  for (const auto& row : languageTable) {
    if (c == row.code) return row.name;
  }
  return c;
}

std::string langWithCode(std::string_view codeText) {
  const std::string c = normLang(codeText);
  if (c.empty()) return T("自动") + " (auto)";
  return langDisplay(c) + " (" + c + ")";
}

const std::vector<std::string>& commonLanguages() {
  static const std::vector<std::string> codes = [] {
    std::vector<std::string> v;
    for (const auto& row : languageTable) v.emplace_back(row.code);
    return v;
  }();
  return codes;
}

float clampSpeed(float v) {
  if (!(v > 0.0f)) return 1.0f;
  return std::min(std::max(v, KELVO::speedMin), KELVO::speedMax);
}

std::string sha256Bytes(std::span<const std::uint8_t> data) {
  // Fetched once: EVP_sha256() makes every digest look the algorithm up
  // again behind the provider's locks, which showed on every cache hit.
  static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  // One context per thread, reset for each digest: EVP_Digest() makes and
  // frees one every time, which showed as much as the hashing itself.
  thread_local const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                                   EVP_MD_CTX_free);
  const EVP_MD* const algorithm = sha256 != nullptr ? sha256 : EVP_sha256();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const bool reused = context && EVP_DigestInit_ex2(context.get(), algorithm, nullptr) == 1 &&
                      EVP_DigestUpdate(context.get(), data.data(), data.size()) == 1 &&
                      EVP_DigestFinal_ex(context.get(), digest, &length) == 1;
  if (!reused) EVP_Digest(data.data(), data.size(), digest, &length, algorithm, nullptr);
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(hex[digest[i] >> 4]);
    out.push_back(hex[digest[i] & 0x0F]);
  }
  return out;
}

std::string sha256Utf8(std::string_view s) {
  return sha256Bytes(std::span(reinterpret_cast<const std::uint8_t*>(s.data()), s.size()));
}

}  // namespace kelvo
