// Localised texts. Every message for people is written in the code in Chinese,
// and that Chinese text is the lookup key: T("端口 %d 已经被占用了。") gives the
// Japanese or English form for the current interface language. Log lines are
// English and never pass through here.
//
// Thread-safe: the current language sits behind its own lock, the tables are
// built once on first use and read-only afterwards. A lookup is one or two hash
// probes; no allocation beyond the returned string.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KELVOCore/Types.h"

namespace kelvo {

enum class UiLang : int { automatic = 0, zh = 1, ja = 2, en = 3 };
inline constexpr UiLang allUiLangs[] = {UiLang::automatic, UiLang::zh, UiLang::ja, UiLang::en};

std::string_view code(UiLang l);               // "auto", "zh", "ja", "en"
std::optional<UiLang> uiLangFromCode(std::string_view code);  // exact raw value, else absent
std::string display(UiLang l);                 // name for the language picker

// The current language; `automatic` is resolved from the environment at every call.
UiLang uiLang();
void setUiLang(UiLang lang);

// The language the environment asks for: the first entry of LANGUAGE, then
// LC_ALL, LC_MESSAGES, LANG; "zh…" → zh, "ja…" → ja, anything else or nothing → en.
UiLang detectFromOS();
// The same rule for one locale or language tag ("zh_TW.UTF-8", "zh-Hant-TW", "pt-BR").
UiLang uiLangFromLocale(std::string_view locale);

// Translation of a Chinese key into the current language; a missing translation
// returns the key itself.
std::string T(std::string_view zhKey);

// T() followed by printf-style formatting. Placeholders (%d, %s, %.2f …) are the
// same in every language of the tables. std::string arguments may be passed as is.
template <typename... Args>
std::string TF(std::string_view zhFormat, const Args&... args);

// The interface font for a language, the first installed of a list of CJK
// candidates (looked up through fontconfig); absent for English or when none is
// installed, meaning "use the system font".
std::optional<std::string> uiFontName(UiLang lang);

template <typename... Args>
std::string TF(std::string_view zhFormat, const Args&... args) {
  return formatText(T(zhFormat), args...);
}

}  // namespace kelvo
