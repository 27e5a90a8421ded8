#include "KELVOCore/Voices.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <tuple>

#include "KELVOCore/Files.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;
using test::bytesOf;
using test::fixture;
using test::levelWav;
using test::loggedLine;
using test::thrown;

constexpr std::int64_t kRate = 16000;

// MP3 by its ID3 tag, with nothing a decoder can use after it.
Bytes brokenMp3() {
  Bytes b(400, 0x11);
  std::copy_n("ID3", 3, b.begin());
  return b;
}

VoiceCloneSpec spec(std::vector<VoiceClipInput> clips, std::string display = "Anna") {
  VoiceCloneSpec s;
  s.display = std::move(display);
  s.language = "en-GB";
  s.gender = TtsGender::female;
  s.clips = std::move(clips);
  return s;
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

class VoiceLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AppLog::clear();
    library.setConfig(config);
  }

  TtsRequest request(std::string airline, std::string language, TtsGender gender) {
    TtsRequest r = TtsRequest::make("hello", std::move(language), gender, 1.0f);
    r.airline = std::move(airline);
    return r;
  }

  test::ScopedUiLang ui{UiLang::en};
  test::TempDir dir;
  std::string voicesFile = dir.path() + "data/voices.json";
  std::string clipDir = dir.path() + "clone/";
  std::shared_ptr<AppConfig> config = std::make_shared<AppConfig>(dir.path() + "data/config.json");
  VoiceLibrary library{voicesFile, clipDir};
};

TEST(StableHash, IsDjb2OverUtf8WithWrapAround) {
  EXPECT_EQ(stableHash(""), 5381u);
  EXPECT_EQ(stableHash("hello"), 210714636441u);
  EXPECT_EQ(stableHash("中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文中文"),
            5019636452543278197u);
}

TEST_F(VoiceLibraryTest, IdsComeFromContentAndRepeatsGetSuffixes) {
  // sha256("abc") upper-case hex + "|hi\n", hashed again, first 12 digits.
  EXPECT_EQ(library.predictId(spec({{bytesOf("abc"), "hi"}})), "v-9f8065bd3cbe");

  const auto twoClips = spec({{levelWav(6000, 0.1f), " first words "}, {levelWav(7000, 0.2f), "second\n"}});
  const std::string predicted = library.predictId(twoClips);
  const VoiceInfo first = library.addClone(twoClips);
  EXPECT_EQ(std::tie(first.id, first.language), std::make_tuple(predicted, "en"));
  EXPECT_EQ(first.seed, static_cast<std::int64_t>(stableHash(first.id) & 0x7FFFFFFF));
  ASSERT_EQ(first.clips.size(), 2u);
  EXPECT_EQ(std::tie(first.clips[0].fileName, first.clips[0].text, first.clips[0].durationMs),
            std::make_tuple(first.id + "-0.wav", "first words", 6000));
  EXPECT_EQ(first.clips[1].fileName, first.id + "-1.wav");
  EXPECT_EQ(readFile(clipDir + first.clips[1].fileName), twoClips.clips[1].audio);  // stored as received

  const VoiceInfo second = library.addClone(twoClips);
  EXPECT_EQ(second.id, first.id + "-1");
  EXPECT_EQ(library.predictId(twoClips), first.id + "-2");
  EXPECT_EQ(library.count(), 2);
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "cloned voice "),
            "cloned voice Anna (" + first.id + ", 2 clip(s), 13.0 s total)");

  EXPECT_EQ(library.find(toUpper(second.id))->id, second.id);
  EXPECT_FALSE(library.find("v-nothing"));
  EXPECT_EQ(library.findByDisplay("Anna")->id, first.id);
  EXPECT_EQ(library.forLanguage("EN").size(), 2u);
  EXPECT_TRUE(library.forLanguage("ja").empty());
  EXPECT_EQ(VoiceLibrary::referenceText(first), "first words second");
}

