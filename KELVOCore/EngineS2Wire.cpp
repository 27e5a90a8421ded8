#include "KELVOCore/EngineS2Wire.h"

#include <algorithm>
#include <string_view>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

// Float sampling values go out as the decimals people typed (0.58, not
// 0.5799999833106995).
constexpr int kFloatDigits = 6;

void append(Bytes& out, std::string_view text) { out.insert(out.end(), text.begin(), text.end()); }

void appendPartHead(Bytes& out, const std::string& boundary, std::string_view disposition,
                    std::string_view contentType) {
  append(out, "--");
  append(out, boundary);
  append(out, "\r\nContent-Disposition: form-data; ");
  append(out, disposition);
  append(out, "\r\nContent-Type: ");
  append(out, contentType);
  append(out, "\r\n\r\n");
}

void appendField(Bytes& out, const std::string& boundary, std::string_view name, std::string_view value) {
  appendPartHead(out, boundary, "name=\"" + std::string(name) + "\"", "text/plain; charset=utf-8");
  append(out, value);
  append(out, "\r\n");
}

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

std::string s2Boundary() {
  std::string uuid = makeUuid();
  std::erase(uuid, '-');
  return "----KELVO" + uuid;
}

Bytes s2GenerateBody(const S2Params& params, const std::string& boundary) {
  Bytes out;
  out.reserve(params.referenceAudio.size() + params.text.size() + params.referenceText.size() + 1024);
  appendField(out, boundary, "text", params.text);
  appendField(out, boundary, "params", paramsJson(params));
  if (!params.voiceProfile.empty()) {
    appendField(out, boundary, "voice", params.voiceProfile);
  } else if (!params.referenceAudio.empty()) {
    const bool mp3 = looksLikeMp3(params.referenceAudio) && !looksLikeWav(params.referenceAudio);
    appendPartHead(out, boundary,
                   std::string("name=\"reference\"; filename=\"reference") + (mp3 ? ".mp3" : ".wav") + "\"",
                   "application/octet-stream");
    out.insert(out.end(), params.referenceAudio.begin(), params.referenceAudio.end());
    append(out, "\r\n");
    appendField(out, boundary, "reference_text", params.referenceText);
  }
  append(out, "--");
  append(out, boundary);
  append(out, "--\r\n");
  return out;
}

}  // namespace kelvo
