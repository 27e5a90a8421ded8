#include "KELVOCore/Config.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "KELVOCore/Files.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Version.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "config";

std::vector<std::string_view> splitOnColon(std::string_view key) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t colon = key.find(':', start);
    parts.push_back(key.substr(start, colon == std::string_view::npos ? std::string_view::npos : colon - start));
    if (colon == std::string_view::npos) return parts;
    start = colon + 1;
  }
}

// The member as an object, read in place: copying a section out of the tree
// would recurse through whatever nesting a damaged file holds.
const Json& sectionOf(const Json& root, std::string_view key) {
  static const Json empty = Json::object();
  auto it = root.find(key);
  return it != root.end() && it->is_object() ? *it : empty;
}

// A share field: strings as they are, numbers by their decimal text, anything
// else (null, true, nested values) as nothing.
std::string shareText(const Json& share, std::string_view key) {
  auto it = share.find(key);
  if (it == share.end() || !(it->is_string() || it->is_number())) return {};
  return jStr(share, key);
}

// In file order, so that of two keys that mean the same binding ("ual:en:f"
// and "UAL:EN:female") the later one wins, whatever their spelling.
std::map<std::string, std::string> bindingsFrom(const KeyValueList& members,
                                                std::string (*normalizeKey)(std::string_view)) {
  std::map<std::string, std::string> out;
  for (const auto& [key, value] : members) {
    std::string id = trimmed(value);
    if (!id.empty()) out[normalizeKey(key)] = std::move(id);
  }
  return out;
}

void setOrErase(std::map<std::string, std::string>& map, std::string key, std::string_view voiceId) {
  std::string id = trimmed(voiceId);
  if (id.empty()) {
    map.erase(key);
  } else {
    map[std::move(key)] = std::move(id);
  }
}

bool sameIgnoringCase(std::string_view a, std::string_view b) { return a == b || toLower(a) == toLower(b); }

}  // namespace

// ---- Binding keys -------------------------------------------------------------

std::string airlineKey(std::string_view airline, std::string_view language, TtsGender gender) {
  return normAirline(airline) + ":" + normLang(language) + ":" + std::string(code(gender));
}

std::string defaultKey(std::string_view language, TtsGender gender) {
  return normLang(language) + ":" + std::string(code(gender));
}

std::string normalizeAirlineKey(std::string_view key) {
  const auto parts = splitOnColon(key);
  if (parts.size() < 3) return trimmed(key);
  return airlineKey(parts[0], parts[1], parseGender(parts[2]));
}

std::string normalizeDefaultKey(std::string_view key) {
  const auto parts = splitOnColon(key);
  if (parts.size() < 2) return trimmed(key);
  return defaultKey(parts[0], parseGender(parts[1]));
}

// ---- AppConfig ------------------------------------------------------------------

AppConfig::AppConfig(std::string path) : path_(std::move(path)) { reset(); }

void AppConfig::reset() {
  port_ = KELVO::defaultHttpPort;
  rateLimitPerMinute_ = 0;
  autoStartServer_ = true;
  minimizeToTray_ = true;
  uiLanguage_ = UiLang::automatic;
  showAdvanced_ = false;
  launchAtLogin_ = false;
  maxTextLength_ = 5000;
  queueLimit_ = 64;
  requestTimeoutMs_ = 600000;
  speedMode_ = TtsSpeedMode::localStretch;
  outputSampleRate_ = 0;
  normalizeOutput_ = false;
  autoCreateDefaultVoice_ = true;
  cacheEnabled_ = true;
  cacheBudgetMB_ = 0;
  std::lock_guard guard(lock_);
  bindAddress_ = "0.0.0.0";
  hubUserId_.clear();
  engine_ = EngineOptions();
  defaults_.clear();
  airlines_.clear();
  hubShares_.clear();
}

