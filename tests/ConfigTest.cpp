#include "KELVOCore/Config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "KELVOCore/Files.h"
#include "KELVOCore/Log.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::TempDir;

bool logged(LogLevel level, std::string_view text) { return test::loggedLine("config", level, text) == text; }

bool loggedPrefix(LogLevel level, std::string_view prefix) {
  return test::loggedLine("config", level, prefix).has_value();
}

class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override { AppLog::clear(); }
  // Loads `json` from a fresh file into `config`.
  void loadJson(AppConfig& config, std::string_view json) {
    test::writeTextFile(path, json);
    config.load();
  }
  TempDir dir;
  std::string path = dir.path() + "data/config.json";
};

TEST_F(ConfigFile, MissingFileIsWrittenWithEveryDefaultAndReloadsUnchanged) {
  AppConfig config(path);
  config.load();
  EXPECT_TRUE(logged(LogLevel::info, "no config file; using defaults and writing one: " + path));
  const std::string written = test::readTextFile(path);
  const auto root = parseJsonObject(written);
  ASSERT_TRUE(root);
  // Pretty-printed with sorted keys is exactly what a sorted pretty dump gives back.
  EXPECT_EQ(written, jsonString(*root, true));
  EXPECT_NE(written.find("\n  \"airlineVoices\""), std::string::npos);

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
  EXPECT_EQ(loadEngineOptions((*root)["engine"], EngineOptions{}).timeoutMs, 900000);
  EXPECT_EQ((*root)["engine"], engineOptionsJson(EngineOptions{}));

  AppLog::clear();
  AppConfig second(path);
  second.load();
  EXPECT_TRUE(logged(LogLevel::info, "config loaded: " + path));
  EXPECT_FALSE(loggedPrefix(LogLevel::info, "raised"));
  EXPECT_FALSE(loggedPrefix(LogLevel::info, "engine timeout"));
  EXPECT_EQ(test::readTextFile(path), written);
  second.save();
  EXPECT_EQ(test::readTextFile(path), written);
}

TEST_F(ConfigFile, NumbersAreClampedAndEnumsFallBack) {
  struct Case {
    const char* json;
    std::int64_t (AppConfig::*get)() const;
    std::int64_t expected;
  };
  const Case cases[] = {
      {R"({"server":{"port":0}})", &AppConfig::port, 1},
      {R"({"server":{"port":70000}})", &AppConfig::port, 65535},
      {R"({"server":{"port":1e300}})", &AppConfig::port, 65535},
      {R"({"server":{"port":-1e300}})", &AppConfig::port, 1},
      {R"({"server":{"port":"8080"}})", &AppConfig::port, 8080},
      {R"({"server":{"port":"80 80"}})", &AppConfig::port, 17150},
      {R"({"server":{"port":[1,2]}})", &AppConfig::port, 17150},
      {R"({"server":{"port":18446744073709551615}})", &AppConfig::port, 65535},
      {R"({"server":{"rateLimitPerMinute":-5}})", &AppConfig::rateLimitPerMinute, 0},
      {R"({"server":{"rateLimitPerMinute":90}})", &AppConfig::rateLimitPerMinute, 90},
      {R"({"synthesis":{"maxTextLength":0}})", &AppConfig::maxTextLength, 1},
      {R"({"synthesis":{"maxTextLength":200000}})", &AppConfig::maxTextLength, 100000},
      {R"({"synthesis":{"queueLimit":0}})", &AppConfig::queueLimit, 1},
      {R"({"synthesis":{"queueLimit":5000}})", &AppConfig::queueLimit, 4096},
      {R"({"synthesis":{"timeoutMs":10}})", &AppConfig::requestTimeoutMs, 1000},
      {R"({"synthesis":{"timeoutMs":99999999}})", &AppConfig::requestTimeoutMs, 1800000},
      {R"({"synthesis":{"outputSampleRate":-1}})", &AppConfig::outputSampleRate, 0},
      {R"({"synthesis":{"outputSampleRate":22050}})", &AppConfig::outputSampleRate, 22050},
      {R"({"cache":{"budgetMB":10000}})", &AppConfig::cacheBudgetMB, 8192},
      {R"({"cache":{"budgetMB":-3}})", &AppConfig::cacheBudgetMB, 0},
      {R"({"server":5,"cache":[1],"synthesis":"x"})", &AppConfig::cacheBudgetMB, 0},
  };
  for (const auto& c : cases) {
    AppConfig config(path);
    loadJson(config, c.json);
    EXPECT_EQ((config.*c.get)(), c.expected) << c.json;
  }

  AppConfig config(path);
  loadJson(config, R"({"server":{"uiLanguage":" EN ","bind":"10.0.0.2","autoStart":"no","showAdvanced":"yes"},
                       "synthesis":{"speedMode":"turbo","normalizeOutput":1},"cache":{"enabled":0}})");
  EXPECT_EQ(config.uiLanguage(), UiLang::en);
  EXPECT_EQ(config.speedMode(), TtsSpeedMode::engine);  // not the default localStretch
  EXPECT_EQ(config.bindAddress(), "10.0.0.2");
  EXPECT_FALSE(config.autoStartServer());
  EXPECT_TRUE(config.showAdvanced());
  EXPECT_TRUE(config.normalizeOutput());
  EXPECT_FALSE(config.cacheEnabled());
  EXPECT_TRUE(config.minimizeToTray());  // missing keys keep their value

  loadJson(config, R"({"server":{"uiLanguage":"klingon"},"synthesis":{"speedMode":" RESAMPLE "}})");
  EXPECT_EQ(config.uiLanguage(), UiLang::automatic);
  EXPECT_EQ(config.speedMode(), TtsSpeedMode::localResample);
  EXPECT_EQ(config.bindAddress(), "10.0.0.2");
}

