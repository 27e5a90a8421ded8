#include "KELVOCore/Config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <tuple>

#include "KELVOCore/Log.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::readTextFile;

std::optional<std::string> logged(LogLevel level, std::string_view prefix) {
  return test::loggedLine("config", level, prefix);
}

class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override { AppLog::clear(); }
  // Loads `json` from a fresh file into `config`.
  void loadJson(AppConfig& config, std::string_view json) {
    test::writeTextFile(path, json);
    config.load();
  }
  test::TempDir dir;
  std::string path = dir.path() + "data/config.json";
};

TEST_F(ConfigFile, MissingFileIsWrittenWithEveryDefaultAndReloadsUnchanged) {
  AppConfig config(path);
  config.load();
  EXPECT_EQ(logged(LogLevel::info, "no config"), "no config file; using defaults and writing one: " + path);
  const std::string written = readTextFile(path);
  const auto root = parseJsonObject(written);
  ASSERT_TRUE(root);
  EXPECT_EQ(written, jsonString(*root, true));  // pretty-printed with sorted keys
  const Json expected = Json::parse(R"({
    "airlineVoices": {}, "defaultVoices": {}, "version": "0.3.26220",
    "cache": {"budgetMB": 0, "enabled": true},
    "hub": {"shares": [], "userId": ""},
    "server": {"autoStart": true, "bind": "0.0.0.0", "launchAtLogin": false, "minimizeToTray": true,
               "port": 17150, "rateLimitPerMinute": 0, "showAdvanced": false, "uiLanguage": "auto"},
    "synthesis": {"autoDefaultVoice": true, "maxTextLength": 5000, "normalizeOutput": false,
                  "outputSampleRate": 0, "queueLimit": 64, "speedMode": "stretch", "timeoutMs": 600000}})");
  Json withoutEngine = *root;
  withoutEngine.erase("engine");
  EXPECT_EQ(withoutEngine, expected);
  EXPECT_EQ((*root)["engine"], engineOptionsJson(EngineOptions{}));
  EXPECT_EQ((*root)["engine"]["timeoutMs"], 900000);

  // Reading the defaults back migrates nothing and rewrites nothing.
  AppLog::clear();
  AppConfig second(path);
  second.load();
  EXPECT_EQ(logged(LogLevel::info, ""), "config loaded: " + path);  // the first line: no migration
  second.save();
  EXPECT_EQ(readTextFile(path), written);
}

TEST_F(ConfigFile, NumbersAreClampedAndEnumsFallBack) {
  // Coercion of texts, fractions and arrays is the JSON helpers' (tested there);
  // here every clamp at both ends, and the saturation of huge numbers.
  const struct {
    std::int64_t (AppConfig::*get)() const;
    const char* section;
    const char* key;
    std::vector<std::pair<const char*, std::int64_t>> values;
  } settings[] = {
      {&AppConfig::port, "server", "port", {{"0", 1}, {"70000", 65535}, {"-1e300", 1},
                                            {"18446744073709551615", 65535}}},
      {&AppConfig::rateLimitPerMinute, "server", "rateLimitPerMinute", {{"-5", 0}, {"90", 90}}},
      {&AppConfig::maxTextLength, "synthesis", "maxTextLength", {{"0", 1}, {"200000", 100000}}},
      {&AppConfig::queueLimit, "synthesis", "queueLimit", {{"0", 1}, {"5000", 4096}}},
      {&AppConfig::requestTimeoutMs, "synthesis", "timeoutMs", {{"10", 1000}, {"99999999", 1800000}}},
      {&AppConfig::outputSampleRate, "synthesis", "outputSampleRate", {{"-1", 0}, {"22050", 22050}}},
      {&AppConfig::cacheBudgetMB, "cache", "budgetMB", {{"10000", 8192}, {"-3", 0}}}};
  for (const auto& setting : settings) {
    for (const auto& [value, expected] : setting.values) {
      const std::string json = std::string("{\"") + setting.section + "\":{\"" + setting.key + "\":" + value + "}}";
      AppConfig config(path);
      loadJson(config, json);
      EXPECT_EQ((config.*setting.get)(), expected) << json;
    }
  }
  AppConfig config(path);
  config.setCacheBudgetMB(5);
  loadJson(config, R"({"server":5,"cache":[1],"synthesis":"x"})");  // sections of the wrong type are empty
  EXPECT_EQ(config.cacheBudgetMB(), 5);

  // The interface language is the process's from load on; without one, the environment's.
  test::ScopedUiLang restored(UiLang::zh);
  test::ScopedEnv environment("LANGUAGE", "ja");
  loadJson(config, R"({"server":{"uiLanguage":" EN ","bind":"10.0.0.2"},"synthesis":{"speedMode":"turbo"}})");
  EXPECT_EQ(std::pair(config.uiLanguage(), uiLang()), std::pair(UiLang::en, UiLang::en));
  EXPECT_EQ(config.speedMode(), TtsSpeedMode::engine);  // not the default localStretch
  loadJson(config, R"({"server":{"uiLanguage":"klingon"}})");
  EXPECT_EQ(std::pair(config.uiLanguage(), uiLang()), std::pair(UiLang::automatic, UiLang::ja));
  config.setUiLanguage(UiLang::zh);
  EXPECT_EQ(T("女声"), "女声");
  EXPECT_EQ(config.bindAddress(), "10.0.0.2");  // missing keys keep their value
}