TEST_F(VoiceLibraryTest, ClipDurationBoundaries) {
  const TtsError tooShort = thrown([&] { library.addClone(spec({{levelWav(999), "short"}})); });
  EXPECT_EQ(tooShort.code, TtsErrorCode::badAudio);
  EXPECT_EQ(tooShort.message, "the reference clip is only 999 ms, too short (5-30 s is recommended)");
  EXPECT_EQ(library.count(), 0);
  EXPECT_TRUE(filesIn(clipDir).empty());

  // Each doubt is logged and handed back to the caller, localised.
  std::vector<std::string> warnings;
  const VoiceInfo oneSecond = library.addClone(spec({{levelWav(1000), "one second"}}), &warnings);
  EXPECT_EQ(oneSecond.clips[0].durationMs, 1000);
  EXPECT_EQ(loggedLine("voices", LogLevel::warn, "reference audio is only"),
            "reference audio is only 1.0 s; 5-30 s is recommended, cloning may be unstable");
  EXPECT_EQ(warnings, std::vector<std::string>{
                          "the reference clip is only 1.0 s; 5-30 s is recommended, the cloned voice may be unstable"});

  AppLog::clear();
  warnings.clear();
  const VoiceInfo exact =
      library.addClone(spec({{levelWav(30000), "thirty seconds of words, read slowly and clearly"}}), &warnings);
  EXPECT_FALSE(loggedLine("voices", LogLevel::warn, ""));
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(library.referenceAudio(exact), readFile(clipDir + exact.clips[0].fileName));  // passed on unchanged

  // Over 30 s, and with 14 characters for 30 s of audio the transcript cannot be what the clip says.
  const VoiceInfo over = library.addClone(spec({{levelWav(30001), "a bit too long"}}), &warnings);
  EXPECT_EQ(over.clips[0].durationMs, 30001);
  EXPECT_EQ(loggedLine("voices", LogLevel::warn, "reference audio is 30 s"),
            "reference audio is 30 s, over the 30 s the engine takes; it will be trimmed");
  EXPECT_EQ(warnings, (std::vector<std::string>{
                          "the reference clip is 30 s, over the 30 s the engine takes; the rest will be cut off",
                          "30.0 s of audio has a transcript of only 14 characters; it should be exactly what the clip "
                          "says, or the cloned voice will mumble or skip words"}));
  const auto pcm = parseWav(library.referenceAudio(over).value_or(Bytes{}));
  ASSERT_TRUE(pcm);
  EXPECT_EQ(std::make_tuple(pcm->sampleRate, pcm->data.size()), std::make_tuple(kRate, std::size_t(30 * kRate)));
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "reference audio for"),
            "reference audio for Anna was 30 s; trimmed to 30 s before sending it to the engine");
}

TEST_F(VoiceLibraryTest, BadClipsAddNothingAndLeaveNoFiles) {
  const std::pair<VoiceCloneSpec, std::string> cases[] = {
      {spec({}), "cloning needs at least one reference clip"},
      {spec({{Bytes{}, "text"}}), "this clip has no audio data"},
      {spec({{levelWav(6000), " \n\t\u3000 "}}),
       "a reference clip needs its transcript (the engine requires reference_text)"},
      {spec({{bytesOf("plain text, not audio"), "text"}}), "this audio is not WAV, MP3 or Ogg"},
      // The good first clip is checked, the bad second one fails the whole clone.
      {spec({{levelWav(6000), "good"}, {levelWav(500), "bad"}}),
       "the reference clip is only 500 ms, too short (5-30 s is recommended)"},
      // Undecodable: an Ogg the engine would not take, and an MP3 no merge could use.
      {spec({{bytesOf("OggS this stream is cut off right after its capture pattern"), "broken ogg"}}),
       "cannot decode this ogg reference clip, so the voice could not speak. cannot decode the ogg (the file may be "
       "truncated or corrupt)."},
      {spec({{levelWav(6000), "good"}, {brokenMp3(), "broken mp3"}}),
       "cannot decode this mp3 reference clip, so the voice could not speak. "},
  };
  for (const auto& [s, message] : cases) {
    const TtsError e = thrown([&] { library.addClone(s); });
    EXPECT_EQ(e.code, TtsErrorCode::badAudio) << message;
    EXPECT_EQ(e.message, message);
  }
  EXPECT_EQ(library.count(), 0);
  EXPECT_TRUE(filesIn(clipDir).empty());

  // The second clip cannot be written (a folder sits where its file goes): the
  // first clip's file is taken back and no voice appears.
  const auto blocked = spec({{levelWav(6000, 0.3f), "one"}, {levelWav(6000, 0.4f), "two"}});
  const std::string id = library.predictId(blocked);
  fs::create_directories(clipDir + id + "-1.wav");
  const TtsError e = thrown([&] { library.addClone(blocked); });
  EXPECT_EQ(e.code, TtsErrorCode::cloneFailed);
  EXPECT_TRUE(e.message.starts_with("cannot save the reference audio: ")) << e.message;
  EXPECT_EQ(filesIn(clipDir), std::vector<std::string>{id + "-1.wav"});
  EXPECT_EQ(library.count(), 0);
}