void AppConfig::load() {
  const std::string& path = path_;
  std::error_code ec;
  if (!std::filesystem::exists(path, ec) && !ec) {
    AppLog::info(kSource, "no config file; using defaults and writing one: " + path);
    save();
    return;
  }
  const auto bytes = readFile(path);
  if (!bytes) {
    AppLog::error(kSource, "cannot read config; using defaults");
    return;
  }
  const auto root = parseJsonObject(*bytes);
  if (!root) {
    AppLog::warn(kSource, "config is not valid JSON; using defaults");
    return;
  }
  applySettings(*root);
  const bool migrated = migrateTimeouts();
  applyStores(*root, *bytes);
  AppLog::info(kSource, "config loaded: " + path);
  if (migrated) save();
}

void AppConfig::applySettings(const Json& root) {
  const Json& server = sectionOf(root, "server");
  port_ = std::clamp<std::int64_t>(jInt(server, "port", port_), 1, 65535);
  setBindAddress(jStr(server, "bind", bindAddress()));
  rateLimitPerMinute_ = std::max<std::int64_t>(jInt(server, "rateLimitPerMinute", rateLimitPerMinute_), 0);
  autoStartServer_ = jBool(server, "autoStart", autoStartServer_);
  minimizeToTray_ = jBool(server, "minimizeToTray", minimizeToTray_);
  showAdvanced_ = jBool(server, "showAdvanced", showAdvanced_);
  launchAtLogin_ = jBool(server, "launchAtLogin", launchAtLogin_);
  const std::string uiCode = jStr(server, "uiLanguage", std::string(code(uiLanguage_.load())));
  setUiLanguage(uiLangFromCode(toLower(trimmed(uiCode))).value_or(UiLang::automatic));

  const Json& synthesis = sectionOf(root, "synthesis");
  maxTextLength_ = std::clamp<std::int64_t>(jInt(synthesis, "maxTextLength", maxTextLength_), 1, 100000);
  queueLimit_ = std::clamp<std::int64_t>(jInt(synthesis, "queueLimit", queueLimit_), 1, 4096);
  requestTimeoutMs_ =
      std::clamp<std::int64_t>(jInt(synthesis, "timeoutMs", requestTimeoutMs_), 1000, maxRequestTimeoutMs);
  // Unknown texts deliberately land on `engine`, not on the default `localStretch`.
  speedMode_ = parseSpeedMode(jStr(synthesis, "speedMode", std::string(code(speedMode_.load()))));
  outputSampleRate_ = std::max<std::int64_t>(jInt(synthesis, "outputSampleRate", outputSampleRate_), 0);
  normalizeOutput_ = jBool(synthesis, "normalizeOutput", normalizeOutput_);
  autoCreateDefaultVoice_ = jBool(synthesis, "autoDefaultVoice", autoCreateDefaultVoice_);

  const Json& cache = sectionOf(root, "cache");
  cacheEnabled_ = jBool(cache, "enabled", cacheEnabled_);
  cacheBudgetMB_ = std::clamp<std::int64_t>(jInt(cache, "budgetMB", cacheBudgetMB_), 0, 8192);

  setEngine(loadEngineOptions(sectionOf(root, "engine"), engine()));
}

bool AppConfig::migrateTimeouts() {
  EngineOptions options = engine();
  bool changed = false;
  if (requestTimeoutMs_ == legacyTimeoutMs && options.timeoutMs == legacyTimeoutMs) {
    requestTimeoutMs_ = 600000;
    options.timeoutMs = 900000;
    AppLog::info(kSource,
                 "raised the old 180 s timeouts to 600 s / 900 s — on Apple silicon the codec runs on CPU and a 12 s "
                 "announcement takes about 260 s, so 180 s gave up before it could ever finish");
    changed = true;
  }
  // An engine request that outlives the HTTP request keeps s2 busy after the
  // client has gone, and every request behind it then fails.
  const std::int64_t request = requestTimeoutMs_;
  const std::int64_t floor = std::min(request + engineTimeoutMarginMs, maxRequestTimeoutMs + engineTimeoutMarginMs);
  if (options.timeoutMs < floor) {
    AppLog::info(kSource, "engine timeout " + std::to_string(options.timeoutMs) + " ms was shorter than the " +
                              "synthesis timeout " + std::to_string(request) + " ms; raised it to " +
                              std::to_string(floor) + " ms — a shorter one cuts the HTTP request off while " +
                              "s2 keeps going, and every request after that gets a 503");
    options.timeoutMs = floor;
    changed = true;
  }
  if (changed) setEngine(options);
  return changed;
}

