// The sharing hub both ways: HubStore (the server of `kelvo serve --hub`) fed
// requests directly, and the client against tools/hub_double.py, with the
// self-test's hub scenario on top.
#include "KELVOCore/HubStore.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "KELVOCore/Files.h"
#include "KELVOCore/Multipart.h"
#include "KELVOCore/Zip.h"
#include "tests/Doubles.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using test::TempDir;

// A pack of `voices` voices, each naming two clips of which only the first is
// in the archive; clip bytes are noise, so they do not deflate.
Bytes makePack(std::string_view format, int voices, std::size_t clipBytes = 100) {
  Json list = Json::array();
  ZipWriter zip;
  for (int v = 0; v < voices; ++v) {
    const std::string file = formatText("v%d-0.wav", v);
    list.push_back({{"id", formatText("v%d", v)},
                    {"clips", Json::array({{{"file", file}, {"text", "hi"}}, {{"file", "gone.wav"}, {"text", "x"}}})}});
    EXPECT_TRUE(zip.add({"audio/" + file, test::noise(clipBytes, 7u + static_cast<unsigned>(v))}));
  }
  EXPECT_TRUE(zip.add({"cln.json", jsonData(Json{{"format", format}, {"version", 1}, {"voices", list}}, false)}));
  return zip.finish();
}

HttpRequest hubRequest(std::string method, std::string action, std::string peer = "10.0.0.1") {
  HttpRequest r;
  r.method = std::move(method);
  r.path = "/API/hub.php";
  r.query = "a=" + action;
  r.peer = std::move(peer);
  return r;
}

HttpRequest uploadOf(std::span<const std::uint8_t> pack, std::string title, std::string peer = "10.0.0.1") {
  HttpRequest r = hubRequest("POST", "upload", std::move(peer));
  MultipartForm form;
  form.addField("title", title);
  form.addField("author", "ops@ual");
  form.addField("version", "0.3.26220");
  form.addField("fingerprint", "F00D");
  form.addFile("pack", "x.cln", "application/zip", pack);
  r.headers["Content-Type"] = form.contentType();
  r.body = form.finish();
  return r;
}

Json bodyJson(const HttpResponse& r) { return parseJsonObject(r.body).value_or(Json::object()); }

TEST(HubStore, UploadListDownloadDeleteSurviveARestart) {
  const TempDir dir;
  const Bytes pack = makePack("kelvo-clone-pack", 2);
  std::string id;
  std::string key;
  {
    HubStore store(dir.path());
    const HttpResponse up = store.handle(uploadOf(pack, "  UAL autumn  "));
    ASSERT_EQ(up.status, 200) << std::string(up.body.begin(), up.body.end());
    id = jStr(bodyJson(up), "id");
    key = jStr(bodyJson(up), "delete_key");
    EXPECT_EQ(id.size(), 12u);
    EXPECT_EQ(key.size(), 32u);
  }
  EXPECT_EQ(test::readTextFile(dir.path() + "index.json").find(key), std::string::npos);

  HubStore store(dir.path());
  HttpRequest list = hubRequest("GET", "list");
  list.headers["Host"] = "hub.local:8080";
  const Json shares = bodyJson(store.handle(list))["shares"];
  ASSERT_EQ(shares.size(), 1u);
  EXPECT_EQ(shares[0], (Json{{"id", id}, {"title", "UAL autumn"}, {"author", "ops@ual"}, {"voices", 2}, {"clips", 2},
                             {"bytes", pack.size()}, {"created_at", jStr(shares[0], "created_at")},
                             {"url", "http://hub.local:8080/API/hub.php?a=download&id=" + id}}));
  HttpRequest get = hubRequest("GET", "download&id=" + id);
  EXPECT_EQ(store.handle(get).body, pack);

  const auto remove = [&](std::string form) {
    HttpRequest r = hubRequest("POST", "delete");
    r.headers["Content-Type"] = "application/x-www-form-urlencoded";
    r.body.assign(form.begin(), form.end());
    return store.handle(r).status;
  };
  EXPECT_EQ(remove("id=" + id + "&delete_key=" + key + "0"), 403);
  EXPECT_EQ(remove("id=" + id), 400);
  EXPECT_EQ(remove("id=" + id + "&delete_key=" + key), 200);
  EXPECT_EQ(remove("id=" + id + "&delete_key=" + key), 404);
  EXPECT_EQ(store.handle(get).status, 404);
  EXPECT_TRUE(bodyJson(store.handle(list))["shares"].empty());
  EXPECT_FALSE(std::filesystem::exists(dir.path() + id + ".cln"));
}