TEST_F(VoiceLibraryTest, CompressedAndUndecodableClips) {
  // MP3 bytes that do not decode may still mean something to the engine when
  // they are the voice's only clip: kept, with no known duration and a warning.
  std::vector<std::string> warnings;
  const VoiceInfo mp3 = library.addClone(spec({{brokenMp3(), "broken mp3"}}), &warnings);
  EXPECT_EQ(mp3.clips[0].fileName, mp3.id + "-0.mp3");
  EXPECT_EQ(mp3.clips[0].durationMs, 0);
  EXPECT_EQ(library.referenceAudio(mp3), brokenMp3());  // the engine gets to try
  EXPECT_EQ(warnings, std::vector<std::string>{"cannot decode this mp3 clip; its length is unknown, the engine gets "
                                               "it as it is, and it cannot be merged with other clips"});

  // A decodable Ogg is re-encoded as WAV; MP3 goes to the engine unchanged.
  const VoiceInfo vorbis = library.addClone(spec({{fixture("speech.ogg"), "speech"}}));
  EXPECT_GT(vorbis.clips[0].durationMs, 0);
  const auto fromOgg = library.referenceAudio(vorbis);
  ASSERT_TRUE(fromOgg);
  EXPECT_EQ(wavDurationMs(*fromOgg), vorbis.clips[0].durationMs);
  const Bytes mp3Bytes = fixture("speech-mono.mp3");
  const VoiceInfo realMp3 = library.addClone(spec({{mp3Bytes, "speech"}}));
  EXPECT_GT(realMp3.clips[0].durationMs, 0);
  EXPECT_EQ(library.referenceAudio(realMp3), mp3Bytes);

  // An Ogg clip damaged after it was stored leaves a voice the engine cannot take.
  ASSERT_FALSE(writeFileAtomic(clipDir + vorbis.clips[0].fileName, bytesOf("OggS cut off")));
  EXPECT_FALSE(library.referenceAudio(vorbis));
  EXPECT_TRUE(loggedLine("voices", LogLevel::error,
                         "reference audio for Anna is ogg but cannot be decoded; the engine does not accept ogg, so "
                         "this voice is unusable. "));
}

