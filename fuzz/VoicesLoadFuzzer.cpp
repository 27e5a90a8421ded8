// Any bytes as voices.json: loading must give addressable voices whose clip
// files all lie directly inside the clip folder, and saving what was loaded
// must be a fixed point.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "KELVOCore/Voices.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelvo;
  static const std::string dir = fuzz::scratchFolder();
  const std::string file = dir + "voices.json";
  const std::string clipDir = dir + "clone/";
  fuzz::writeInput(file, data, size);

  VoiceLibrary library(file, clipDir);
  library.load();
  std::set<std::string> ids;
  for (const VoiceInfo& voice : library.all()) {
    if (voice.id.empty() || !ids.insert(toLower(voice.id)).second || !library.find(voice.id)) std::abort();
    for (const VoiceClip& clip : voice.clips) {
      const std::string path = library.clipPath(clip);
      if (!path.starts_with(clipDir) || path.find('/', clipDir.size()) != std::string::npos ||
          clip.fileName.starts_with(".")) {
        std::abort();
      }
    }
  }

  library.save();
  const std::string saved = fuzz::readText(file);
  VoiceLibrary reread(file, clipDir);
  reread.load();
  reread.save();
  if (reread.count() != library.count() || fuzz::readText(file) != saved) std::abort();
  return 0;
}
