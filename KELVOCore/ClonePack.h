// Clone packs (".cln"): voices with their reference clips and, optionally, the
// airline bindings that use them, carried to another installation in one zip
// archive. The archive holds the manifest "cln.json" (format
// "kelvo-clone-pack", version 1, "exportedAt" as ISO 8601 UTC, "voices",
// "airlines") and every clip's bytes, as stored, under "audio/" + file name.
//
// Import treats the pack as hostile. Clip bytes are looked up by name inside
// the archive and handed to VoiceLibrary::addClone, which checks them and
// writes them under names of its own: nothing in a pack chooses a path, so
// nothing lands outside the data root. A pack that cannot be opened, has no
// readable manifest or is not a clone pack is refused before anything changes;
// after that every voice and binding succeeds or is skipped on its own, with a
// note. A voice is either added whole or not at all, and the configuration is
// saved only once an import has run to its end.
//
// Thread-safe as far as VoiceLibrary and AppConfig are: both take their own
// locks. Two imports at once may each add the same voice (under "-1" ids).
// Cost: export reads and deflates every clip and holds the whole archive in
// memory; import inflates, decodes and stores every clip, and holds one voice's
// clips besides the archive (none of it when importing from a file).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Config.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Types.h"
#include "KELVOCore/Voices.h"

namespace kelvo {

inline constexpr std::string_view clnExt = "cln";
inline constexpr std::string_view packFormat = "kelvo-clone-pack";
inline constexpr std::string_view packManifest = "cln.json";

// What an export or import carried. `notes` holds one localised line per
// skipped or odd item.
struct PackSummary {
  std::int64_t voices = 0;
  std::int64_t voicesAdded = 0;
  std::int64_t voicesReused = 0;
  std::int64_t bindings = 0;
  std::int64_t clips = 0;
  std::int64_t bytes = 0;  // of the archive
  std::vector<std::string> notes;
  // "3 voice(s) (3 new, 0 reused) · 9 clip(s) · 2 binding(s) · 7.6 MB", localised.
  std::string describe() const;
};

// The summary as the HTTP API sends it: "voices", "voices_added",
// "voices_reused", "bindings", "clips", "bytes", "notes", "summary" (describe()).
Json packSummaryJson(const PackSummary& summary);

struct BuiltPack {
  Bytes archive;
  PackSummary summary;
};

// The pack in memory: the chosen airline bindings (keys as AppConfig::airlineKey
// makes them), every voice they use, then the voices named in `voiceIds`.
// A binding that is not set or whose voice is gone, and a clip file that cannot
// be read, are left out with a note. Throws TtsError: notFound for an unknown
// voice id, cloneFailed when the pack would break the limits of the zip format
// or of ZipReader.
BuiltPack buildPack(const std::vector<std::string>& airlineKeys, const std::vector<std::string>& voiceIds,
                    const VoiceLibrary& voices, const AppConfig& config);
// buildPack() of bindings only, written atomically to `path`. Throws TtsError
// as buildPack, and cloneFailed when the file cannot be written.
PackSummary exportPack(const std::string& path, const std::vector<std::string>& airlineKeys, const VoiceLibrary& voices,
                       const AppConfig& config);
// The named voices only, with no bindings, written to `path`. Throws as exportPack.
PackSummary exportVoicePack(const std::string& path, const std::vector<std::string>& voiceIds,
                            const VoiceLibrary& voices);

// Adds the pack's voices (ids exactly as addClone makes them, so a pack
// imported twice is added twice, the second time under "-1" ids) and sets its
// bindings to them; a binding whose voice was skipped is dropped with a note.
// Saves the configuration and the library at the end. Throws TtsError
// (badPack) with a localised message, before touching anything, when the bytes
// are not a zip archive, hold no readable manifest, or are not a clone pack.
PackSummary importPack(std::span<const std::uint8_t> archive, VoiceLibrary& voices, AppConfig& config);
// The same for the file at `path`, read one entry at a time; an unreadable
// file is refused likewise.
PackSummary importPack(const std::string& path, VoiceLibrary& voices, AppConfig& config);

// A text that changes whenever what buildPack(airlineKeys, voiceIds, …) would
// carry changes: the SHA-256 (64 upper-case hex digits) of one entry per
// binding, voice and clip, each clip entry holding the SHA-256 of its bytes.
// Unknown voice ids count as content too; nothing is thrown.
std::string packFingerprint(const std::vector<std::string>& voiceIds, const std::vector<std::string>& airlineKeys,
                            const VoiceLibrary& voices, const AppConfig& config);

}  // namespace kelvo