TEST_F(ConfigFile, OldTimeoutsAreMigratedAndTheFileRewritten) {
  AppConfig legacy(path);
  loadJson(legacy, R"({"synthesis":{"timeoutMs":180000},"engine":{"timeoutMs":180000}})");
  EXPECT_EQ(legacy.requestTimeoutMs(), 600000);
  EXPECT_EQ(legacy.engine().timeoutMs, 900000);
  EXPECT_TRUE(logged(LogLevel::info, "raised the old 180 s timeouts to 600 s / 900 s — on Apple silicon"));
  auto rewritten = parseJsonObject(readTextFile(path));
  ASSERT_TRUE(rewritten);
  EXPECT_EQ((*rewritten)["synthesis"]["timeoutMs"], 600000);
  EXPECT_EQ((*rewritten)["engine"]["timeoutMs"], 900000);

  // Only the pair of old defaults is migrated: one of them at 180 s alone is a
  // choice the operator made, and only the margin rule may touch it.
  const std::tuple<std::string, std::int64_t, std::int64_t> chosen[] = {
      {R"({"synthesis":{"timeoutMs":180000},"engine":{"timeoutMs":900000}})", 180000, 900000},
      {R"({"synthesis":{"timeoutMs":600000},"engine":{"timeoutMs":180000}})", 600000, 660000},
  };
  for (const auto& [json, request, engine] : chosen) {
    AppLog::clear();
    AppConfig kept(path);
    loadJson(kept, json);
    EXPECT_EQ(std::make_pair(kept.requestTimeoutMs(), kept.engine().timeoutMs), std::make_pair(request, engine))
        << json;
    EXPECT_FALSE(logged(LogLevel::info, "raised the old")) << json;
  }

  AppLog::clear();
  AppConfig capped(path);
  loadJson(capped, R"({"synthesis":{"timeoutMs":1800000},"engine":{"timeoutMs":900000}})");
  EXPECT_EQ(capped.engine().timeoutMs, 1860000);
  EXPECT_EQ(logged(LogLevel::info, "engine timeout"),
            "engine timeout 900000 ms was shorter than the synthesis timeout 1800000 ms; raised it to 1860000 ms — a "
            "shorter one cuts the HTTP request off while s2 keeps going, and every request after that gets a 503");
  EXPECT_EQ(parseJsonObject(readTextFile(path)).value_or(Json())["engine"]["timeoutMs"], 1860000);

  // The engine's own clamp (at least 5000) runs before the margin rule.
  AppConfig raised(path);
  loadJson(raised, R"({"synthesis":{"timeoutMs":100000},"engine":{"timeoutMs":100}})");
  EXPECT_EQ(raised.engine().timeoutMs, 160000);

  // Timeouts already far enough apart leave the file byte for byte as it was.
  const std::string untouched = R"({"synthesis":{"timeoutMs":100000},"engine":{"timeoutMs":160000}})";
  AppConfig fine(path);
  loadJson(fine, untouched);
  EXPECT_EQ(fine.engine().timeoutMs, 160000);
  EXPECT_EQ(readTextFile(path), untouched);
}