void AppConfig::applyStores(const Json& root, std::span<const std::uint8_t> text) {
  const Json& hub = sectionOf(root, "hub");
  std::string userId = jStr(hub, "userId");
  std::vector<HubShare> shares;
  if (auto it = hub.find("shares"); it != hub.end() && it->is_array()) {
    for (const Json& element : *it) {
      if (!element.is_object()) continue;
      HubShare share{shareText(element, "id"), shareText(element, "title"), shareText(element, "deleteKey")};
      if (!share.id.empty() && !share.deleteKey.empty()) shares.push_back(std::move(share));
    }
  }
  auto airlines = bindingsFrom(stringMembersInTextOrder(text, "airlineVoices"), normalizeAirlineKey);
  auto defaults = bindingsFrom(stringMembersInTextOrder(text, "defaultVoices"), normalizeDefaultKey);

  std::lock_guard guard(lock_);
  hubUserId_ = std::move(userId);
  hubShares_ = std::move(shares);
  airlines_ = std::move(airlines);
  defaults_ = std::move(defaults);
}

Json AppConfig::toJson() const {
  std::unique_lock guard(lock_);
  const std::string bind = bindAddress_;
  const std::string userId = hubUserId_;
  const EngineOptions options = engine_;
  const auto airlines = airlines_;
  const auto defaults = defaults_;
  const auto shares = hubShares_;
  guard.unlock();

  Json shareList = Json::array();
  for (const auto& s : shares) shareList.push_back({{"id", s.id}, {"title", s.title}, {"deleteKey", s.deleteKey}});
  return Json{
      {"version", std::string(KELVO::version)},
      {"server",
       {{"port", port_.load()},
        {"bind", bind},
        {"rateLimitPerMinute", rateLimitPerMinute_.load()},
        {"autoStart", autoStartServer_.load()},
        {"minimizeToTray", minimizeToTray_.load()},
        {"showAdvanced", showAdvanced_.load()},
        {"launchAtLogin", launchAtLogin_.load()},
        {"uiLanguage", code(uiLanguage_.load())}}},
      {"synthesis",
       {{"maxTextLength", maxTextLength_.load()},
        {"queueLimit", queueLimit_.load()},
        {"timeoutMs", requestTimeoutMs_.load()},
        {"speedMode", code(speedMode_.load())},
        {"outputSampleRate", outputSampleRate_.load()},
        {"normalizeOutput", normalizeOutput_.load()},
        {"autoDefaultVoice", autoCreateDefaultVoice_.load()}}},
      {"cache", {{"enabled", cacheEnabled_.load()}, {"budgetMB", cacheBudgetMB_.load()}}},
      {"engine", engineOptionsJson(options)},
      {"hub", {{"userId", userId}, {"shares", shareList}}},
      {"airlineVoices", airlines},
      {"defaultVoices", defaults},
  };
}

void AppConfig::save() const {
  const auto bytes = jsonData(toJson(), /*pretty=*/true);
  if (const std::error_code ec = writeFileAtomic(path_, bytes)) {
    AppLog::error(kSource, "cannot write config: " + ec.message());
  }
}

std::string AppConfig::baseUrl() const {
  std::string host = bindAddress();
  if (host.empty() || host == "0.0.0.0") host = "127.0.0.1";
  return "http://" + host + ":" + std::to_string(port_.load());
}

// ---- Bindings ---------------------------------------------------------------------

std::optional<std::string> AppConfig::defaultVoice(std::string_view language, TtsGender gender) const {
  const std::string key = defaultKey(language, gender);
  std::lock_guard guard(lock_);
  auto it = defaults_.find(key);
  if (it == defaults_.end()) return std::nullopt;
  return it->second;
}

