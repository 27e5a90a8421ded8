// The update check: version order, both feed formats, and the fallback from
// the JSON list to the Atom feed against tools/release_feed_double.py.
#include "KELVOCore/Update.h"

#include <gtest/gtest.h>

#include "KELVOCore/I18n.h"
#include "tests/Doubles.h"

namespace kelvo {
namespace {

TEST(Versions, CompareNumericallyWithTheVAndMissingPartsIgnored) {
  struct Row {
    const char* a;
    const char* b;
    int sign;
  };
  const Row rows[] = {
      {"0.3.26220", "v0.3.26300", -1}, {"v0.3.26300", "0.4", -1}, {"0.4", "0.4.0", 0},   {"V1.10", "1.9", 1},
      {"0.3.26220", "0.3.26220", 0},   {"10", "9.99.99", 1},      {"nightly", "0.0.1", -1}, {"1.2-rc1", "0.1", -1},
      {"", "", 0},                     {"1..2", "v", 0},
  };
  for (const Row& r : rows) {
    const int got = compareVersions(r.a, r.b);
    EXPECT_EQ((got > 0) - (got < 0), r.sign) << r.a << " vs " << r.b;
  }
  EXPECT_EQ(parseVersion("v0.3.26220"), (std::vector<std::int64_t>{0, 3, 26220}));
  EXPECT_FALSE(parseVersion("v1.2."));
  EXPECT_FALSE(parseVersion("99999999999999999999"));
}

TEST(ReleaseFeeds, AddressesAndBothFormats) {
  const std::pair<const char*, ReleaseFeed> feeds[] = {
      {"https://github.com/acme/kelvo", {"https://api.github.com/repos/acme/kelvo/releases",
                                         "https://github.com/acme/kelvo/releases.atom"}},
      {" https://github.com/acme/kelvo/releases/ ", {"https://api.github.com/repos/acme/kelvo/releases",
                                                     "https://github.com/acme/kelvo/releases.atom"}},
      {"https://api.github.com/repos/acme/kelvo/releases", {"https://api.github.com/repos/acme/kelvo/releases",
                                                            "https://github.com/acme/kelvo/releases.atom"}},
      {"http://git.intranet/kelvo/releases//", {"http://git.intranet/kelvo/releases",
                                                "http://git.intranet/kelvo/releases.atom"}},
  };
  for (const auto& [base, want] : feeds) {
    const ReleaseFeed got = releaseFeed(base);
    EXPECT_EQ(got.listUrl, want.listUrl) << base;
    EXPECT_EQ(got.atomUrl, want.atomUrl) << base;
  }

  const auto list = latestFromList(R"([
      {"tag_name": "v0.9", "draft": true},
      {"tag_name": "v0.8", "prerelease": true},
      {"tag_name": "v0.4.10", "html_url": "u10", "body": "ten"},
      {"tag_name": "v0.4.9", "html_url": "u9"},
      "not a release"])");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->version, "v0.4.10");
  EXPECT_EQ(list->url, "u10");
  EXPECT_EQ(list->notes, "ten");
  EXPECT_EQ(latestFromList("[]")->version, "");
  for (const char* bad : {"", "{\"tag_name\": \"v1\"}", "[{", "<html></html>"}) EXPECT_FALSE(latestFromList(bad)) << bad;

  const auto atom = latestFromAtom(R"(<?xml version="1.0"?><feed xmlns="http://www.w3.org/2005/Atom">
      <entry><title>Spring</title><link rel="alternate" href="https://x/releases/tag/v2.0"/>
        <content type="html">&lt;p&gt;Line one&lt;/p&gt;&lt;ul&gt;&lt;li&gt;A &amp;amp; B&lt;/li&gt;&lt;/ul&gt;</content></entry>
      <entry><title>v2.1</title><link href="https://x/releases/tag/latest"/></entry>
      <entry><title>Beta</title><link href="https://x/releases/tag/v3.0-beta"/></entry></feed>)");
  ASSERT_TRUE(atom);
  EXPECT_EQ(atom->version, "v2.1");
  EXPECT_EQ(latestFromAtom(R"(<feed><entry><link href="https://x/tag/v2.0/"/>
      <content>&lt;p&gt;Line one&lt;/p&gt;&lt;li&gt;A &amp;amp; B&lt;/li&gt;</content></entry></feed>)")->notes,
            "Line one\nA & B");
  for (const char* bad : {"", "<rss></rss>", "<feed><entry>", "{}"}) EXPECT_FALSE(latestFromAtom(bad)) << bad;

