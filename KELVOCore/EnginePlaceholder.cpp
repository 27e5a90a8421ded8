#include "KELVOCore/EnginePlaceholder.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <utility>

#include "KELVOCore/Dsp.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"

namespace kelvo {

namespace {

constexpr float twoPi = 2.0f * std::numbers::pi_v<float>;

// F1, F2, F3 in Hz of the five vowel colours, indexed by `Segment::vowel`.
constexpr std::array<std::array<std::int64_t, 3>, 5> formantsHz = {{
    {730, 1090, 2440},
    {270, 2290, 3010},
    {300, 870, 2240},
    {530, 1840, 2480},
    {570, 840, 2410},
}};

// Every formant is a whole number of Hz, so sin(2π·F·p/44100) repeats after
// 44100/g samples, g being the gcd of the rate and all formants (10 here). One
// period of sine, sampled once per process, replaces three sin() calls per
// sample: index (F/g · p) mod period gives the same function of the absolute
// sample position p, exactly and without the precision a float time loses as
// an utterance grows.
constexpr std::int64_t formantGcd = [] {
  std::int64_t g = PlaceholderEngine::sampleRate;
  for (const auto& row : formantsHz) {
    for (std::int64_t f : row) g = std::gcd(g, f);
  }
  return g;
}();
constexpr std::int64_t sinePeriod = PlaceholderEngine::sampleRate / formantGcd;

const std::vector<float>& sinePeriodTable() {
  static const std::vector<float> table = [] {
    std::vector<float> t(static_cast<std::size_t>(sinePeriod));
    for (std::int64_t k = 0; k < sinePeriod; ++k) {
      t[static_cast<std::size_t>(k)] =
          static_cast<float>(std::sin(2.0 * std::numbers::pi * static_cast<double>(k) / sinePeriod));
    }
    return t;
  }();
  return table;
}

constexpr std::array<char32_t, 13> pauseMarks = {U',',  U'.',  U'!',  U'?',  U';',  U':', U'，',
                                                 U'。', U'！', U'？', U'、', U'；', U'：'};
constexpr std::string_view fricativeLetters = "sSfFhHxXcCzZ";

bool isPauseMark(UChar32 c) { return std::find(pauseMarks.begin(), pauseMarks.end(), c) != pauseMarks.end(); }
bool isFricative(UChar32 c) {
  return c < 0x80 && fricativeLetters.find(static_cast<char>(c)) != std::string_view::npos;
}

// "Letter" is the Unicode Alphabetic property rather than the L* general
// category of u_isalpha: it also takes letter numbers and the vowel signs of
// Indic and Southeast Asian scripts, so a cluster that starts with one still
// sounds. "Number" is any Numeric_Type, not only the decimal digits of
// u_isdigit: ², ½, Ⅻ and ①, spoken numbers in announcements, sound as well.
bool isLetterOrNumber(UChar32 c) {
  return u_isUAlphabetic(c) || u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

Segment pauseOf(std::int64_t ms) { return {SegmentKind::pause, ms, 0, 1.0f}; }

Segment soundOf(UChar32 c, bool fricative) {
  const auto scalar = static_cast<std::uint32_t>(c);
  return {fricative ? SegmentKind::fricative : SegmentKind::voiced, scalar > 0x2E80 ? 170 : 80,
          static_cast<std::int64_t>(scalar % 5), static_cast<float>(scalar & 3) * 0.25f / 3.0f + 0.75f};
}

float basePitch(TtsGender gender) {
  switch (gender) {
    case TtsGender::female:
      return 205.0f;
    case TtsGender::male:
      return 112.0f;
    case TtsGender::automatic:
      break;
  }
  return 155.0f;
}

std::uint32_t seedState(std::int64_t seed) {
  // Only the low 32 bits count: voice seeds are 64-bit hashes, and the audio
  // must not change with bits that a 32-bit client never sees.
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(seed)) * 0x9E3779B1u + 1u;
}

// Rise over the first twelfth, fall over the last eighth of a segment.
float envelope(std::int64_t j, std::int64_t n) {
  const float t = static_cast<float>(j) / static_cast<float>(n);
  return std::min({12.0f * t, 8.0f * (1.0f - t), 1.0f});
}

void renderFricative(float* out, std::int64_t n, float stress, std::uint32_t& noise) {
  for (std::int64_t j = 0; j < n; ++j) {
    noise = noise * 1664525u + 1013904223u;
    const float white = (static_cast<float>((noise >> 8) & 0xFFFFu) - 32768.0f) / 32768.0f;
    out[j] = white * 0.18f * envelope(j, n) * stress;
  }
}

// `p` is the absolute position of out[0] in the utterance: the formants run on
// utterance time, the glottal phase continues from the previous voiced segment.
void renderVoiced(float* out, std::int64_t n, std::int64_t p, std::int64_t vowel, float step, float stress,
                  float& phase) {
  if (vowel < 0 || vowel >= static_cast<std::int64_t>(formantsHz.size())) std::abort();
  const float* sine = sinePeriodTable().data();
  std::array<std::int64_t, 3> stride{};
  std::array<std::int64_t, 3> at{};
  for (std::size_t k = 0; k < 3; ++k) {
    stride[k] = formantsHz[static_cast<std::size_t>(vowel)][k] / formantGcd;
    at[k] = (stride[k] * p) % sinePeriod;
  }
  for (std::int64_t j = 0; j < n; ++j) {
    phase += step;
    if (phase > twoPi) phase -= twoPi;
    const float formants = sine[at[0]] + 0.55f * sine[at[1]] + 0.3f * sine[at[2]];
    const float glottal = std::max(std::sin(phase), 0.0f) * 0.65f + 0.35f;
    out[j] = envelope(j, n) * (glottal * formants * 0.22f) * stress;
    for (std::size_t k = 0; k < 3; ++k) {
      at[k] += stride[k];
      if (at[k] >= sinePeriod) at[k] -= sinePeriod;
    }
  }
}

}  // namespace

std::vector<Segment> placeholderSegments(std::string_view text) {
  const auto length =
      static_cast<std::int32_t>(std::min<std::size_t>(text.size(), std::numeric_limits<std::int32_t>::max()));
  const icu::UnicodeString u = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), length));
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> clusters(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status)) clusters.reset();
  if (clusters) clusters->setText(u);
  // Without ICU's break data (a broken installation) fall back to one code
  // point per character rather than fail.
  auto nextBoundary = [&](std::int32_t at) { return clusters ? clusters->following(at) : u.moveIndex32(at, 1); };

  std::vector<Segment> segments;
  bool inBrackets = false;
  for (std::int32_t start = 0; start < u.length();) {
    const std::int32_t end = nextBoundary(start);
    const UChar32 c = u.char32At(start);
    const bool single = end - start == U16_LENGTH(c);
    start = end;
    if (single && c == U'[') {
      inBrackets = true;
    } else if (single && c == U']') {
      inBrackets = false;
    } else if (inBrackets) {
      continue;  // style tags such as "[calm]" are not spoken
    } else if (single && isPauseMark(c)) {
      segments.push_back(pauseOf(220));
    } else if (u_isUWhiteSpace(c)) {
      segments.push_back(pauseOf(70));
    } else if (isLetterOrNumber(c)) {
      segments.push_back(soundOf(c, single && isFricative(c)));
    }
  }
  segments.push_back(pauseOf(120));
  return segments;
}

