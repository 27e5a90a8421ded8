// AppConfig: the one shared, mutable settings object of the service. Built with
// defaults, filled from "config.json" at start (values clamped, old timeouts
// migrated), changed at run time by the HTTP routes, written back as a whole.
// It also owns three small stores: the default voice per language and gender,
// the airline voice bindings, and the user's shares on the sharing hub.
//
// Thread-safe: any thread may call anything. Numbers, flags and enums are
// atomics; the maps, the share list, the two text settings and `engine` sit
// behind one mutex, held only for the copy or lookup and never across a call
// out of the object. Binding lookups are one ordered-map probe.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KELVOCore/EngineOptions.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Paths.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// One of the user's own shares on the sharing hub. Two shares are the same
// share when their ids are equal ignoring case.
struct HubShare {
  std::string id;
  std::string title;
  std::string deleteKey;  // the secret the hub issued for taking the share down
};

using KeyValueList = std::vector<std::pair<std::string, std::string>>;

// "UAL:en:female": airline trimmed and upper-cased, normalised language, gender code.
std::string airlineKey(std::string_view airline, std::string_view language, TtsGender gender);
// "en:female": normalised language, gender code.
std::string defaultKey(std::string_view language, TtsGender gender);
// A key read from a file, rebuilt from its parts; with fewer than three
// (resp. two) ":"-separated parts the key is only trimmed. Extra parts are dropped.
std::string normalizeAirlineKey(std::string_view key);
std::string normalizeDefaultKey(std::string_view key);

class AppConfig {
 public:
  static constexpr std::int64_t legacyTimeoutMs = 180000;        // what old files carry
  static constexpr std::int64_t maxRequestTimeoutMs = 1800000;   // cap of requestTimeoutMs
  static constexpr std::int64_t engineTimeoutMarginMs = 60000;   // engine outlives the request by this

  // The defaults, as reset() leaves them; `path` is the file load() and save() use.
  explicit AppConfig(std::string path = KELVOPaths::configFile());
  AppConfig(const AppConfig&) = delete;
  AppConfig& operator=(const AppConfig&) = delete;

  // Every setting and `engine` back to its default; bindings and shares emptied.
  // Does not save.
  void reset();

  // Reads the file. A missing file is written with the current (default) values;
  // an unreadable or non-JSON file is left alone and the settings are unchanged.
  // Values are clamped; a file whose timeouts had to be migrated is rewritten.
  void load();
  // Writes every setting pretty-printed with sorted keys, atomically. A failure
  // is logged; nothing is thrown.
  void save() const;
  const std::string& path() const { return path_; }

  // "http://host:port", host 127.0.0.1 when bound to every address.
  std::string baseUrl() const;

  // ---- Bindings ----
  std::optional<std::string> defaultVoice(std::string_view language, TtsGender gender) const;
  // An id that is empty after trimming removes the binding.
  void setDefaultVoice(std::string_view language, TtsGender gender, std::string_view voiceId);
  // Exact lookup, no fallback; "" when the airline is blank or nothing is bound.
  std::string airlineVoice(std::string_view airline, std::string_view language, TtsGender gender) const;
  // Ignored for a blank airline; an empty id removes the binding.
  void setAirlineVoice(std::string_view airline, std::string_view language, TtsGender gender,
                       std::string_view voiceId);
  // Drops every default and airline binding that points at `voiceId` (ignoring case).
  void forgetVoice(std::string_view voiceId);
  std::vector<std::string> knownAirlines() const;  // distinct airline codes, sorted
  KeyValueList airlinesSnapshot() const;           // sorted by key
  KeyValueList defaultsSnapshot() const;           // sorted by key

  // ---- Hub shares ----
  // Ignored when id or deleteKey is empty; replaces a share with the same id in place.
  void addHubShare(std::string id, std::string title, std::string deleteKey);
  std::optional<std::string> hubDeleteKey(std::string_view id) const;
  void removeHubShare(std::string_view id);
  std::vector<HubShare> hubSharesSnapshot() const;

