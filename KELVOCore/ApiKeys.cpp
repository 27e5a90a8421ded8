#include "KELVOCore/ApiKeys.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>

#include "KELVOCore/Files.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Timestamp.h"

namespace kelvo {

namespace {

constexpr auto useSaveInterval = std::chrono::minutes(1);

bool validName(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  return std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '_' || c == '-';
  });
}

std::optional<Scope> scopeFromName(const std::string& text) {
  if (text == "speak") return Scope::speak;
  if (text == "admin") return Scope::admin;
  return std::nullopt;
}

// Same-length hex digests compared without an early exit, so the time taken
// says nothing about how much of a guessed key was right.
bool sameHash(const std::string& a, const std::string& b) {
  return a.size() == b.size() && !a.empty() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string now() { return isoUtc(std::chrono::system_clock::now()); }

}  // namespace

std::string makeApiKey() {
  unsigned char random[24];
  if (RAND_bytes(random, sizeof random) != 1) throw std::runtime_error("no random bytes for a key");
  static constexpr char hex[] = "0123456789abcdef";
  std::string key(apiKeyPrefix);
  for (const unsigned char b : random) key += {hex[b >> 4], hex[b & 15]};
  return key;
}

ApiKeys::ApiKeys(std::string folder) : folder_(std::move(folder)) {
  if (folder_.empty()) return;
  const std::string path = folder_ + std::string(apiKeysFileName);
  const std::optional<Bytes> raw = readFile(path);
  if (!raw) return;
  const std::optional<Json> doc = parseJsonObject(std::span<const std::uint8_t>(*raw));
  const std::optional<Json> keys = doc ? jArr(*doc, "keys") : std::nullopt;
  if (!keys) {
    damaged_ = true;
    AppLog::error("keys", path + " is damaged: the API stays closed to every key but the local one until a key is added");
    return;
  }
  for (const Json& k : *keys) {
    const std::optional<Scope> scope = scopeFromName(jStr(k, "scope"));
    const std::string hash = jStr(k, "sha256");
    if (!validName(jStr(k, "name")) || !scope || hash.size() != 64) {
      damaged_ = true;
      AppLog::warn("keys", "skipped an unreadable entry in " + path);
      continue;
    }
    entries_.push_back(Entry{{jStr(k, "name"), *scope, jStr(k, "created"), jStr(k, "last_used")}, hash, {}});
  }
}

ApiKeys::Added ApiKeys::add(const std::string& name, Scope scope) {
  if (!validName(name) || scope == Scope::open) return {{}, Refusal::badName};
  const std::string key = makeApiKey();
  std::lock_guard guard(lock_);
  if (std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.info.name == name; })) {
    return {{}, Refusal::taken};
  }
  entries_.push_back(Entry{{name, scope, now(), {}}, sha256Utf8(key), {}});
  try {
    saveLocked();
  } catch (const std::exception& e) {
    entries_.pop_back();
    AppLog::error("keys", e.what());
    return {{}, Refusal::unwritable};
  }
  damaged_ = false;
  AppLog::info("keys", "added key " + name + " (" + std::string(kelvo::name(scope)) + ")");
  return {key, Refusal::none};
}

bool ApiKeys::remove(const std::string& name) {
  std::lock_guard guard(lock_);
  const auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.info.name == name; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  saveLocked();
  AppLog::info("keys", "revoked key " + name);
  return true;
}

std::vector<ApiKeyInfo> ApiKeys::list() const {
  std::lock_guard guard(lock_);
  std::vector<ApiKeyInfo> out;
  for (const Entry& e : entries_) out.push_back(e.info);
  return out;
}

bool ApiKeys::enforced() const {
  std::lock_guard guard(lock_);
  return damaged_ || !entries_.empty();
}

std::optional<Scope> ApiKeys::check(const std::string& key) {
  if (key.empty()) return std::nullopt;
  const std::string hash = sha256Utf8(key);
  std::lock_guard guard(lock_);
  std::optional<Scope> granted;
  if (sameHash(hash, localHash_)) granted = Scope::admin;
  Entry* used = nullptr;
  for (Entry& e : entries_) {
    if (sameHash(hash, e.hash)) {
      granted = e.info.scope;
      used = &e;
    }
  }
  if (used != nullptr) {
    used->info.lastUsed = now();
    const auto t = std::chrono::steady_clock::now();
    if (t - used->savedUse >= useSaveInterval) {
      used->savedUse = t;
      try {
        saveLocked();
      } catch (const std::exception& e) {
        AppLog::warn("keys", e.what());
      }
    }
  }
  return granted;
}

bool ApiKeys::writeLocalKey() {
  const std::string key = makeApiKey();
  {
    std::lock_guard guard(lock_);
    localHash_ = sha256Utf8(key);
  }
  if (folder_.empty()) return false;
  const std::string text = key + "\n";
  const std::error_code ec = writeFileAtomic(
      folder_ + std::string(localKeyFileName),
      std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), 0600);
  if (ec) AppLog::warn("keys", "cannot write the local admin key: " + ec.message());
  return !ec;
}

void ApiKeys::saveLocked() const {
  if (folder_.empty()) return;
  Json keys = Json::array();
  for (const Entry& e : entries_) {
    keys.push_back(Json{{"name", e.info.name},
                        {"scope", std::string(name(e.info.scope))},
                        {"sha256", e.hash},
                        {"created", e.info.created},
                        {"last_used", e.info.lastUsed}});
  }
  const std::string path = folder_ + std::string(apiKeysFileName);
  const std::error_code ec = writeFileAtomic(path, jsonData(Json{{"keys", std::move(keys)}}, true), 0600);
  if (ec) throw std::runtime_error("cannot write " + path + ": " + ec.message());
}

}  // namespace kelvo