TEST_F(ConfigFile, BadFilesAreLeftAloneAndTheSettingsKept) {
  for (const std::string text : {"{\"server\": {\"port\": 1", "[1, 2]", "   ", "{\"a\": \"\xff\xfe\"}", "null"}) {
    AppLog::clear();
    AppConfig config(path);
    config.setPort(4242);
    loadJson(config, text);
    EXPECT_EQ(config.port(), 4242);
    EXPECT_EQ(readTextFile(path), text);
    EXPECT_EQ(logged(LogLevel::warn, "config"), "config is not valid JSON; using defaults");
  }

  // A folder where the file should be can be neither read nor replaced; both only log.
  const std::string folder = dir.path() + "folder.json";
  std::filesystem::create_directories(folder);
  AppConfig config(folder);
  config.load();
  EXPECT_EQ(logged(LogLevel::error, "cannot read"), "cannot read config; using defaults");
  config.save();
  EXPECT_TRUE(logged(LogLevel::error, "cannot write config: "));
  EXPECT_TRUE(std::filesystem::is_directory(folder));

  // Nesting far deeper than any stack frame budget is read without recursion.
  const std::string deep = R"({"server":{"port":)" + std::string(50000, '[') + std::string(50000, ']') +
                           R"(},"airlineVoices":{"x:y:z":)" + std::string(50000, '[') + std::string(50000, ']') + "}}";
  AppConfig nested(path);
  loadJson(nested, deep);
  EXPECT_EQ(nested.port(), 17150);
  EXPECT_TRUE(nested.airlinesSnapshot().empty());
}

TEST(ConfigKeys, BindingKeysAreNormalised) {
  EXPECT_EQ(airlineKey(" ual ", "EN-us", TtsGender::female), "UAL:en:female");
  EXPECT_EQ(airlineKey("ual", "auto", TtsGender::automatic), "UAL::default");
  EXPECT_EQ(defaultKey("zh_CN", TtsGender::male), "zh:male");
  // Keys read from files are rebuilt from their parts (extra parts dropped);
  // with too few parts they are only trimmed.
  const std::pair<std::string_view, std::string_view> airlines[] = {
      {"ual:EN:Female", "UAL:en:female"}, {"ual:EN:f:extra:parts", "UAL:en:female"},
      {"ual:jp:robot", "UAL:ja:default"}, {" ual:en ", "ual:en"}, {"::", "::default"}};
  for (const auto& [key, normal] : airlines) EXPECT_EQ(normalizeAirlineKey(key), normal) << key;
  const std::pair<std::string_view, std::string_view> defaults[] = {
      {"ZH-cn:M", "zh:male"}, {"en:female:x", "en:female"}, {" zh ", "zh"}};
  for (const auto& [key, normal] : defaults) EXPECT_EQ(normalizeDefaultKey(key), normal) << key;
}