TEST_F(VoiceLibraryTest, SeveralClipsMergeIntoThirtySeconds) {
  const VoiceInfo voice = library.addClone(
      spec({{levelWav(12000, 0.25f), "one"}, {levelWav(12000, 0.5f), "two"}, {levelWav(12000, 0.75f), "three"}}));
  const auto pcm = parseWav(library.referenceAudio(voice).value_or(Bytes{}));
  ASSERT_TRUE(pcm);
  ASSERT_EQ(pcm->data.size(), static_cast<std::size_t>(30 * kRate));  // 12 + 0.3 + 12 + 0.3 + 5.4
  const auto at = [&](double secondsIn) { return pcm->data[static_cast<std::size_t>(secondsIn * kRate)]; };
  EXPECT_NEAR(at(11.99), 0.25f, 1e-3);
  EXPECT_EQ(at(12.1), 0.0f);
  EXPECT_NEAR(at(12.31), 0.5f, 1e-3);
  EXPECT_EQ(at(24.45), 0.0f);
  EXPECT_NEAR(at(24.61), 0.75f, 1e-3);
  EXPECT_NEAR(pcm->data.back(), 0.75f, 1e-3);
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "merged the"),
            "merged the Anna reference clips into one - 3 clip(s), 30.0 s");

  // A clip at another rate is resampled to the first one's; a clip damaged
  // after it was stored is skipped; once 30 s are reached the rest is not even read.
  AppLog::clear();
  const VoiceInfo mixed = library.addClone(spec({{levelWav(2000, 0.25f), "a"},
                                                 {levelWav(1000, 0.5f, 8000), "b"},
                                                 {levelWav(1000, 0.9f), "c"},
                                                 {levelWav(30000, 0.1f), "d"},
                                                 {levelWav(5000, 0.2f), "e"}}));
  ASSERT_FALSE(writeFileAtomic(clipDir + mixed.clips[2].fileName, bytesOf("OggS broken")));
  const auto mixedPcm = parseWav(library.referenceAudio(mixed).value_or(Bytes{}));
  ASSERT_TRUE(mixedPcm);
  EXPECT_EQ(std::make_tuple(mixedPcm->sampleRate, mixedPcm->data.size()),
            std::make_tuple(kRate, std::size_t(30 * kRate)));
  EXPECT_NEAR(mixedPcm->data[static_cast<std::size_t>(2.3 * kRate) + 10], 0.5f, 1e-3);
  EXPECT_NEAR(mixedPcm->data[static_cast<std::size_t>(3.6 * kRate) + 10], 0.1f, 1e-3);
  EXPECT_EQ(loggedLine("voices", LogLevel::warn, "cannot decode this clip"),
            "cannot decode this clip, skipping it in the merge: " + mixed.id + "-2.wav");
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "merged reference audio"),
            "merged reference audio already reached 30.0 s (the engine takes at most 30 s); skipping the rest");
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "merged the"),
            "merged the Anna reference clips into one - 3 clip(s), 30.0 s");

  // Clips that stop just short of 30 s leave no room for the pause before the
  // next one: the pause is cut too, and the merge still ends at 30 s exactly.
  const VoiceInfo brim = library.addClone(
      spec({{levelWav(14800, 0.25f), "one"}, {levelWav(14800, 0.5f), "two"}, {levelWav(5000, 0.75f), "three"}}));
  const auto brimPcm = parseWav(library.referenceAudio(brim).value_or(Bytes{}));
  ASSERT_TRUE(brimPcm);
  EXPECT_EQ(brimPcm->data.size(), static_cast<std::size_t>(30 * kRate));  // 14.8 + 0.3 + 14.8 + 0.1 of pause

  VoiceInfo none;
  EXPECT_FALSE(library.referenceAudio(none));
}

TEST_F(VoiceLibraryTest, ClipsAreAddedAndRemovedWithoutCollisions) {
  const VoiceInfo voice = library.addClone(spec({{levelWav(6000, 0.1f), "a"}, {levelWav(6000, 0.2f), "b"}}));
  EXPECT_FALSE(library.removeClip(voice.id, 2));
  EXPECT_FALSE(library.removeClip(voice.id, -1));
  EXPECT_FALSE(library.removeClip("v-unknown", 0));
  EXPECT_TRUE(library.removeClip(voice.id, 0));
  EXPECT_EQ(filesIn(clipDir), std::vector<std::string>{voice.id + "-1.wav"});

  // Removing the only clip is refused and changes nothing.
  const TtsError last = thrown([&] { library.removeClip(voice.id, 0); });
  EXPECT_EQ(last.message, "this is the last reference clip - delete the whole voice instead");
  EXPECT_EQ(library.find(voice.id)->clips.size(), 1u);
  EXPECT_EQ(filesIn(clipDir).size(), 1u);

  // Index 1 is still in use by the remaining clip, so the new one becomes 2.
  const VoiceInfo grown = library.addClip(voice.id, {levelWav(4000, 0.3f), "c"});
  ASSERT_EQ(grown.clips.size(), 2u);
  EXPECT_EQ(grown.clips[1].fileName, voice.id + "-2.wav");
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "added a clip to "),
            "added a clip to Anna (" + voice.id + "), now 2 clip(s), 10.0 s");

  const TtsError unknown = thrown([&] { library.addClip("v-missing", {levelWav(4000), "x"}); });
  EXPECT_EQ(std::tie(unknown.code, unknown.message),
            std::make_tuple(TtsErrorCode::badVoice, "no such voice: v-missing"));
  EXPECT_EQ(thrown([&] { library.addClip(voice.id, {levelWav(4000), ""}); }).code, TtsErrorCode::badAudio);

  VoiceLibrary reread(voicesFile, clipDir);  // the grown voice was saved
  reread.load();
  EXPECT_EQ(reread.find(voice.id)->clips.size(), 2u);
}

