// ApiKeys: who may call the API. Keys carry a name and a scope ("speak" or
// "admin"); only their SHA-256 is kept, in "api-keys.json" (mode 0600) in the
// service's data folder, never in the configuration. The plain key is shown
// once, when it is made. While no key exists the API stays open.
//
// Besides the named keys there is one local admin key, made new at every
// start of the service and written (0600) to "local-admin.key" beside the key
// file, so the `kelvo` command on this machine works without set-up; it does
// not by itself close the API.
//
// Thread-safe: one mutex guards the list; check() hashes outside it and
// compares every stored hash in constant time. Cost: one SHA-256 per check;
// last use is written to disk at most once a minute per key.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KELVOCore/RouteTable.h"
#include "KELVOCore/Types.h"

namespace kelvo {

inline constexpr std::string_view apiKeyPrefix = "kelvo_";
inline constexpr std::string_view apiKeysFileName = "api-keys.json";
inline constexpr std::string_view localKeyFileName = "local-admin.key";

struct ApiKeyInfo {
  std::string name;
  Scope scope = Scope::speak;
  std::string created;   // ISO 8601 UTC
  std::string lastUsed;  // ISO 8601 UTC; empty when never used
};

class ApiKeys {
 public:
  // Keys are kept in `folder` (with a trailing "/"); an empty folder keeps
  // them in memory only. A damaged key file is logged and, so that a broken
  // file never opens the API, every named key of it is lost but the API stays
  // closed until a key is added again.
  explicit ApiKeys(std::string folder = {});
  ApiKeys(const ApiKeys&) = delete;
  ApiKeys& operator=(const ApiKeys&) = delete;

  enum class Refusal { none, badName, taken, unwritable };
  struct Added {
    std::string key;  // empty when refused
    Refusal refusal = Refusal::none;
  };
  // A new random key for `name`, saved before it is returned. Refused when the
  // name is not 1..64 of [A-Za-z0-9._-], is taken, or the file cannot be written.
  Added add(const std::string& name, Scope scope);
  // False when no key has this name.
  bool remove(const std::string& name);
  std::vector<ApiKeyInfo> list() const;
  // True while at least one named key exists (or the key file was unreadable).
  bool enforced() const;
  // The scope `key` grants (the local key grants admin); absent when unknown.
  std::optional<Scope> check(const std::string& key);
  // Makes a new local admin key and writes it to `folder` + "local-admin.key".
  // Returns false when the file cannot be written.
  bool writeLocalKey();

 private:
  struct Entry {
    ApiKeyInfo info;
    std::string hash;  // SHA-256 of the key, upper-case hex
    std::chrono::steady_clock::time_point savedUse{};
  };
  void saveLocked() const;

  const std::string folder_;
  mutable std::mutex lock_;
  std::vector<Entry> entries_;
  std::string localHash_;
  bool damaged_ = false;
};

// A fresh key: "kelvo_" followed by 48 lower-case hex digits from the system's
// random source.
std::string makeApiKey();

}  // namespace kelvo
