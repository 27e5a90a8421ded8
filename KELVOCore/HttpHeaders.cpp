#include "KELVOCore/HttpHeaders.h"

#include <algorithm>
#include <stdexcept>

namespace kelvo {

namespace {

// The first field whose name is not below `name`: where it is, or would go.
template <typename Fields>
auto lowerBound(Fields& fields, std::string_view name) {
  return std::lower_bound(fields.begin(), fields.end(), name,
                          [](const auto& field, std::string_view wanted) { return field.first < wanted; });
}

}  // namespace

HttpHeaders::HttpHeaders(std::initializer_list<value_type> fields) {
  fields_.reserve(fields.size());
  for (const value_type& field : fields) try_emplace(field.first, field.second);
}

std::string& HttpHeaders::operator[](std::string_view name) { return try_emplace(name, {}).first->second; }

std::pair<HttpHeaders::iterator, bool> HttpHeaders::try_emplace(std::string_view name, std::string value) {
  // Fields added in name order, as a response's are, go straight to the end.
  if (fields_.empty() || fields_.back().first < name) {
    fields_.emplace_back(std::string(name), std::move(value));
    return {fields_.end() - 1, true};
  }
  const iterator at = lowerBound(fields_, name);
  if (at != fields_.end() && at->first == name) return {at, false};
  return {fields_.emplace(at, std::string(name), std::move(value)), true};
}

const std::string& HttpHeaders::at(std::string_view name) const {
  const const_iterator it = lowerBound(fields_, name);
  if (it == end() || it->first != name) throw std::out_of_range("no header " + std::string(name));
  return it->second;
}

}  // namespace kelvo
