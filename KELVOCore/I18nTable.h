// The three translation tables behind T(), all keyed by the Chinese text.
// An empty string in a table means "no translation here": the lookup falls
// through to the next table and finally to the key itself.
//
// Built once, thread-safely, on first use; read-only afterwards.
#pragma once

#include <string>
#include <unordered_map>

namespace kelvo {

struct JaEn {
  std::string ja;
  std::string en;
};
struct ZhJaEn {
  std::string zh;
  std::string ja;
  std::string en;
};

// The main table: every message, label and help line of the system.
const std::unordered_map<std::string, JaEn>& i18nTable();
// Further entries of the desktop build, consulted after the main table. The
// names are historical: they hold whatever is specific to this platform.
const std::unordered_map<std::string, JaEn>& macExtra();
// Entries that replace the text in all three languages, Chinese included;
// consulted before anything else.
const std::unordered_map<std::string, ZhJaEn>& macOverrides();

}  // namespace kelvo
