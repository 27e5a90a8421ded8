// Lenient JSON access. Configuration, voice index, cache index, HTTP bodies and
// pack manifests are read as loose trees and pulled apart with these helpers:
// a missing key, a null or a value of the wrong type gives the caller's
// default, strings holding numbers are coerced. Nothing here throws.
//
// Objects are nlohmann::json values; its default object type is an ordered map,
// so keys always serialise sorted. "No object" is any non-object value (null).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace kelvo {

using Json = nlohmann::json;

// The bytes parsed as JSON; absent unless they hold exactly one object.
std::optional<Json> parseJsonObject(std::span<const std::uint8_t> bytes);
// The same for text; absent as well when the text is blank.
std::optional<Json> parseJsonObject(std::string_view text);

// Typed reads from `obj[key]`. A non-object `obj`, a missing key or null give `def`.
std::string jStr(const Json& obj, std::string_view key, std::string def = {});  // numbers as decimal text
std::int64_t jInt(const Json& obj, std::string_view key, std::int64_t def);     // fractions truncate toward 0
double jFloat(const Json& obj, std::string_view key, double def);
// Strings: "true", "1", "yes", "on" (any case, trimmed) are true and every other
// text is false, never the default. Numbers: non-zero is true.
bool jBool(const Json& obj, std::string_view key, bool def);
std::optional<Json> jArr(const Json& obj, std::string_view key);  // the value when it is an array
std::optional<Json> jObj(const Json& obj, std::string_view key);  // the value when it is an object
// The strings of an array member, trimmed; blanks and non-strings left out.
std::vector<std::string> jStrings(const Json& obj, std::string_view key);
// The string members of the object `key` at the top of the JSON text `bytes`,
// in the order the text has them (a parsed Json sorts its keys). Where two
// members mean the same, the reader can let the later one win, as people who
// edit a file expect. Empty when there is no such object.
std::vector<std::pair<std::string, std::string>> stringMembersInTextOrder(std::span<const std::uint8_t> bytes,
                                                                          std::string_view key);

// Serialised bytes / text. `pretty`: indented, keys sorted. Slashes are never
// escaped. Invalid UTF-8 inside strings is replaced by U+FFFD rather than lost.
std::string jsonString(const Json& value, bool pretty);
std::vector<std::uint8_t> jsonData(const Json& value, bool pretty);

// A float widened and rounded to `digits` decimals (half away from zero), so
// 0.58f is written as 0.58 and not 0.5799999833106995.
double jsonNumber(float v, int digits);

}  // namespace kelvo
