// Hub: the client of the sharing hub, where airlines and groups of airports
// swap clone packs. The wire format, relative to the hub's base address:
//   GET  /API/hub.php?a=list    -> 200 {"shares": [{"id", "title", "author",
//                                  "voices", "clips", "bytes", "created_at", "url"}]}
//   POST /API/hub.php?a=upload  multipart "title", "author", "version",
//                                  "fingerprint" and the file "pack" (a .cln)
//                               -> 200 {"id", "delete_key"}; 413 over 20 MB;
//                                  429 after 5 uploads an hour from one address
//   POST /API/hub.php?a=delete  form "id", "delete_key" -> 200 {"deleted": true};
//                                  403 for a wrong key
//   GET  <a share's url>        -> the pack's bytes
// The delete key of each share made here is kept in the configuration's
// `hubShares`; the fingerprint of what was shared sits beside it in
// "data/hub-fingerprints.json", so sharing unchanged content again is noticed.
//
// Thread-safe: HubClient holds only its base address; every call is one
// blocking exchange. The operations at the bottom go through AppConfig and
// VoiceLibrary, which lock for themselves. Cost: one HTTP exchange per call
// (two for a share that may be unchanged); packs are held in memory whole.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/Types.h"
#include "KELVOCore/Voices.h"

namespace kelvo {

// The hub this build talks to when KELVO_HUB_URL is not set; empty: none.
inline constexpr std::string_view hubBase = "";
inline constexpr std::int64_t hubMaxPackBytes = std::int64_t{20} << 20;  // 20 MB
inline constexpr int hubUploadsPerHour = 5;

// KELVO_HUB_URL when set and not blank, else hubBase; without trailing "/".
std::string hubBaseUrl();
// Where the fingerprints of this installation's shares are kept.
std::string hubFingerprintsFile();

// One entry of the hub's list.
struct HubListing {
  std::string id;
  std::string title;
  std::string author;
  std::int64_t voices = 0;
  std::int64_t clips = 0;
  std::int64_t bytes = 0;
  std::string createdAt;
  std::string url;  // where the pack is fetched; may be relative to the hub
};

struct HubUpload {
  std::string id;
  std::string deleteKey;
};

// Every failure throws TtsError with a sentence a person can act on: notFound
// for an unknown share, cloneFailed for everything else (no answer, a refusal,
// an answer that cannot be read).
class HubClient {
 public:
  explicit HubClient(std::string baseUrl = hubBaseUrl());

  bool configured() const { return !base_.empty(); }
  const std::string& baseUrl() const { return base_; }

  // REQUIRES for all calls: configured().
  std::vector<HubListing> list() const;
  // Refuses a pack over 20 MB before sending anything.
  HubUpload upload(std::span<const std::uint8_t> pack, std::string_view title, std::string_view author,
                   std::string_view version, std::string_view fingerprint) const;
  void remove(std::string_view id, std::string_view deleteKey) const;
  // The pack behind `share.url`, resolved against the hub's address when relative.
  Bytes download(const HubListing& share) const;

 private:
  std::string api(std::string_view action) const;

  std::string base_;
};

struct ShareResult {
  std::string id;
  bool unchanged = false;  // already shared with this very content; nothing was sent
  PackSummary summary;     // of the pack sent; empty when unchanged
};

// `kelvo hub share`: packs the bindings and voices, uploads them under
// `title` with the configured hubUserId as author, keeps the delete key
// (configuration saved) and the fingerprint. When a share made here carries
// the same fingerprint and is still listed by the hub, nothing is sent.
ShareResult shareOnHub(const HubClient& hub, std::string_view title, const std::vector<std::string>& airlineKeys,
                       const std::vector<std::string>& voiceIds, const VoiceLibrary& voices, AppConfig& config,
                       const std::string& fingerprintsFile = hubFingerprintsFile());

// `kelvo hub unshare`: deletes the share with its kept key and forgets it
// (configuration saved). A share the hub no longer knows is forgotten as well.
void unshareFromHub(const HubClient& hub, std::string_view id, AppConfig& config,
                    const std::string& fingerprintsFile = hubFingerprintsFile());

// The pack of the listed share `id` (ignoring case). Throws TtsError notFound
// when the hub does not list it.
Bytes downloadShare(const HubClient& hub, std::string_view id);

}  // namespace kelvo