TEST_F(ConfigFile, BindingsAndSharesLoadLeniently) {
  AppConfig config(path);
  config.setAirlineVoice("OLD", "en", TtsGender::male, "v-old");
  loadJson(config, R"({
    "airlineVoices": {"ual:EN:Female": " v-1 ", "UAL:en:F": "v-2", "dal:en:male": 7, "aal:en:male": "  ",
                      "ual": "v-bare", "x:y:z": {"deep": [1, {"a": null}]}},
    "defaultVoices": {"zh-CN:m": "v-zh-first", "ZH-cn:M": "v-zh", "ja": "v-ja", "en:female": null},
    "hub": {"userId": "captain", "shares": [
      {"id": "a", "title": "one", "deleteKey": ""},
      {"id": 12, "title": true, "deleteKey": "k12"},
      {"id": "b", "title": "two", "deleteKey": "kb"},
      {"id": "B", "title": "dup", "deleteKey": "kB"},
      "not an object", null, {"id": null, "deleteKey": "k"}]}})");
  // Keys that normalise onto one binding: the later in the file wins, whichever sorts first.
  EXPECT_EQ(config.airlinesSnapshot(), (KeyValueList{{"UAL:en:female", "v-2"}, {"ual", "v-bare"}}));
  EXPECT_EQ(config.defaultsSnapshot(), (KeyValueList{{"ja", "v-ja"}, {"zh:male", "v-zh"}}));
  EXPECT_EQ(config.hubUserId(), "captain");
  const auto shares = config.hubSharesSnapshot();
  ASSERT_EQ(shares.size(), 3u);
  EXPECT_EQ(shares[0].id, "12");
  EXPECT_EQ(shares[0].title, "");
  EXPECT_EQ(shares[1].id, "b");
  EXPECT_EQ(shares[2].id, "B");  // duplicates are kept as the file has them

  config.save();
  AppConfig reread(path);
  reread.load();
  EXPECT_EQ(reread.airlinesSnapshot(), config.airlinesSnapshot());
  EXPECT_EQ(reread.defaultsSnapshot(), config.defaultsSnapshot());
  ASSERT_EQ(reread.hubSharesSnapshot().size(), 3u);
  EXPECT_EQ(reread.hubSharesSnapshot()[2].deleteKey, "kB");

  // A file without those sections clears them rather than keeping the old ones.
  loadJson(reread, "{}");
  EXPECT_TRUE(reread.airlinesSnapshot().empty());
  EXPECT_TRUE(reread.hubSharesSnapshot().empty());
  EXPECT_EQ(reread.hubUserId(), "");
}

TEST(ConfigStores, BindingShareAndAddressAccessors) {
  AppConfig config;
  config.setDefaultVoice("zh-CN", TtsGender::female, "  v-a ");
  EXPECT_EQ(config.defaultVoice("zh", TtsGender::female), "v-a");
  EXPECT_FALSE(config.defaultVoice("zh", TtsGender::automatic));
  config.setDefaultVoice("zh", TtsGender::female, " ");
  EXPECT_FALSE(config.defaultVoice("zh", TtsGender::female));

  config.setAirlineVoice(" ual", "EN", TtsGender::male, "v-A");
  config.setAirlineVoice("dal", "ja", TtsGender::automatic, "v-b");
  config.setAirlineVoice("UAL", "ja", TtsGender::female, "v-c");
  config.setAirlineVoice("  ", "en", TtsGender::male, "v-ignored");
  config.setDefaultVoice("en", TtsGender::male, "V-a");
  EXPECT_EQ(config.airlineVoice("ual ", "en-GB", TtsGender::male), "v-A");
  EXPECT_EQ(config.airlineVoice("ual", "en", TtsGender::automatic), "");  // no fallback here
  EXPECT_EQ(config.airlineVoice("", "en", TtsGender::male), "");
  EXPECT_EQ(config.knownAirlines(), (std::vector<std::string>{"DAL", "UAL"}));

  config.forgetVoice(" v-a ");
  EXPECT_EQ(config.airlinesSnapshot(), (KeyValueList{{"DAL:ja:default", "v-b"}, {"UAL:ja:female", "v-c"}}));
  EXPECT_TRUE(config.defaultsSnapshot().empty());
  config.forgetVoice("  ");
  EXPECT_EQ(config.airlinesSnapshot().size(), 2u);

  config.addHubShare("s1", "first", "k1");
  config.addHubShare("s2", "second", "k2");
  config.addHubShare("S1", "renamed", "k1b");  // same share: replaced in place
  config.addHubShare("s3", "no key", "");
  config.addHubShare("", "no id", "k");
  auto shares = config.hubSharesSnapshot();
  ASSERT_EQ(shares.size(), 2u);
  EXPECT_EQ(shares[0].id, "S1");
  EXPECT_EQ(shares[0].title, "renamed");
  EXPECT_EQ(config.hubDeleteKey("s1"), "k1b");
  EXPECT_FALSE(config.hubDeleteKey("s3"));
  config.removeHubShare("S2");
  EXPECT_FALSE(config.hubDeleteKey("s2"));
  EXPECT_EQ(config.hubSharesSnapshot().size(), 1u);

  EXPECT_EQ(config.baseUrl(), "http://127.0.0.1:17150");
  config.setBindAddress("");
  config.setPort(8080);
  EXPECT_EQ(config.baseUrl(), "http://127.0.0.1:8080");
  config.setBindAddress("192.168.1.5");
  EXPECT_EQ(config.baseUrl(), "http://192.168.1.5:8080");

  EngineOptions engine;
  engine.threads = 3;
  config.setEngine(engine);
  config.reset();
  EXPECT_EQ(config.port(), 17150);
  EXPECT_EQ(config.bindAddress(), "0.0.0.0");
  EXPECT_EQ(config.engine().threads, 0);
  EXPECT_TRUE(config.airlinesSnapshot().empty());
  EXPECT_TRUE(config.hubSharesSnapshot().empty());
}