void AppConfig::setDefaultVoice(std::string_view language, TtsGender gender, std::string_view voiceId) {
  std::string key = defaultKey(language, gender);
  std::lock_guard guard(lock_);
  setOrErase(defaults_, std::move(key), voiceId);
}

std::string AppConfig::airlineVoice(std::string_view airline, std::string_view language, TtsGender gender) const {
  if (trimmed(airline).empty()) return {};
  const std::string key = airlineKey(airline, language, gender);
  std::lock_guard guard(lock_);
  auto it = airlines_.find(key);
  return it == airlines_.end() ? std::string() : it->second;
}

void AppConfig::setAirlineVoice(std::string_view airline, std::string_view language, TtsGender gender,
                                std::string_view voiceId) {
  if (trimmed(airline).empty()) return;
  std::string key = airlineKey(airline, language, gender);
  std::lock_guard guard(lock_);
  setOrErase(airlines_, std::move(key), voiceId);
}

void AppConfig::forgetVoice(std::string_view voiceId) {
  const std::string id = toLower(trimmed(voiceId));
  if (id.empty()) return;
  std::lock_guard guard(lock_);
  for (auto* map : {&defaults_, &airlines_}) {
    std::erase_if(*map, [&](const auto& entry) { return sameIgnoringCase(entry.second, id); });
  }
}

std::vector<std::string> AppConfig::knownAirlines() const {
  std::set<std::string> codes;
  {
    std::lock_guard guard(lock_);
    for (const auto& entry : airlines_) codes.insert(entry.first.substr(0, entry.first.find(':')));
  }
  return {codes.begin(), codes.end()};
}

KeyValueList AppConfig::airlinesSnapshot() const {
  std::lock_guard guard(lock_);
  return {airlines_.begin(), airlines_.end()};
}

KeyValueList AppConfig::defaultsSnapshot() const {
  std::lock_guard guard(lock_);
  return {defaults_.begin(), defaults_.end()};
}

// ---- Hub shares -------------------------------------------------------------------

void AppConfig::addHubShare(std::string id, std::string title, std::string deleteKey) {
  if (id.empty() || deleteKey.empty()) return;
  HubShare share{std::move(id), std::move(title), std::move(deleteKey)};
  std::lock_guard guard(lock_);
  auto it = std::find_if(hubShares_.begin(), hubShares_.end(),
                         [&](const HubShare& s) { return sameIgnoringCase(s.id, share.id); });
  if (it == hubShares_.end()) {
    hubShares_.push_back(std::move(share));
  } else {
    *it = std::move(share);
  }
}

std::optional<std::string> AppConfig::hubDeleteKey(std::string_view id) const {
  std::lock_guard guard(lock_);
  for (const auto& s : hubShares_) {
    if (sameIgnoringCase(s.id, id)) return s.deleteKey;
  }
  return std::nullopt;
}

void AppConfig::removeHubShare(std::string_view id) {
  std::lock_guard guard(lock_);
  std::erase_if(hubShares_, [&](const HubShare& s) { return sameIgnoringCase(s.id, id); });
}

std::vector<HubShare> AppConfig::hubSharesSnapshot() const {
  std::lock_guard guard(lock_);
  return hubShares_;
}

// ---- Text settings and engine ------------------------------------------------------

std::string AppConfig::bindAddress() const {
  std::lock_guard guard(lock_);
  return bindAddress_;
}

void AppConfig::setBindAddress(std::string v) {
  std::lock_guard guard(lock_);
  bindAddress_ = std::move(v);
}

void AppConfig::setUiLanguage(UiLang v) {
  uiLanguage_ = v;
  setUiLang(v);
}

std::string AppConfig::hubUserId() const {
  std::lock_guard guard(lock_);
  return hubUserId_;
}

void AppConfig::setHubUserId(std::string v) {
  std::lock_guard guard(lock_);
  hubUserId_ = std::move(v);
}

EngineOptions AppConfig::engine() const {
  std::lock_guard guard(lock_);
  return engine_;
}

void AppConfig::setEngine(EngineOptions v) {
  std::lock_guard guard(lock_);
  engine_ = std::move(v);
}

}  // namespace kelvo