TEST_F(ConfigFile, OldTimeoutsAreMigratedAndTheFileRewritten) {
  AppConfig legacy(path);
  loadJson(legacy, R"({"synthesis":{"timeoutMs":180000},"engine":{"timeoutMs":180000}})");
  EXPECT_EQ(legacy.requestTimeoutMs(), 600000);
  EXPECT_EQ(legacy.engine().timeoutMs, 900000);
  EXPECT_TRUE(loggedPrefix(LogLevel::info, "raised the old 180 s timeouts to 600 s / 900 s — on Apple silicon"));
  auto rewritten = parseJsonObject(test::readTextFile(path));
  ASSERT_TRUE(rewritten);
  EXPECT_EQ((*rewritten)["synthesis"]["timeoutMs"], 600000);
  EXPECT_EQ((*rewritten)["engine"]["timeoutMs"], 900000);

  AppLog::clear();
  AppConfig capped(path);
  loadJson(capped, R"({"synthesis":{"timeoutMs":1800000},"engine":{"timeoutMs":900000}})");
  EXPECT_EQ(capped.engine().timeoutMs, 1860000);
  EXPECT_TRUE(logged(LogLevel::info,
                     "engine timeout 900000 ms was shorter than the synthesis timeout 1800000 ms; raised it to "
                     "1860000 ms — a shorter one cuts the HTTP request off while s2 keeps going, and every request "
                     "after that gets a 503"));
  rewritten = parseJsonObject(test::readTextFile(path));
  ASSERT_TRUE(rewritten);
  EXPECT_EQ((*rewritten)["engine"]["timeoutMs"], 1860000);

  // The engine's own clamp (at least 5000) runs before the margin rule.
  AppConfig raised(path);
  loadJson(raised, R"({"synthesis":{"timeoutMs":100000},"engine":{"timeoutMs":100}})");
  EXPECT_EQ(raised.engine().timeoutMs, 160000);

  // Timeouts already far enough apart leave the file byte for byte as it was.
  const std::string untouched = R"({"synthesis":{"timeoutMs":100000},"engine":{"timeoutMs":160000}})";
  AppConfig fine(path);
  loadJson(fine, untouched);
  EXPECT_EQ(fine.engine().timeoutMs, 160000);
  EXPECT_EQ(test::readTextFile(path), untouched);
}

