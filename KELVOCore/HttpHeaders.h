// HttpHeaders: the header fields of a request or response the server handles.
// A message carries a handful (a cached line's answer ten), so they live in
// one vector sorted by name rather than a tree node each: every cached line
// builds and drops a set, and the nodes showed in its profile.
//
// Behaves as the std::map<std::string, std::string> it replaced: names are
// compared exactly (the server looks request headers up ignoring case itself),
// each name is held once, iteration goes in ascending name order.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvo {

class HttpHeaders {
 public:
  using value_type = std::pair<std::string, std::string>;
  using iterator = std::vector<value_type>::iterator;
  using const_iterator = std::vector<value_type>::const_iterator;

  HttpHeaders() = default;
  // A name given twice keeps its first value, as a map built from the list would.
  HttpHeaders(std::initializer_list<value_type> fields);

  // The value for `name`, added empty when absent.
  std::string& operator[](std::string_view name);
  // Adds the field unless `name` is held already; the iterator points at the
  // field held, the flag says whether it was added.
  std::pair<iterator, bool> try_emplace(std::string_view name, std::string value);
  // The value for `name`; std::out_of_range when absent.
  const std::string& at(std::string_view name) const;

  iterator begin() { return fields_.begin(); }
  iterator end() { return fields_.end(); }
  const_iterator begin() const { return fields_.begin(); }
  const_iterator end() const { return fields_.end(); }
  void reserve(std::size_t fields) { fields_.reserve(fields); }

 private:
  std::vector<value_type> fields_;
};

}  // namespace kelvo