TEST_F(VoiceLibraryTest, RemovingAVoiceDeletesItsFilesAndBindings) {
  const VoiceInfo keep = library.addClone(spec({{levelWav(6000, 0.1f), "keep"}}, "Keep"));
  const VoiceInfo gone = library.addClone(spec({{levelWav(6000, 0.2f), "gone"}, {levelWav(6000, 0.3f), "too"}}, "Gone"));
  config->setAirlineVoice("UAL", "en", TtsGender::female, toUpper(gone.id));
  config->setDefaultVoice("en", TtsGender::male, gone.id);
  config->setDefaultVoice("en", TtsGender::female, keep.id);

  EXPECT_FALSE(library.remove("v-unknown"));
  EXPECT_TRUE(library.remove(" " + gone.id + " "));
  EXPECT_FALSE(library.find(gone.id));
  EXPECT_EQ(filesIn(clipDir), std::vector<std::string>{keep.id + "-0.wav"});
  EXPECT_TRUE(config->airlinesSnapshot().empty());
  EXPECT_EQ(config->defaultsSnapshot(), (KeyValueList{{"en:female", keep.id}}));
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "deleted "), "deleted " + gone.id);

  // Both files were saved: a fresh start sees the same state.
  AppConfig savedConfig(config->path());
  savedConfig.load();
  EXPECT_EQ(savedConfig.defaultsSnapshot(), config->defaultsSnapshot());
  VoiceLibrary reread(voicesFile, clipDir);
  reread.load();
  EXPECT_EQ(reread.count(), 1);
  EXPECT_EQ(reread.all()[0].id, keep.id);
}

TEST_F(VoiceLibraryTest, ResolutionOrder) {
  auto add = [&](const char* name, float level) {
    return library.addClone(spec({{levelWav(6000, level), name}}, name)).id;
  };
  const std::string airlineFemale = add("airline-female", 0.1f);
  const std::string airlineDefault = add("airline-default", 0.2f);
  const std::string langFemale = add("lang-female", 0.3f);
  const std::string langDefault = add("lang-default", 0.4f);
  const std::string noLanguage = add("no-language", 0.5f);
  config->setAirlineVoice("UAL", "en", TtsGender::female, airlineFemale);
  config->setAirlineVoice("UAL", "en", TtsGender::automatic, airlineDefault);
  config->setDefaultVoice("en", TtsGender::female, langFemale);
  config->setDefaultVoice("en", TtsGender::automatic, langDefault);
  config->setAirlineVoice("UAL", "auto", TtsGender::male, noLanguage);

  auto resolved = [&](std::string airline, std::string language, TtsGender gender) {
    const auto r = library.resolve(request(std::move(airline), std::move(language), gender));
    EXPECT_FALSE(r.explicitVoice);
    return r.voice ? r.voice->id : std::string("-");
  };
  EXPECT_EQ(resolved("UAL", "en-US", TtsGender::female), airlineFemale);
  EXPECT_EQ(resolved("ual", "en", TtsGender::male), airlineDefault);  // airline, default gender
  EXPECT_EQ(resolved("DAL", "en", TtsGender::female), langFemale);    // no airline binding
  EXPECT_EQ(resolved("", "en", TtsGender::male), langDefault);        // language, default gender
  EXPECT_EQ(resolved("UAL", "fr", TtsGender::male), noLanguage);      // again without a language
  EXPECT_EQ(resolved("UAL", "fr", TtsGender::female), "-");
  EXPECT_EQ(resolved("", "", TtsGender::automatic), "-");

  TtsRequest named = request("UAL", "en", TtsGender::female);
  named.voiceId = toUpper(langDefault);
  const auto direct = library.resolve(named);
  EXPECT_TRUE(direct.explicitVoice);
  EXPECT_EQ(direct.voice->id, langDefault);
  named.voiceId = "v-../../etc";
  const TtsError unknown = thrown([&] { library.resolve(named); });
  EXPECT_EQ(std::tie(unknown.code, unknown.message),
            std::make_tuple(TtsErrorCode::badVoice, "no such voice: v-../../etc"));

  EXPECT_EQ(library.availableGenders("UAL", "en"),
            (std::set<TtsGender>{TtsGender::automatic, TtsGender::female, TtsGender::male}));
  EXPECT_EQ(library.availableGenders("UAL", "fr"), std::set<TtsGender>{TtsGender::male});
  EXPECT_TRUE(library.availableGenders("", "fr").empty());

  // A binding whose voice is gone gives no voice and says so.
  config->setDefaultVoice("ja", TtsGender::automatic, "v-vanished");
  EXPECT_EQ(resolved("", "ja", TtsGender::female), "-");
  EXPECT_EQ(loggedLine("voices", LogLevel::warn, "the voice a binding"),
            "the voice a binding points at is gone: v-vanished");

  VoiceLibrary unconfigured(voicesFile, clipDir);
  unconfigured.load();
  EXPECT_FALSE(unconfigured.resolve(request("UAL", "en", TtsGender::female)).voice);
}