  // ---- Plain settings (setters store as given; clamping happens on load) ----
  std::int64_t port() const { return port_; }
  void setPort(std::int64_t v) { port_ = v; }
  std::string bindAddress() const;
  void setBindAddress(std::string v);
  std::int64_t rateLimitPerMinute() const { return rateLimitPerMinute_; }  // 0: no limit
  void setRateLimitPerMinute(std::int64_t v) { rateLimitPerMinute_ = v; }
  bool autoStartServer() const { return autoStartServer_; }
  void setAutoStartServer(bool v) { autoStartServer_ = v; }
  bool minimizeToTray() const { return minimizeToTray_; }
  void setMinimizeToTray(bool v) { minimizeToTray_ = v; }
  UiLang uiLanguage() const { return uiLanguage_; }
  // Also the process's interface language from now on (setUiLang): messages
  // follow the configuration, and `automatic` follows the environment.
  // load() sets it this way too.
  void setUiLanguage(UiLang v);
  bool showAdvanced() const { return showAdvanced_; }
  void setShowAdvanced(bool v) { showAdvanced_ = v; }
  bool launchAtLogin() const { return launchAtLogin_; }
  void setLaunchAtLogin(bool v) { launchAtLogin_ = v; }
  std::string hubUserId() const;
  void setHubUserId(std::string v);
  std::int64_t maxTextLength() const { return maxTextLength_; }
  void setMaxTextLength(std::int64_t v) { maxTextLength_ = v; }
  std::int64_t queueLimit() const { return queueLimit_; }
  void setQueueLimit(std::int64_t v) { queueLimit_ = v; }
  std::int64_t requestTimeoutMs() const { return requestTimeoutMs_; }
  void setRequestTimeoutMs(std::int64_t v) { requestTimeoutMs_ = v; }
  TtsSpeedMode speedMode() const { return speedMode_; }
  void setSpeedMode(TtsSpeedMode v) { speedMode_ = v; }
  std::int64_t outputSampleRate() const { return outputSampleRate_; }  // 0: none requested
  void setOutputSampleRate(std::int64_t v) { outputSampleRate_ = v; }
  bool normalizeOutput() const { return normalizeOutput_; }
  void setNormalizeOutput(bool v) { normalizeOutput_ = v; }
  bool autoCreateDefaultVoice() const { return autoCreateDefaultVoice_; }
  void setAutoCreateDefaultVoice(bool v) { autoCreateDefaultVoice_ = v; }
  bool cacheEnabled() const { return cacheEnabled_; }
  void setCacheEnabled(bool v) { cacheEnabled_ = v; }
  std::int64_t cacheBudgetMB() const { return cacheBudgetMB_; }
  void setCacheBudgetMB(std::int64_t v) { cacheBudgetMB_ = v; }
  EngineOptions engine() const;
  void setEngine(EngineOptions v);

 private:
  // Applies the "server", "synthesis", "cache" and "engine" sections.
  void applySettings(const Json& root);
  // Raises legacy and too-short engine timeouts; true when anything changed.
  bool migrateTimeouts();
  // Replaces the hub identity, the shares and both binding maps from the
  // file; `text` is the file's bytes, whose member order the bindings keep.
  void applyStores(const Json& root, std::span<const std::uint8_t> text);
  Json toJson() const;

  const std::string path_;
  mutable std::mutex lock_;
  std::map<std::string, std::string> defaults_;
  std::vector<HubShare> hubShares_;
  std::map<std::string, std::string> airlines_;
  std::string bindAddress_;
  std::string hubUserId_;
  EngineOptions engine_;

  std::atomic<std::int64_t> port_;
  std::atomic<std::int64_t> rateLimitPerMinute_;
  std::atomic<bool> autoStartServer_;
  std::atomic<bool> minimizeToTray_;
  std::atomic<UiLang> uiLanguage_;
  std::atomic<bool> showAdvanced_;
  std::atomic<bool> launchAtLogin_;
  std::atomic<std::int64_t> maxTextLength_;
  std::atomic<std::int64_t> queueLimit_;
  std::atomic<std::int64_t> requestTimeoutMs_;
  std::atomic<TtsSpeedMode> speedMode_;
  std::atomic<std::int64_t> outputSampleRate_;
  std::atomic<bool> normalizeOutput_;
  std::atomic<bool> autoCreateDefaultVoice_;
  std::atomic<bool> cacheEnabled_;
  std::atomic<std::int64_t> cacheBudgetMB_;
};

}  // namespace kelvo