  EXPECT_EQ(notesExcerpt("\r\n first \n\n  second\r\nthird\n", 2), "first\nsecond");
}

TEST(UpdateCheck, ListThenAtomFallbackAgainstTheDouble) {
  setUiLang(UiLang::en);
  const test::PythonDouble feed("release_feed_double.py", {});
  const std::string base = feed.url() + "/releases";
  struct Row {
    const char* mode;
    const char* installed;
    UpdateState state;
    bool fromAtom;
    std::string message;
  };
  const Row rows[] = {
      {"json", "0.3.26220", UpdateState::newer, false,
       "a newer version is out: v0.4.1 (" + feed.url() + "/releases/tag/v0.4.1)"},
      {"json", "0.4.1", UpdateState::upToDate, false, "up to date (0.4.1)"},
      {"ratelimit", "0.3.26220", UpdateState::newer, true, ""},
      {"garbage-json", "0.5", UpdateState::upToDate, true, "up to date (0.5)"},
      {"garbage-xml", "0.3.26220", UpdateState::failed, true,
       "cannot read the release list (HTTP 403) nor its Atom feed (the answer cannot be read) — check the network "
       "or KELVO_RELEASES_URL"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.mode);
    feed.setMode(row.mode);
    const UpdateCheck check = checkForUpdate(base, row.installed);
    EXPECT_EQ(check.state, row.state);
    EXPECT_EQ(check.fromAtom, row.fromAtom);
    if (!row.message.empty()) {
      EXPECT_EQ(check.message, row.message);
    }
    if (row.state != UpdateState::failed) {
      ASSERT_TRUE(check.latest);
      EXPECT_EQ(check.latest->version, "v0.4.1");
      EXPECT_EQ(notesExcerpt(check.latest->notes, 2), "Hub sharing.\nModel downloader resumes.");
      EXPECT_EQ(check.feedUrl, row.fromAtom ? base + ".atom" : base);
    } else {
      EXPECT_EQ(check.feedUrl, "");
    }
  }
  const UpdateCheck none = checkForUpdate("", "0.1");
  EXPECT_EQ(none.state, UpdateState::notConfigured);
  EXPECT_EQ(none.message, "this build has no release feed configured");
  EXPECT_EQ(checkForUpdate("http://127.0.0.1:1/releases", "0.1").state, UpdateState::failed);
}

TEST(UpdateCheck, SelfTestScenario) {
  const test::PythonDouble feed("release_feed_double.py", {"--mode", "ratelimit"});
  const std::string installed = "手上这份: 0.3.26220  (2026-08-07 07:34)\n";
  const auto [passed, ok] = test::runSelfTest("update", "KELVO_RELEASES_URL=" + feed.url() + "/releases");
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(passed, "✓ 发布源有回应  " + feed.url() + "/releases.atom (Atom)\n✓ 找到最新版本  a newer version is out: " +
                        "v0.4.1 (" + feed.url() + "/releases/tag/v0.4.1)\n" + installed);
  const auto [missing, failed] = test::runSelfTest("update", "KELVO_RELEASES_URL=");
  EXPECT_EQ(failed, 1);
  EXPECT_EQ(missing, "✗ 发布源  this build has no release feed configured — set KELVO_RELEASES_URL to the project's "
                     "releases page\n" + installed);
}

}  // namespace
}  // namespace kelvo