TEST_F(VoiceLibraryTest, FallbackVoices) {
  const VoiceInfo fallback = VoiceLibrary::fallbackVoice("en", TtsGender::female);
  EXPECT_EQ(std::tie(fallback.id, fallback.display, fallback.note),
            std::make_tuple("(auto):en:female", "unbound (English·Female)",
                            "no voice is bound to this language/gender yet"));
  EXPECT_TRUE(fallback.clips.empty());
  EXPECT_EQ(fallback.seed, 5863352);  // the language's stable hash, in 31 bits
  EXPECT_EQ(VoiceLibrary::fallbackVoice("", TtsGender::automatic).display, "unbound (Auto·Default)");
  EXPECT_TRUE(VoiceLibrary::isFallback(fallback));
  VoiceInfo stored;
  stored.id = "v-auto";
  EXPECT_FALSE(VoiceLibrary::isFallback(stored));
}

TEST_F(VoiceLibraryTest, VoicesFileLoadsOlderFormsAndDamage) {
  library.load();  // no file yet
  EXPECT_EQ(library.count(), 0);
  EXPECT_FALSE(fs::exists(voicesFile));

  test::writeTextFile(voicesFile, R"({"voices": [
    {"id": "v-old", "display": "Old", "refAudio": "v-old.wav", "refText": " hello ", "gender": "M",
     "kind": "reference", "profile": "p.json", "seed": 99, "createdAt": "2024-02-29T12:30:15Z"},
    {"id": "v-new", "display": 5, "language": "ja-JP", "seed": 1e300, "createdAt": 1700000000,
     "clips": [{"file": "v-new-0.mp3", "text": "a", "durationMs": -4},
               {"file": "../../outside.wav", "text": "b"}, {"file": ".hidden"}, {"file": "x/y.wav"}, 7,
               {"file": "v-new-2.wav", "text": {"nested": [1, 2]}, "durationMs": "1500"}]},
    {"id": "V-NEW", "display": "duplicate"},
    {"id": "   "}, {"display": "no id"}, [1, 2], "text", null,
    {"id": "v-odd", "language": {"x": 1}, "gender": [], "clips": "none", "createdAt": "yesterday"}
  ]})");
  AppLog::clear();
  library.load();
  EXPECT_EQ(loggedLine("voices", LogLevel::info, "voice library loaded"), "voice library loaded, 3 voice(s)");
  EXPECT_EQ(std::chrono::system_clock::to_time_t(library.all().at(0).createdAt), 1709209815);

  // Saved back in the current form, every field as it was understood: the
  // single clip of older files, numbers and names coerced, path-like and
  // hidden clip names dropped, unusable values at their defaults.
  library.save();
  Json saved = parseJsonObject(test::readTextFile(voicesFile)).value_or(Json())["voices"];
  ASSERT_EQ(saved.size(), 3u);
  saved[2].erase("createdAt");  // unreadable, so the time of loading
  EXPECT_EQ(saved, Json::parse(R"([
    {"id": "v-old", "display": "Old", "kind": "reference", "profile": "p.json", "language": "auto", "gender": "male",
     "clips": [{"file": "v-old.wav", "text": " hello ", "durationMs": 0}], "style": "", "note": "", "seed": 99,
     "createdAt": "2024-02-29T12:30:15Z"},
    {"id": "v-new", "display": "5", "kind": "cloned", "profile": "", "language": "ja", "gender": "default",
     "clips": [{"file": "v-new-0.mp3", "text": "a", "durationMs": 0},
               {"file": "v-new-2.wav", "text": "", "durationMs": 1500}],
     "style": "", "note": "", "seed": 9223372036854775807, "createdAt": "2023-11-14T22:13:20Z"},
    {"id": "v-odd", "display": "", "kind": "cloned", "profile": "", "language": "auto", "gender": "default",
     "clips": [], "style": "", "note": "", "seed": 0}])"));
  VoiceLibrary reread(voicesFile, clipDir);
  reread.load();
  EXPECT_EQ(reread.all().size(), 3u);
  EXPECT_EQ(reread.all()[1].clips[1].fileName, "v-new-2.wav");

  // Not JSON: the library empties, the file stays as it is until the next save.
  const std::string broken = "{\"voices\": [\xff";
  test::writeTextFile(voicesFile, broken);
  library.load();
  EXPECT_EQ(library.count(), 0);
  EXPECT_EQ(test::readTextFile(voicesFile), broken);
  EXPECT_TRUE(loggedLine("voices", LogLevel::warn, "voice library is not valid JSON, treating it as empty"));

  // A folder where the file should be cannot be read: the list is kept.
  reread.load();
  VoiceLibrary blocked(dir.path() + "data/", clipDir);
  blocked.load();
  EXPECT_TRUE(loggedLine("voices", LogLevel::error, "cannot read the voice library"));
  blocked.save();
  EXPECT_TRUE(loggedLine("voices", LogLevel::error, "cannot write the voice library: "));
}

