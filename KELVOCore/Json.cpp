#include "KELVOCore/Json.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "KELVOCore/Types.h"

namespace kelvo {

std::optional<Json> parseJsonObject(std::span<const std::uint8_t> bytes) {
  Json value = Json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (!value.is_object()) return std::nullopt;
  return value;
}

std::optional<Json> parseJsonObject(std::string_view text) {
  if (trimmed(text).empty()) return std::nullopt;
  return parseJsonObject(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

namespace {

// The member, or nullptr when there is no object, no such key, or a null.
const Json* member(const Json& obj, std::string_view key) {
  if (!obj.is_object()) return nullptr;
  auto it = obj.find(key);
  if (it == obj.end() || it->is_null()) return nullptr;
  return &*it;
}

std::int64_t truncatedToInt(double d) {
  // Out-of-range doubles saturate instead of invoking undefined behaviour.
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

std::string numberText(const Json& v) {
  if (v.is_boolean()) return v.get<bool>() ? "1" : "0";
  if (v.is_number_integer()) return v.dump();
  const double d = v.get<double>();
  // Whole numbers read back as integers ("5", not "5.0"), as people wrote them.
  if (std::trunc(d) == d && std::fabs(d) < 1e15) return std::to_string(static_cast<std::int64_t>(d));
  return v.dump();
}

// The whole trimmed text as a number with an optional sign ("+7", "-4"), or
// absent when anything is left over ("1.5" as an integer, "12 kg").
template <typename N>
std::optional<N> parsedWhole(const std::string& raw) {
  const std::string text = trimmed(raw);
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == '+') {
    digits.remove_prefix(1);
    if (!digits.empty() && digits.front() == '-') return std::nullopt;
  }
  N out{};
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return out;
}

}  // namespace

std::string jStr(const Json& obj, std::string_view key, std::string def) {
  const Json* v = member(obj, key);
  if (v == nullptr) return def;
  if (v->is_string()) return v->get<std::string>();
  if (v->is_number() || v->is_boolean()) return numberText(*v);
  return def;
}

std::int64_t jInt(const Json& obj, std::string_view key, std::int64_t def) {
  const Json* v = member(obj, key);
  if (v == nullptr) return def;
  if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
  if (v->is_number_integer()) {
    if (v->is_number_unsigned() && v->get<std::uint64_t>() > std::uint64_t(std::numeric_limits<std::int64_t>::max()))
      return std::numeric_limits<std::int64_t>::max();
    return v->get<std::int64_t>();
  }
  if (v->is_number_float()) return truncatedToInt(v->get<double>());
  if (!v->is_string()) return def;
  return parsedWhole<std::int64_t>(v->get<std::string>()).value_or(def);
}

double jFloat(const Json& obj, std::string_view key, double def) {
  const Json* v = member(obj, key);
  if (v == nullptr) return def;
  if (v->is_boolean()) return v->get<bool>() ? 1.0 : 0.0;
  if (v->is_number()) return v->get<double>();
  if (!v->is_string()) return def;
  return parsedWhole<double>(v->get<std::string>()).value_or(def);
}

bool jBool(const Json& obj, std::string_view key, bool def) {
  const Json* v = member(obj, key);
  if (v == nullptr) return def;
  if (v->is_boolean()) return v->get<bool>();
  if (v->is_number()) return v->get<double>() != 0.0;
  if (!v->is_string()) return def;
  const std::string text = toLower(trimmed(v->get<std::string>()));
  return text == "true" || text == "1" || text == "yes" || text == "on";
}

std::optional<Json> jArr(const Json& obj, std::string_view key) {
  const Json* v = member(obj, key);
  if (v == nullptr || !v->is_array()) return std::nullopt;
  return *v;
}

std::optional<Json> jObj(const Json& obj, std::string_view key) {
  const Json* v = member(obj, key);
  if (v == nullptr || !v->is_object()) return std::nullopt;
  return *v;
}

std::vector<std::string> jStrings(const Json& obj, std::string_view key) {
  std::vector<std::string> out;
  const Json* v = member(obj, key);
  if (v == nullptr || !v->is_array()) return out;
  for (const Json& item : *v) {
    if (!item.is_string()) continue;
    std::string text = trimmed(item.get_ref<const std::string&>());
    if (!text.empty()) out.push_back(std::move(text));
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> stringMembersInTextOrder(std::span<const std::uint8_t> bytes,
                                                                          std::string_view key) {
  std::vector<std::pair<std::string, std::string>> out;
  // Only the top two levels are kept: nothing deeper is read here, and an
  // ordered object copies its members when it grows, which for a deeply
  // nested value would be a copy by recursion deep enough to end the stack.
  const nlohmann::ordered_json::parser_callback_t shallow = [](int depth, nlohmann::ordered_json::parse_event_t,
                                                               nlohmann::ordered_json&) { return depth <= 2; };
  const auto root = nlohmann::ordered_json::parse(bytes.begin(), bytes.end(), shallow, /*allow_exceptions=*/false);
  if (!root.is_object()) return out;
  const auto section = root.find(key);
  if (section == root.end() || !section->is_object()) return out;
  for (const auto& [name, value] : section->items()) {
    if (value.is_string()) out.emplace_back(name, value.get<std::string>());
  }
  return out;
}

std::string jsonString(const Json& value, bool pretty) {
  try {
    return value.dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
  } catch (const Json::exception&) {
    return "{}";
  }
}

std::vector<std::uint8_t> jsonData(const Json& value, bool pretty) {
  const std::string text = jsonString(value, pretty);
  return {text.begin(), text.end()};
}

double jsonNumber(float v, int digits) {
  const double scale = std::pow(10.0, digits);
  return std::round(static_cast<double>(v) * scale) / scale;
}

}  // namespace kelvo