TEST_F(ConfigFile, EverySettingSurvivesLoadAndSave) {
  // No value here is a default, so a key that loading or saving misses shows up.
  const Json original = Json::parse(R"({
    "airlineVoices": {"UAL:en:female": "v-a"}, "defaultVoices": {"zh:male": "v-b"}, "version": "0.3.26220",
    "cache": {"budgetMB": 512, "enabled": false},
    "engine": {"compute": "cpu", "extraArgs": "--a --b", "gpuLayers": 12, "maxNewTokens": 2048,
               "modelFile": "m.gguf", "packageBaseUrl": "http://mirror/x", "repetitionPenalty": 1.25,
               "temperature": 0.75, "threads": 6, "timeoutMs": 95000, "topK": 7, "topP": 0.5, "useMirror": false},
    "hub": {"shares": [{"deleteKey": "k", "id": "s", "title": "t"}], "userId": "crew/7"},
    "server": {"autoStart": false, "bind": "127.0.0.1", "launchAtLogin": true, "minimizeToTray": false,
               "port": 8081, "rateLimitPerMinute": 30, "showAdvanced": true, "uiLanguage": "ja"},
    "synthesis": {"autoDefaultVoice": false, "maxTextLength": 700, "normalizeOutput": true,
                  "outputSampleRate": 24000, "queueLimit": 9, "speedMode": "resample", "timeoutMs": 30000}})");
  test::writeTextFile(path, jsonString(original, true));
  AppConfig config(path);
  config.load();
  EXPECT_EQ(config.uiLanguage(), UiLang::ja);
  EXPECT_EQ(config.speedMode(), TtsSpeedMode::localResample);
  test::writeTextFile(path, "{}");
  config.save();
  const std::string saved = readTextFile(path);
  EXPECT_EQ(parseJsonObject(saved), original);
  EXPECT_NE(saved.find("\"crew/7\""), std::string::npos);  // slashes unescaped
}

TEST_F(ConfigFile, ConcurrentReadersWritersAndSaves) {
  AppConfig config(path);
  const std::string airlines[] = {"A0", "A1", "A2", "A3", "A4"};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string address = std::string("10.0.0.").append(std::to_string(t));
      for (int i = 0; i < 200; ++i) {
        const std::string id = "v-" + std::to_string(t) + "-" + std::to_string(i % 7);
        config.setAirlineVoice(airlines[i % 5], "en", TtsGender::female, id);
        config.setDefaultVoice("en", TtsGender::male, id);
        (void)config.airlineVoice("A1", "en", TtsGender::female);
        config.setPort(1000 + i);
        config.setBindAddress(address);
        if (i % 50 == 0) config.save();
        if (i % 3 == 0) config.forgetVoice(id);
        (void)config.baseUrl();
      }
    });
  }
  for (auto& th : threads) th.join();
  config.save();
  AppConfig back(path);
  back.load();
  EXPECT_EQ(back.airlinesSnapshot(), config.airlinesSnapshot());
  EXPECT_EQ(back.port(), 1199);
}

}  // namespace
}  // namespace kelvo
