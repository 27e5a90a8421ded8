#include "KELVOCore/EngineOptions.h"

#include <algorithm>
#include <sstream>

#include "KELVOCore/I18n.h"

namespace kelvo {

std::string EngineOptions::describe() const {
  return TF("本地 s2.cpp · %s · temp %.2f / top_p %.2f / top_k %d", display(compute), static_cast<double>(temperature),
            static_cast<double>(topP), static_cast<int>(topK));
}

S2Params EngineOptions::samplingParams() const {
  S2Params params;
  params.maxNewTokens = maxNewTokens;
  params.temperature = temperature;
  params.topP = topP;
  params.topK = topK;
  params.repetitionPenalty = repetitionPenalty;
  return params;
}

std::vector<std::string> EngineOptions::extraArgList() const {
  std::vector<std::string> args;
  std::istringstream words(extraArgs);
  std::string piece;
  while (std::getline(words, piece, ' ')) {
    if (!piece.empty()) args.push_back(piece);
  }
  return args;
}

EngineOptions loadEngineOptions(const Json& section, EngineOptions o) {
  auto clamped = [&](const char* key, std::int64_t current, std::int64_t lo, std::int64_t hi) {
    return std::clamp(jInt(section, key, current), lo, hi);
  };
  o.modelFile = jStr(section, "modelFile", o.modelFile);
  o.compute = parseComputeBackend(jStr(section, "compute", std::string(code(o.compute))));
  o.gpuLayers = clamped("gpuLayers", o.gpuLayers, -1, 999);
  o.threads = clamped("threads", o.threads, 0, 256);
  o.useMirror = jBool(section, "useMirror", o.useMirror);
  o.packageBaseUrl = jStr(section, "packageBaseUrl", o.packageBaseUrl);
  o.timeoutMs = clamped("timeoutMs", o.timeoutMs, 5000, 1860000);
  o.maxNewTokens = clamped("maxNewTokens", o.maxNewTokens, 64, 16384);
  o.temperature = static_cast<float>(jFloat(section, "temperature", o.temperature));
  o.topP = static_cast<float>(jFloat(section, "topP", o.topP));
  o.topK = clamped("topK", o.topK, 0, 1000);
  o.repetitionPenalty = static_cast<float>(jFloat(section, "repetitionPenalty", o.repetitionPenalty));
  o.extraArgs = jStr(section, "extraArgs", o.extraArgs);
  return o;
}

Json engineOptionsJson(const EngineOptions& o) {
  return Json{
      {"modelFile", o.modelFile},
      {"compute", code(o.compute)},
      {"gpuLayers", o.gpuLayers},
      {"threads", o.threads},
      {"useMirror", o.useMirror},
      {"packageBaseUrl", o.packageBaseUrl},
      {"timeoutMs", o.timeoutMs},
      {"maxNewTokens", o.maxNewTokens},
      {"temperature", static_cast<double>(o.temperature)},
      {"topP", static_cast<double>(o.topP)},
      {"topK", o.topK},
      {"repetitionPenalty", static_cast<double>(o.repetitionPenalty)},
      {"extraArgs", o.extraArgs},
  };
}

}  // namespace kelvo