TEST(HubStore, RefusesWhatIsNoPackAndKeepsItsLimits) {
  const TempDir dir;
  HubStore store(dir.path(), {64 * 1024, 5, std::chrono::seconds(3600)});
  const Bytes good = makePack("kelvo-clone-pack", 1);
  const Bytes junk = {'h', 'e', 'l', 'l', 'o'};
  ZipWriter bare;
  EXPECT_TRUE(bare.add({"readme.txt", junk}));
  HttpRequest truncated = uploadOf(good, "t", "p8");
  truncated.body.resize(truncated.body.size() - 8);
  HttpRequest jsonBody = hubRequest("POST", "upload", "p9");
  jsonBody.headers["Content-Type"] = "application/json";
  jsonBody.body = jsonData(Json{{"pack", "x"}}, false);

  struct Row {
    const char* what;
    HttpRequest request;
    std::int64_t status;
    const char* error;
  };
  const Row rows[] = {
      {"not a zip", uploadOf(junk, "t", "p1"), 400, "not_a_pack"},
      {"no manifest", uploadOf(bare.finish(), "t", "p2"), 400, "not_a_pack"},
      {"other format", uploadOf(makePack("other", 1), "t", "p3"), 400, "not_a_pack"},
      {"no voice", uploadOf(makePack("kelvo-clone-pack", 0), "t", "p4"), 400, "not_a_pack"},
      {"no title", uploadOf(good, " ", "p5"), 400, "bad_field"},
      {"long title", uploadOf(good, std::string(201, 't'), "p7"), 400, "bad_field"},
      {"too large", uploadOf(makePack("kelvo-clone-pack", 1, 70 * 1024), "t", "p6"), 413, "pack_too_large"},
      {"cut form", truncated, 400, "bad_form"},
      {"not a form", jsonBody, 400, "bad_form"},
      {"upload by GET", hubRequest("GET", "upload"), 405, "method_not_allowed"},
      {"list by POST", hubRequest("POST", "list"), 405, "method_not_allowed"},
      {"unknown action", hubRequest("GET", "zap"), 400, "unknown_action"},
  };
  for (const Row& row : rows) {
    const HttpResponse r = store.handle(row.request);
    EXPECT_EQ(r.status, row.status) << row.what;
    EXPECT_EQ(jStr(bodyJson(r), "error"), row.error) << row.what;
    EXPECT_FALSE(jStr(bodyJson(r), "message").empty()) << row.what;
  }
  // Five uploads an hour from one address, refused ones counted; others unaffected.
  EXPECT_EQ(store.handle(uploadOf(junk, "t", "busy")).status, 400);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(store.handle(uploadOf(good, "t", "busy")).status, 200);
  EXPECT_EQ(jStr(bodyJson(store.handle(uploadOf(good, "t", "busy"))), "error"), "too_many_uploads");
  EXPECT_EQ(store.handle(uploadOf(good, "t", "calm")).status, 200);
}

class HubClientTest : public ::testing::Test {
 protected:
  void SetUp() override { setUiLang(UiLang::en); }

  // A voice bound to CCA, as an operator would share it.
  std::string addVoice() {
    VoiceCloneSpec spec{"Captain", "zh", TtsGender::male, {{test::levelWav(2000, 0.3f), "各位旅客"}}, "", ""};
    const std::string id = library.addClone(spec).id;
    config.setAirlineVoice("CCA", "zh", TtsGender::male, id);
    return id;
  }

  TempDir root;
  AppConfig config{root.path() + "data/config.json"};
  VoiceLibrary library{root.path() + "data/voices.json", root.path() + "clone/"};
  const std::string fingerprints = root.path() + "data/hub-fingerprints.json";
};