TEST_F(ConfigFile, BadFilesAreLeftAloneAndTheSettingsKept) {
  const std::string bad[] = {"{\"server\": {\"port\": 1", "[1, 2]", "   ", "{\"a\": \"\xff\xfe\"}", "null"};
  for (const auto& text : bad) {
    AppLog::clear();
    AppConfig config(path);
    config.setPort(4242);
    loadJson(config, text);
    EXPECT_EQ(config.port(), 4242);
    EXPECT_EQ(test::readTextFile(path), text);
    EXPECT_TRUE(logged(LogLevel::warn, "config is not valid JSON; using defaults"));
  }

  AppLog::clear();
  const std::string folder = dir.path() + "folder.json";
  std::filesystem::create_directories(folder);
  AppConfig config(folder);
  config.load();
  EXPECT_TRUE(logged(LogLevel::error, "cannot read config; using defaults"));
  EXPECT_TRUE(std::filesystem::is_directory(folder));

  // A folder where the file should go cannot be replaced; saving only logs.
  config.save();
  EXPECT_TRUE(loggedPrefix(LogLevel::error, "cannot write config: "));

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
  EXPECT_EQ(normalizeAirlineKey("ual:EN:Female"), "UAL:en:female");
  EXPECT_EQ(normalizeAirlineKey("ual:EN:f:extra:parts"), "UAL:en:female");
  EXPECT_EQ(normalizeAirlineKey("ual:jp:robot"), "UAL:ja:default");
  EXPECT_EQ(normalizeAirlineKey("ual"), "ual");
  EXPECT_EQ(normalizeAirlineKey(" ual:en "), "ual:en");
  EXPECT_EQ(normalizeAirlineKey("::"), "::default");
  EXPECT_EQ(normalizeDefaultKey("ZH-cn:M"), "zh:male");
  EXPECT_EQ(normalizeDefaultKey("en:female:x"), "en:female");
  EXPECT_EQ(normalizeDefaultKey(" zh "), "zh");
  EXPECT_EQ(normalizeDefaultKey(""), "");
}

TEST_F(ConfigFile, BindingsAndSharesLoadLeniently) {
  AppConfig config(path);
  config.setAirlineVoice("OLD", "en", TtsGender::male, "v-old");
  loadJson(config, R"({
    "airlineVoices": {"ual:EN:Female": " v-1 ", "UAL:en:F": "v-2", "dal:en:male": 7, "aal:en:male": "  ",
                      "ual": "v-bare", "x:y:z": {"deep": [1, {"a": null}]}},
    "defaultVoices": {"ZH-cn:M": "v-zh", "ja": "v-ja", "en:female": null},
    "hub": {"userId": "captain", "shares": [
      {"id": "a", "title": "one", "deleteKey": ""},
      {"id": 12, "title": true, "deleteKey": "k12"},
      {"id": "b", "title": "two", "deleteKey": "kb"},
      {"id": "B", "title": "dup", "deleteKey": "kB"},
      "not an object", null, {"id": null, "deleteKey": "k"}]}})");
  // "UAL:en:F" normalises onto the same key; members are visited in sorted key
  // order, so "ual:EN:Female" comes later and wins.
  EXPECT_EQ(config.airlinesSnapshot(), (KeyValueList{{"UAL:en:female", "v-1"}, {"ual", "v-bare"}}));
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

TEST(ConfigStores, BindingAndShareAccessors) {
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

  config.setPort(9);
  config.setEngine([] {
    EngineOptions o;
    o.threads = 3;
    return o;
  }());
  config.reset();
  EXPECT_EQ(config.port(), 17150);
  EXPECT_EQ(config.engine().threads, 0);
  EXPECT_TRUE(config.airlinesSnapshot().empty());
  EXPECT_TRUE(config.hubSharesSnapshot().empty());
}

TEST(ConfigStores, BaseUrl) {
  AppConfig config;
  EXPECT_EQ(config.baseUrl(), "http://127.0.0.1:17150");
  config.setBindAddress("");
  config.setPort(8080);
  EXPECT_EQ(config.baseUrl(), "http://127.0.0.1:8080");
  config.setBindAddress("192.168.1.5");
  EXPECT_EQ(config.baseUrl(), "http://192.168.1.5:8080");
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
  const std::string saved = test::readTextFile(path);
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