std::int64_t segmentSamples(const Segment& segment) {
  return static_cast<std::int64_t>(
      std::round(static_cast<double>(segment.durationMs) * PlaceholderEngine::sampleRate / 1000.0));
}

float placeholderPitch(TtsGender gender, std::int64_t seed) {
  const std::uint32_t h = seedState(seed);
  return basePitch(gender) * (static_cast<float>((h >> 16) & 255u) * 0.3f / 255.0f + 0.85f);
}

float declination(std::size_t index, std::size_t count) {
  return 1.0f - 0.18f * static_cast<float>(index) / static_cast<float>(std::max<std::size_t>(count, 2) - 1);
}

PlaceholderEngine::PlaceholderEngine(EngineOptions options) : opts_(std::move(options)) {}

std::string PlaceholderEngine::name() const { return "placeholder"; }
bool PlaceholderEngine::ready() const { return true; }
bool PlaceholderEngine::supportsNativeSpeed() const { return false; }

void PlaceholderEngine::configure(const EngineOptions& options) {
  std::lock_guard lock(mutex_);
  opts_ = options;
}

EngineOptions PlaceholderEngine::options() const {
  std::lock_guard lock(mutex_);
  return opts_;
}

EngineHealth PlaceholderEngine::checkHealth() {
  EngineHealth health;
  health.ready = true;
  health.backend = T("占位波形");
  health.detail = TF("%s 里还没有模型;这是可听的假音频,只用来验证链路", KELVOPaths::modelsDir());
  return health;
}

PcmBuffer PlaceholderEngine::synthesize(const S2Params& params, const VoiceHint& hint) {
  PcmBuffer pcm;
  pcm.sampleRate = sampleRate;
  if (trimmed(params.text).empty()) return pcm;
  // The untrimmed text: leading and trailing spaces are heard as pauses.
  const std::vector<Segment> segments = placeholderSegments(params.text);
  std::int64_t total = 0;
  for (const Segment& s : segments) total += segmentSamples(s);
  pcm.data.assign(static_cast<std::size_t>(total), 0.0f);

  const float f0 = placeholderPitch(hint.gender, hint.seed);
  std::uint32_t noise = seedState(hint.seed);
  float phase = 0.0f;
  std::int64_t p = 0;
  for (std::size_t i = 0; i < segments.size(); ++i) {
    const Segment& s = segments[i];
    const std::int64_t n = segmentSamples(s);
    float* out = pcm.data.data() + p;
    if (s.kind == SegmentKind::fricative) {
      renderFricative(out, n, s.stress, noise);
    } else if (s.kind == SegmentKind::voiced) {
      const float step = f0 * declination(i, segments.size()) * twoPi / static_cast<float>(sampleRate);
      renderVoiced(out, n, p, s.vowel, step, s.stress, phase);
    }
    p += n;
  }
  // A sound cut off at either end of the buffer would click.
  return fadeEdges(std::move(pcm), 10);
}

}  // namespace kelvo