TEST_F(HubClientTest, GetShareAndUnshareAgainstTheDouble) {
  const test::PythonDouble double_("hub_double.py", {});
  const HubClient hub(double_.url() + "/");
  const auto listed = hub.list();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].title, "Hub demo");
  EXPECT_EQ(listed[0].url, "/files/demo01.cln");

  const PackSummary got = importPack(downloadShare(hub, " DEMO01 "), library, config);
  EXPECT_EQ(got.voicesAdded, 1);
  EXPECT_EQ(got.bindings, 1);
  EXPECT_FALSE(config.airlineVoice("DEMO", "en", TtsGender::female).empty());

  addVoice();
  config.setHubUserId("ops@cca");
  const std::vector<std::string> keys = {airlineKey("CCA", "zh", TtsGender::male)};
  const ShareResult first = shareOnHub(hub, "CCA cabin", keys, {}, library, config, fingerprints);
  EXPECT_FALSE(first.unchanged);
  EXPECT_EQ(first.summary.voices, 1);
  AppConfig reloaded(config.path());
  reloaded.load();
  ASSERT_TRUE(reloaded.hubDeleteKey(first.id));
  EXPECT_EQ(hub.list().front().author, "ops@cca");

  const ShareResult again = shareOnHub(hub, "CCA cabin", keys, {}, library, config, fingerprints);
  EXPECT_TRUE(again.unchanged);
  EXPECT_EQ(again.id, first.id);
  EXPECT_EQ(hub.list().size(), 2u);

  unshareFromHub(hub, first.id, config, fingerprints);
  EXPECT_FALSE(config.hubDeleteKey(first.id));
  EXPECT_EQ(hub.list().size(), 1u);
  const TtsError e = test::thrown([&] { unshareFromHub(hub, first.id, config, fingerprints); });
  EXPECT_EQ(e.code, TtsErrorCode::notFound);
  EXPECT_EQ(e.message,
            "there is no delete key for share " + first.id + " here: only the machine that shared it can take it down");
}

TEST_F(HubClientTest, EveryRefusalReadsAsASentence) {
  const test::PythonDouble double_("hub_double.py", {});
  const test::PythonDouble tiny("hub_double.py", {"--max-mb", "0.01"});
  const HubClient hub(double_.url());
  const Bytes pack = hub.download(hub.list().front());
  const auto message = [](const auto& call) {
    try {
      call();
    } catch (const TtsError& e) {
      return e.message;
    }
    return std::string("no error");
  };
  const Bytes huge(21 << 20, 0);
  const Bytes junk = {'h', 'i'};
  EXPECT_EQ(message([&] { hub.upload(huge, "t", "a", "v", "f"); }),
            "this pack is 21.0 MB and the hub takes at most 20 MB — choose fewer voices or bindings and try again");
  EXPECT_EQ(message([&] { HubClient(tiny.url()).upload(pack, "t", "a", "v", "f"); }),
            "the hub refused the pack as too large");
  EXPECT_EQ(message([&] { hub.upload(junk, "t", "a", "v", "f"); }), "the hub refused: this is not a clone pack");
  EXPECT_EQ(message([&] { hub.remove("demo01", "wrong"); }),
            "the delete key does not match: this share was not made from here");
  EXPECT_EQ(message([&] { hub.remove("nope", "k"); }), "the hub has no such share (it may have been taken down)");
  EXPECT_EQ(message([&] { downloadShare(hub, "nope"); }),
            "the hub has no such share (it may have been taken down)");
  EXPECT_TRUE(message([&] { HubClient("http://127.0.0.1:1").list(); }).starts_with("cannot reach the sharing hub ("));
  // One attempt from this address so far; four more are taken, the sixth is refused.
  int taken = 0;
  std::string last;
  while ((last = message([&] { hub.upload(pack, "t", "a", "v", "f"); })) == "no error" && taken < 9) ++taken;
  EXPECT_EQ(taken, 4);
  EXPECT_EQ(last, "the hub takes at most 5 uploads an hour from one address; try again later");
}

TEST(HubSelfTest, ListsDownloadsAndImportsIntoAScratchRoot) {
  const TempDir home;
  const std::string env = "KELVO_HOME=" + home.path() + " KELVO_HUB_URL=";
  const test::PythonDouble hub("hub_double.py", {});
  const auto [out, status] = test::runSelfTest("hub", env + hub.url());
  EXPECT_EQ(status, 0) << out;
  EXPECT_TRUE(out.starts_with("✓ 列出共享中心  " + hub.url() + " lists 1 share(s)\n✓ 下载第一个包  Hub demo · ")) << out;
  EXPECT_NE(out.find("\n✓ 导入到临时目录  "), std::string::npos) << out;
  EXPECT_FALSE(std::filesystem::exists(home.path() + "data/voices.json"));

  const test::PythonDouble empty("hub_double.py", {"--empty"});
  const auto [none, noneStatus] = test::runSelfTest("hub", env + empty.url());
  EXPECT_EQ(noneStatus, 1);
  EXPECT_NE(none.find("✗ 下载第一个包  the hub lists no share yet, so there is no pack to download"), std::string::npos);

  const auto [unset, unsetStatus] = test::runSelfTest("hub", env);
  EXPECT_EQ(unsetStatus, 1);
  EXPECT_EQ(unset, "✗ 共享中心  this build has no sharing hub configured — set KELVO_HUB_URL to the hub's address\n");
}

}  // namespace
}  // namespace kelvo
