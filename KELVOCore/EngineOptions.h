// EngineOptions: how the inference engine runs (model file, compute back-end,
// GPU layers, threads, download source, time limit) and the sampling values it
// sends with every synthesis. A plain value with no lock of its own: the owner
// (the configuration, or an engine) guards it.
//
// It is stored as the "engine" section of the configuration file; the two
// functions below are the only readers and writers of that section.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KELVOCore/Json.h"
#include "KELVOCore/Types.h"

namespace kelvo {

struct EngineOptions {
  std::string modelFile;  // empty: the engine picks the model file
  ComputeBackend compute = ComputeBackend::automatic;
  std::int64_t gpuLayers = -1;  // below 0: all layers
  std::int64_t threads = 0;     // 0: the engine decides
  bool useMirror = true;
  std::string packageBaseUrl;
  std::int64_t timeoutMs = 900000;
  std::int64_t maxNewTokens = KELVO::s2DefMaxTokens;
  float temperature = KELVO::s2DefTemperature;
  float topP = KELVO::s2DefTopP;
  std::int64_t topK = KELVO::s2DefTopK;
  float repetitionPenalty = KELVO::s2DefRepPenalty;
  std::string extraArgs;  // split on spaces, appended to the engine's command line

  // "local s2.cpp · <compute> · temp 0.58 / top_p 0.80 / top_k 40", localised.
  std::string describe() const;
  // Engine parameters carrying these sampling values and nothing else.
  S2Params samplingParams() const;
  // `extraArgs` split on single spaces with empty pieces dropped. No quoting:
  // an argument cannot contain a space.
  std::vector<std::string> extraArgList() const;
};

// Applies the "engine" section over `current`: a missing or mistyped key keeps
// the current value, numbers are clamped to their ranges (gpuLayers -1..999,
// threads 0..256, timeoutMs 5000..1860000, maxNewTokens 64..16384, topK
// 0..1000); the sampling floats are taken as they are.
EngineOptions loadEngineOptions(const Json& section, EngineOptions current);
// The "engine" section: floats as doubles, `compute` by its code.
Json engineOptionsJson(const EngineOptions& options);

}  // namespace kelvo
