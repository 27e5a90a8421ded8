#include "KELVOCore/SelfCheck.h"

#include <unistd.h>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

namespace {

std::string testSentence(const std::string& language) {
  if (language == "zh") return "连接测试。";
  if (language == "ja") return "接続テストです。";
  return "Connection test.";
}

CheckResult configCheck(const TtsService& service) {
  const std::string& path = service.config().path();
  const std::optional<Bytes> bytes = readFile(path);
  if (!bytes) return {T("配置文件"), false, TF("读不到 %s", path)};
  if (!parseJsonObject(*bytes)) return {T("配置文件"), false, TF("%s 不是合法的 JSON", path)};
  return {T("配置文件"), true, path};
}

CheckResult voiceCheck(TtsService& service, const TtsRequest& probe) {
  try {
    const VoiceLibrary::Resolution found = service.voices().resolve(probe);
    if (found.voice) return {T("音色"), true, found.voice->id + " · " + found.voice->display};
  } catch (const TtsError& e) {
    return {T("音色"), false, e.message};
  }
  // Without an airline the service makes a default voice on first use.
  if (probe.airline.empty() && service.config().autoCreateDefaultVoice()) {
    return {T("音色"), true, T("还没有;第一次合成时会自动生成默认音色")};
  }
  return {T("音色"), false, service.noVoiceMessage(probe)};
}

CheckResult engineCheck(TtsService& service) {
  const EngineHealth health = service.activeEngine()->checkHealth();
  return {T("引擎"), health.ready, health.backend + " · " + health.detail};
}

CheckResult synthesisCheck(TtsService& service, const TtsRequest& probe) {
  try {
    const TtsResult result = service.synthesize(probe);
    return {T("合成"), !result.wav.empty(),
            TF("%d ms 音频,%s,%s", static_cast<int>(result.durationMs), result.voiceId,
               result.fromCache ? T("来自缓存") : T("新合成"))};
  } catch (const TtsError& e) {
    return {T("合成"), false, e.message};
  }
}

// A probe file in the cache folder: a disk that is full or read-only shows here
// before the first announcement fails to be cached.
CheckResult cacheCheck(const TtsService& service) {
  const std::string probe = service.cache().directory() + ".selfcheck-" + std::to_string(::getpid());
  const Bytes marker{'o', 'k'};
  if (const std::error_code ec = writeFileAtomic(probe, marker)) {
    return {T("缓存"), false, TF("缓存目录写不进去:%s", ec.message())};
  }
  ::unlink(probe.c_str());
  const CacheStats stats = service.cache().stats();
  return {T("缓存"), true, TF("%lld 条,%lld 字节", static_cast<long long>(stats.count), static_cast<long long>(stats.bytes))};
}

}  // namespace

std::vector<CheckResult> runSelfChecks(TtsService& service, TtsRequest probe) {
  probe.normalize();
  if (probe.text.empty()) probe.text = testSentence(normLang(probe.language));
  return {configCheck(service), voiceCheck(service, probe), engineCheck(service), synthesisCheck(service, probe),
          cacheCheck(service)};
}

}  // namespace kelvo
