// TtsEngine: the one interface behind which every speech engine sits, so the
// synthesis service and its queue drive the real inference process and the
// placeholder alike. Only the synthesis worker thread calls `synthesize`; the
// other operations may be called from any thread and must be cheap.
#pragma once

#include <string>

#include "KELVOCore/EngineOptions.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// The answer of a health probe.
struct EngineHealth {
  bool ready = false;
  std::string backend;  // short human-readable name of what does the work
  std::string detail;   // one sentence for the user
  std::string exePath;  // empty when there is no executable
  TimePoint probedAt = std::chrono::system_clock::now();
};

class TtsEngine {
 public:
  virtual ~TtsEngine() = default;
  TtsEngine() = default;
  TtsEngine(const TtsEngine&) = delete;
  TtsEngine& operator=(const TtsEngine&) = delete;

  virtual std::string name() const = 0;  // short fixed identifier
  virtual bool ready() const = 0;        // can synthesise now
  // Whether the engine itself can speak faster or slower.
  virtual bool supportsNativeSpeed() const { return true; }
  // Whether a voice can be used straight from its reference clips.
  virtual bool supportsInstantClone() const { return true; }
  virtual void configure(const EngineOptions& options) = 0;
  virtual EngineOptions options() const = 0;
  virtual EngineHealth checkHealth() = 0;
  // The text of `params` spoken in the voice of `hint`.
  // Throws TtsError when the engine cannot deliver.
  virtual PcmBuffer synthesize(const S2Params& params, const VoiceHint& hint) = 0;
  // Tells the engine of a newly cloned voice; returns an engine-side reference
  // or "" when the engine keeps none.
  virtual std::string registerReference(const VoiceCloneSpec&) { return {}; }
};

}  // namespace kelvo
