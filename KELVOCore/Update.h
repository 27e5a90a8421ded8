// Update check: asks the code-hosting service which releases of KELVO exist and
// compares the newest with this build. The JSON list of releases is read
// first (drafts and pre-releases skipped, the highest version taken); when it
// fails in any way — no answer, an HTTP error, a rate limit, JSON that is not a
// list — the Atom feed of the same releases is read instead. A build without a
// configured feed says so; that is not a failure.
//
// Thread-safe: pure functions and one blocking call that holds no state. Cost:
// at most two HTTP exchanges of a few kB each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Version.h"

namespace kelvo {

// The releases page this build checks when KELVO_RELEASES_URL is not set;
// empty: this build publishes no release feed.
inline constexpr std::string_view releasesBase = "";

// KELVO_RELEASES_URL when set and not blank, else releasesBase.
std::string releasesBaseUrl();

struct ReleaseFeed {
  std::string listUrl;  // JSON array of releases
  std::string atomUrl;  // Atom feed of the same releases
};

// The two addresses for a base. A GitHub project, given by its page
// ("https://github.com/O/R[/releases]") or its API address
// ("https://api.github.com/repos/O/R/releases"), maps to the API list and
// "https://github.com/O/R/releases.atom"; any other base is the list itself,
// with ".atom" appended for the feed. Trailing slashes are ignored.
ReleaseFeed releaseFeed(std::string_view base);

// "v0.3.26220" -> {0, 3, 26220}: a leading "v" or "V" ignored, then numbers
// separated by dots. Absent for anything else ("nightly", "1.2-rc1", "").
std::optional<std::vector<std::int64_t>> parseVersion(std::string_view text);
// Numeric comparison, component by component, missing components counting as
// zero: "0.3.26220" < "v0.3.26300" < "0.4" == "0.4.0". A text that is not a
// version sorts below every version. Negative, zero or positive.
int compareVersions(std::string_view a, std::string_view b);

struct ReleaseInfo {
  std::string version;  // the tag as published ("v0.4.0")
  std::string title;
  std::string url;    // the release's page
  std::string notes;  // plain text
  std::string publishedAt;
};

// The highest version of a JSON list of releases ("tag_name", "name",
// "draft", "prerelease", "html_url", "body", "published_at"). Absent when the
// text is not a JSON array; an array without a usable release gives an empty
// `version` (the feed answered, but lists nothing).
std::optional<ReleaseInfo> latestFromList(std::string_view json);
// The same from an Atom feed: the version is the last path segment of the
// entry's link (a tag page) or, failing that, its title; HTML in the content
// becomes plain text. Absent when the text is not an Atom feed.
std::optional<ReleaseInfo> latestFromAtom(std::string_view xml);

enum class UpdateState { notConfigured, upToDate, newer, failed };

struct UpdateCheck {
  UpdateState state = UpdateState::failed;
  std::string feedUrl;    // the address that answered; "" when none did
  bool fromAtom = false;  // the list failed and the Atom feed answered
  std::optional<ReleaseInfo> latest;  // absent unless a release was found
  std::string message;    // localised, one sentence
};

// Reads the feed of `base` ("" : notConfigured) and compares its newest
// release with `installed`. Never throws.
UpdateCheck checkForUpdate(std::string_view base = releasesBaseUrl(), std::string_view installed = KELVO::version);

// The first `lines` non-blank lines of release notes, each trimmed, joined by "\n".
std::string notesExcerpt(std::string_view notes, int lines);

}  // namespace kelvo
