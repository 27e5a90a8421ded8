// Any bytes as a clone pack. An input whose first byte is even is the archive
// itself: ZipReader must open it or refuse it, alike from memory and from a
// file, and every read must stay within the size limits. An input whose first
// byte is odd is a manifest: the rest is packed as "cln.json" beside valid
// clips under ordinary and hostile names, so the import logic is fuzzed past
// the archive's checksums.
//
// Either way importPack must add whole voices or nothing, refuse only with
// TtsError and nothing changed, and leave no file but the library's own clips
// (each belonging to a stored voice) and its two JSON files.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Wav.h"
#include "KELVOCore/Zip.h"
#include "fuzz/FuzzSupport.h"

namespace {

using namespace kelvo;
namespace fs = std::filesystem;

Bytes wav(float level) {
  PcmBuffer pcm;
  pcm.sampleRate = 8000;
  pcm.data.assign(8000, level);  // one second, the shortest clip the library takes
  return buildWav(pcm, 1);
}

Bytes packAround(const std::uint8_t* manifest, std::size_t size) {
  static const Bytes a = wav(0.1f), b = wav(0.2f), c = wav(0.3f);
  ZipWriter writer;
  const bool added = writer.add({"cln.json", Bytes(manifest, manifest + size)}) && writer.add({"audio/a.wav", a}) &&
                     writer.add({"audio/b.wav", b}) && writer.add({"audio/x.txt", Bytes(40, 'x')}) &&
                     writer.add({"../evil.wav", c}) && writer.add({"audio/../../cln.json", c});
  if (!added) std::abort();
  return writer.finish();
}

// The archive opened in memory and from a file, which the reader fetches
// piece by piece: both must list the same entries and give the same bytes or
// the same refusal, and every read must stay within the size limits.
void readEverything(std::span<const std::uint8_t> data) {
  static const std::string file = fuzz::scratchFolder() + "input.cln";
  fuzz::writeInput(file, data.data(), data.size());
  auto inMemory = ZipReader::openView(data);
  auto fromFile = ZipReader::openFile(file);
  if (inMemory.ok() != fromFile.ok()) std::abort();
  if (!inMemory.ok()) {
    if (inMemory.error().description() != fromFile.error().description()) std::abort();
    return;
  }
  ZipReader memoryReader = std::move(inMemory).value();
  ZipReader fileReader = std::move(fromFile).value();
  if (memoryReader.names() != fileReader.names() || memoryReader.size() != fileReader.size()) std::abort();
  std::uint64_t total = 0;
  for (const auto& name : memoryReader.names()) {
    if (!memoryReader.contains(name)) std::abort();
    auto entry = memoryReader.read(name);
    auto again = fileReader.read(name);
    if (entry.ok() != again.ok()) std::abort();
    if (!entry.ok()) {
      if (entry.error().description() != again.error().description()) std::abort();
      continue;
    }
    if (!entry.value() || entry.value()->size() > ZipReader::maxEntryBytes || *entry.value() != *again.value()) {
      std::abort();
    }
    total += entry.value()->size();
  }
  if (total > ZipReader::maxTotalBytes) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string scratch = fuzz::scratchFolder();
  const std::string root = scratch + "root/";
  std::error_code ec;
  fs::remove_all(root, ec);

  Bytes pack;
  if (size > 0 && (data[0] & 1)) {
    pack = packAround(data + 1, size - 1);
  } else {
    pack.assign(data, data + size);
    readEverything(pack);
  }

  AppConfig config(root + "data/config.json");
  VoiceLibrary library(root + "data/voices.json", root + "clone/");
  bool imported = true;
  try {
    importPack(pack, library, config);
  } catch (const TtsError&) {
    imported = false;
  }

  std::set<std::string> clips;
  for (const VoiceInfo& voice : library.all()) {
    if (voice.clips.empty()) std::abort();
    for (const VoiceClip& clip : voice.clips) clips.insert(clip.fileName);
  }
  std::set<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(scratch)) {
    if (entry.is_directory()) continue;
    const fs::path path = entry.path();
    const std::string folder = path.parent_path().string() + "/";
    const std::string name = path.filename().string();
    if (folder == root + "clone/") {
      files.insert(name);
    } else if (folder != root + "data/" || (name != "config.json" && name != "voices.json")) {
      std::abort();
    }
  }
  if (files != clips || (!imported && (library.count() != 0 || fs::exists(root + "data/config.json")))) std::abort();
  return 0;
}
