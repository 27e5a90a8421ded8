// StringMemo: remembered results of a pure function of a string. A PA system
// asks for the same lines byte for byte all day, and the work before a cache
// hit (parsing the request, hashing its key) gives the same answer each time.
//
// Only for functions whose result depends on the string alone: nothing is
// ever invalidated. Memory stays bounded whatever the clients send: keys over
// `maxKeyBytes` are not kept, and a table that reaches `capacity` entries
// starts over empty.
//
// Thread-safety: none; keep one per thread (thread_local).
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace kelvo {

template <typename Value>
class StringMemo {
 public:
  StringMemo(std::size_t capacity, std::size_t maxKeyBytes) : capacity_(capacity), maxKeyBytes_(maxKeyBytes) {}

  // The value kept for `key`, or compute() (then kept, if the key is not
  // too long). compute() runs at most once per key until the table starts over.
  template <typename Compute>
  Value get(std::string_view key, Compute&& compute) {
    if (key.size() > maxKeyBytes_) return std::forward<Compute>(compute)();
    if (const auto it = table_.find(key); it != table_.end()) return it->second;
    if (table_.size() >= capacity_) table_.clear();
    return table_.try_emplace(std::string(key), std::forward<Compute>(compute)()).first->second;
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };

  std::size_t capacity_;
  std::size_t maxKeyBytes_;
  std::unordered_map<std::string, Value, Hash, std::equal_to<>> table_;
};

}  // namespace kelvo