TEST_F(VoiceLibraryTest, ForeignIdsAndNamesNeverBecomePaths) {
  test::writeTextFile(voicesFile, R"({"voices": [
    {"id": "../../escape", "display": "Escape", "clips": [{"file": "ok-0.wav", "text": "t"}]}]})");
  const std::string outside = dir.path() + "escape-0.wav";
  library.load();
  writeFileAtomic(clipDir + "ok-0.wav", levelWav(6000));

  const VoiceInfo grown = library.addClip("../../escape", {levelWav(6000, 0.5f), "more"});
  ASSERT_EQ(grown.clips.size(), 2u);
  EXPECT_EQ(grown.clips[1].fileName, "______escape-1.wav");
  EXPECT_TRUE(fs::exists(clipDir + "______escape-1.wav"));

  VoiceInfo edited = grown;
  edited.display = "Edited";
  edited.clips.push_back({"/etc/passwd", "x", 0});
  edited.clips.push_back({"..", "x", 0});
  library.update(edited);
  EXPECT_EQ(library.find("../../ESCAPE")->display, "Edited");
  EXPECT_EQ(library.find("../../escape")->clips.size(), 2u);
  VoiceClip sneaky{"../escape-0.wav", "", 0};
  EXPECT_EQ(library.clipPath(sneaky), "");

  EXPECT_TRUE(library.remove("../../escape"));
  EXPECT_TRUE(filesIn(clipDir).empty());
  EXPECT_FALSE(fs::exists(outside));
  EXPECT_TRUE(fs::exists(voicesFile));
}

TEST_F(VoiceLibraryTest, ClonesRaceRemovalsAndLookups) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 12;
  config->setDefaultVoice("en", TtsGender::female, "v-none");
  std::atomic<int> added{0};
  std::atomic<int> removed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        // Threads share content in pairs, so some clones race for the same id.
        const float level = 0.01f * static_cast<float>((t / 2) * kRounds + i + 1);
        const VoiceInfo voice = library.addClone(spec({{levelWav(1000, level), "race"}}));
        ++added;
        config->setDefaultVoice("en", TtsGender::female, voice.id);
        (void)library.resolve(request("", "en", TtsGender::female));
        (void)library.referenceAudio(voice);
        (void)library.all();
        if (i % 2 == 0 && library.remove(voice.id)) ++removed;
      }
    });
  }
  for (auto& th : threads) th.join();

  const auto voices = library.all();
  EXPECT_EQ(static_cast<int>(voices.size()), added - removed);
  std::set<std::string> ids;
  std::vector<std::string> expectedFiles;
  for (const auto& v : voices) {
    ids.insert(v.id);
    expectedFiles.push_back(v.clips[0].fileName);
  }
  EXPECT_EQ(ids.size(), voices.size());
  std::sort(expectedFiles.begin(), expectedFiles.end());
  EXPECT_EQ(filesIn(clipDir), expectedFiles);
  VoiceLibrary reread(voicesFile, clipDir);
  reread.load();
  EXPECT_EQ(reread.count(), static_cast<std::int64_t>(voices.size()));
}

}  // namespace
}  // namespace kelvo
