#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <tuple>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/Zip.h"
#include "tests/TestSupport.h"
#include "tests/ZipCraft.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;
using test::bytesOf;
using test::zipOf;

Bytes clip(float level) { return test::levelWav(6000, level, 8000); }

// One installation in a folder of its own: the data root is "root/" inside it,
// so anything a pack manages to write beside the root shows up in files().
struct Install {
  test::TempDir dir;
  std::string root = dir.path() + "root/";
  AppConfig config{root + "data/config.json"};
  VoiceLibrary library{root + "data/voices.json", root + "clone/"};

  std::vector<std::string> files() const {
    std::vector<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir.path())) {
      if (e.is_regular_file()) out.push_back(fs::relative(e.path(), dir.path()).string());
    }
    std::sort(out.begin(), out.end());
    return out;
  }
};

class ClonePackTest : public ::testing::Test {
 protected:
  void SetUp() override { AppLog::clear(); }
  test::ScopedUiLang ui{UiLang::en};
  Install a, b;
};

TEST_F(ClonePackTest, CarriesVoicesAndBindingsToAnotherInstallation) {
  const VoiceInfo anna =
      a.library.addClone({"Anna", "en", TtsGender::female, {{clip(0.1f), "one"}, {clip(0.2f), "two"}}, "", ""});
  const VoiceInfo ben = a.library.addClone({"Ben", "en", TtsGender::male, {{clip(0.3f), "three"}}, "", ""});
  a.config.setAirlineVoice("UAL", "en", TtsGender::female, anna.id);
  a.config.setAirlineVoice("UAL", "en", TtsGender::male, ben.id);
  a.config.setAirlineVoice("DAL", "zh", TtsGender::automatic, "v-gone");
  const std::string path = a.dir.path() + "out.cln";
  const PackSummary out =
      exportPack(path, {"ual:EN:Female", "UAL:en:male", "DAL:zh:default", "AAL:en:male"}, a.library, a.config);
  EXPECT_EQ(std::tie(out.voices, out.clips, out.bindings, out.bytes),
            std::make_tuple(2, 3, 2, static_cast<std::int64_t>(fs::file_size(path))));
  EXPECT_EQ(out.notes, (std::vector<std::string>{
                           "the voice v-gone referenced by binding DAL:zh:default no longer exists and was left out",
                           "there is no binding AAL:en:male; it was left out"}));

  ZipReader zip = ZipReader::openFile(path).value();
  const Json manifest = *parseJsonObject(*zip.read("cln.json").value());
  EXPECT_EQ(manifest["format"], "kelvo-clone-pack");
  EXPECT_EQ(manifest["version"], 1);
  EXPECT_TRUE(
      std::regex_match(manifest["exportedAt"].get<std::string>(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
  EXPECT_EQ(manifest["airlines"], (Json{{"UAL:en:female", anna.id}, {"UAL:en:male", ben.id}}));
  const Json expectedAnna{
      {"id", anna.id},
      {"display", "Anna"},
      {"language", "en"},
      {"gender", "female"},
      {"style", ""},
      {"note", ""},
      {"clips", Json::array({{{"file", anna.id + "-0.wav"}, {"text", "one"}, {"durationMs", 6000}},
                             {{"file", anna.id + "-1.wav"}, {"text", "two"}, {"durationMs", 6000}}})}};
  EXPECT_EQ(manifest["voices"][0], expectedAnna);
  EXPECT_EQ(*zip.read("audio/" + anna.id + "-1.wav").value(), clip(0.2f));

  const PackSummary in = importPack(path, b.library, b.config);
  EXPECT_EQ(std::tie(in.voices, in.voicesAdded, in.voicesReused, in.clips, in.bindings),
            std::make_tuple(2, 2, 0, 3, 2));
  EXPECT_TRUE(in.notes.empty());
  ASSERT_TRUE(b.library.find(anna.id));  // content-derived ids travel unchanged
  EXPECT_EQ(b.library.find(ben.id)->gender, TtsGender::male);
  AppConfig saved(b.config.path());
  saved.load();
  EXPECT_EQ(saved.airlineVoice("UAL", "en", TtsGender::female), anna.id);
  EXPECT_EQ(test::loggedLine("clonepack", LogLevel::info, "imported"),
            "imported 2 voice(s) (2 new, 0 reused) · 3 clip(s) · 2 binding(s) · 0.0 MB");

  // The id rule takes the first free id, so a second import adds copies.
  const PackSummary again = importPack(path, b.library, b.config);
  EXPECT_EQ(again.voicesAdded, 2);
  EXPECT_EQ(b.config.airlineVoice("UAL", "en", TtsGender::female), anna.id + "-1");
  EXPECT_EQ(b.library.find(ben.id + "-1")->display, "Ben");
}

TEST_F(ClonePackTest, VoicesOnlyPacksSummariesAndFingerprints) {
  const VoiceInfo ben = a.library.addClone({"Ben", "en", TtsGender::male, {{clip(0.3f), "three"}}, "", ""});
  const BuiltPack built = buildPack({}, {ben.id}, a.library, a.config);
  const PackSummary in = importPack(built.archive, b.library, b.config);
  EXPECT_EQ(packSummaryJson(in), (Json{{"voices", 1},
                                       {"voices_added", 1},
                                       {"voices_reused", 0},
                                       {"bindings", 0},
                                       {"clips", 1},
                                       {"bytes", built.archive.size()},
                                       {"notes", Json::array()},
                                       {"summary", in.describe()}}));
  EXPECT_EQ((PackSummary{3, 2, 1, 4, 5, 1572864, {}}).describe(),
            "3 voice(s) (2 new, 1 reused) · 5 clip(s) · 4 binding(s) · 1.5 MB");
  EXPECT_EQ(test::thrown([&] { exportVoicePack(a.dir.path() + "x.cln", {ben.id, "v-unknown"}, a.library); }).code,
            TtsErrorCode::notFound);
  EXPECT_FALSE(fs::exists(a.dir.path() + "x.cln"));

  a.config.setAirlineVoice("UAL", "en", TtsGender::female, ben.id);
  auto fingerprint = [&](std::vector<std::string> ids) {
    return packFingerprint(ids, {"UAL:en:female"}, a.library, a.config);
  };
  const std::string first = fingerprint({});
  EXPECT_EQ(fingerprint({}), first);
  EXPECT_NE(fingerprint({"v-unknown"}), first);
  VoiceInfo renamed = ben;
  renamed.display = "Benjamin";
  std::vector<std::function<void()>> changes{
      [&] { ASSERT_FALSE(writeFileAtomic(a.root + "clone/" + ben.clips[0].fileName, clip(0.4f))); },
      [&] { a.library.update(renamed); },
      [&] { a.config.setAirlineVoice("UAL", "en", TtsGender::female, "v-gone"); },
  };
  std::set<std::string> seen{first};
  for (auto& change : changes) {
    change();
    EXPECT_TRUE(seen.insert(fingerprint({})).second) << seen.size();
  }
}

TEST_F(ClonePackTest, RefusesWholePacksBeforeTouchingAnything) {
  auto pack = [](const std::string& manifest) {
    return zipOf({{"audio/a.wav", clip(0.5f)}, {"cln.json", bytesOf(manifest)}});
  };
  const std::string voice = R"("voices":[{"display":"A","clips":[{"file":"a.wav","text":"t"}]}])";
  Bytes badCrc = pack(R"({"format":"kelvo-clone-pack",)" + voice + "}");
  test::put32(badCrc, test::centralRecord(badCrc, "cln.json") + 16, 0);
  const std::string corrupt = "cln.json inside the pack is corrupt and cannot be read.";
  const std::vector<std::pair<Bytes, std::string>> cases{
      {Bytes(21, 'P'),
       "cannot open this file (not a zip archive). A .cln is a zip package - did you pick the wrong file?"},
      {zipOf({{"audio/a.wav", clip(0.5f)}}), "the pack has no cln.json - this is not an KELVO clone pack."},
      {pack("{not json"), corrupt},
      {pack("[1, 2]"), corrupt},
      {badCrc, corrupt},
      {pack(R"({"format":"other",)" + voice + "}"), "this is not an KELVO clone pack (format does not match)."},
      {pack(R"({"format":"kelvo-clone-pack","voices":{"display":"A"}})"), corrupt},
      {pack(R"({"format":"kelvo-clone-pack",)" + voice + R"(,"airlines":["UAL"]})"), corrupt},
  };
  // Each refused alike from memory and from a file, which is read piece by piece.
  const std::string file = a.dir.path() + "refused.cln";
  for (const auto& refused : cases) {
    const Bytes& bytes = refused.first;
    const std::string& message = refused.second;
    ASSERT_FALSE(writeFileAtomic(file, bytes));
    for (const auto& import : {std::function([&] { importPack(bytes, b.library, b.config); }),
                               std::function([&] { importPack(file, b.library, b.config); })}) {
      const TtsError e = test::thrown(import);
      EXPECT_EQ(e.code, TtsErrorCode::badPack) << message;
      EXPECT_EQ(e.message, message);
    }
  }
  EXPECT_EQ(b.library.count(), 0);
  EXPECT_TRUE(b.files().empty());  // not even the configuration was saved
}

TEST_F(ClonePackTest, SkipsBadItemsWithNotesAndWritesOnlyInsideTheDataRoot) {
  const std::string manifest = R"({"format": "kelvo-clone-pack", "voices": [
      {"id": "p1", "display": "Hostile", "clips": [{"file": "../x", "text": "a"},
          {"file": "/etc/passwd", "text": "b"}, {"file": "../../cln.json", "text": "c"}]},
      {"id": "p2", "display": "Mute", "clips": [{"file": "text.wav", "text": "t"}]},
      {"id": "p3", "display": "Half", "clips": [{"file": "good.wav", "text": "g"}, {"file": "text.wav", "text": "h"}]},
      {"id": "p4", "display": "Broken", "clips": [{"file": "bad.wav", "text": "b"}]},
      {"id": "p5", "display": "Quiet", "clips": [{"file": "good.wav", "text": " "}]},
      42],
    "airlines": {"UAL:en:female": "P1", "UAL:en:male": "p2", "bogus": "p1", "DAL:en:default": 42}})";
  Bytes zip = zipOf({{"cln.json", bytesOf(manifest)},
                     {"../x", clip(0.1f)},
                     {"/etc/passwd", clip(0.2f)},
                     {"audio/../../cln.json", clip(0.3f)},
                     {"audio/text.wav", bytesOf("just some words, no audio at all")},
                     {"audio/good.wav", clip(0.4f)},
                     {"audio/bad.wav", clip(0.5f)}});
  test::put32(zip, test::centralRecord(zip, "audio/bad.wav") + 16, 0);

  const PackSummary in = importPack(zip, b.library, b.config);
  EXPECT_EQ(in.notes, (std::vector<std::string>{
                          "\"Hostile\" is missing a clip (../x); that clip was skipped",
                          "\"Hostile\" is missing a clip (/etc/passwd); that clip was skipped",
                          "failed to import \"Mute\": this audio is not WAV, MP3 or Ogg",
                          "failed to import \"Half\": this audio is not WAV, MP3 or Ogg",
                          "audio/bad.wav inside the pack is corrupt and cannot be read.",
                          "\"Broken\" has no audio at all and cannot be imported",
                          "failed to import \"Quiet\": a reference clip needs its transcript (the engine requires "
                          "reference_text)",
                          "\"\" has no audio at all and cannot be imported",
                          "binding DAL:en:default points at a voice that was not imported; it was dropped",
                          "binding UAL:en:male points at a voice that was not imported; it was dropped",
                          "\"bogus\" is not a valid binding key; it was dropped",
                      }));
  EXPECT_EQ(std::tie(in.voices, in.clips, in.bindings), std::make_tuple(1, 1, 1));
  const VoiceInfo hostile = *b.library.findByDisplay("Hostile");
  EXPECT_EQ(b.config.airlineVoice("UAL", "en", TtsGender::female), hostile.id);
  EXPECT_EQ(*readFile(b.library.clipPath(hostile.clips.at(0))), clip(0.3f));
  // Nothing beside the library's own files: no half-added voice, no stray clip.
  EXPECT_EQ(b.files(), (std::vector<std::string>{"root/clone/" + hostile.id + "-0.wav", "root/data/config.json",
                                                 "root/data/voices.json"}));
}

}  // namespace
}  // namespace kelvo
