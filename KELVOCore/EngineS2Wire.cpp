#include "KELVOCore/EngineS2Wire.h"

#include <algorithm>
#include <string_view>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Multipart.h"

namespace kelvo {

namespace {

// Float sampling values go out as the decimals people typed (0.58, not
// 0.5799999833106995).
constexpr int kFloatDigits = 6;

std::string paramsJson(const S2Params& p) {
  Json o = Json::object();
  o["max_new_tokens"] = p.maxNewTokens;
  o["temperature"] = jsonNumber(p.temperature, kFloatDigits);
  o["top_p"] = jsonNumber(p.topP, kFloatDigits);
  o["top_k"] = p.topK;
  o["repetition_penalty"] = jsonNumber(p.repetitionPenalty, kFloatDigits);
  if (p.seed != 0) o["seed"] = p.seed;
  const std::string text = jsonString(o, false);
  return text.empty() ? "{}" : text;
}

}  // namespace

std::vector<std::string> s2CommandLine(const std::string& modelPath, std::int64_t port,
                                       const std::string& tokenizerPath, const EngineOptions& options,
                                       bool gpuBackendAvailable) {
  std::vector<std::string> args = {"--model",   modelPath, "--server",          "--host",
                                   "127.0.0.1", "--port",  std::to_string(port)};
  if (!tokenizerPath.empty()) {
    args.push_back("--tokenizer");
    args.push_back(tokenizerPath);
  }
  if (options.compute == ComputeBackend::cpu || !gpuBackendAvailable) {
    args.insert(args.end(), {"-ngl", "0", "--codec-cpu"});
  } else {
    const std::int64_t layers = options.gpuLayers < 0 ? 99 : options.gpuLayers;
    args.insert(args.end(), {"-M", "-ngl", std::to_string(layers), "--codec-cpu"});
  }
  if (options.threads > 0) {
    args.push_back("-threads");
    args.push_back(std::to_string(options.threads));
  }
  for (std::string& extra : options.extraArgList()) args.push_back(std::move(extra));
  return args;
}

Bytes s2GenerateBody(const S2Params& params, const std::string& boundary) {
  MultipartForm form(boundary);
  form.addField("text", params.text);
  form.addField("params", paramsJson(params));
  if (!params.voiceProfile.empty()) {
    form.addField("voice", params.voiceProfile);
  } else if (!params.referenceAudio.empty()) {
    const bool mp3 = looksLikeMp3(params.referenceAudio) && !looksLikeWav(params.referenceAudio);
    form.addFile("reference", mp3 ? "reference.mp3" : "reference.wav", "application/octet-stream",
                 params.referenceAudio);
    form.addField("reference_text", params.referenceText);
  }
  return form.finish();
}

}  // namespace kelvo
