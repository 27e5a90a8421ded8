#include "KELVOCore/I18n.h"

#include <fontconfig/fontconfig.h>

#include <cstdlib>
#include <mutex>

#include "KELVOCore/I18nTable.h"
#include "KELVOCore/Types.h"

namespace kelvo {

namespace {
std::mutex langLock;
UiLang currentLang = UiLang::automatic;
}  // namespace

std::string_view code(UiLang l) {
  switch (l) {
    case UiLang::zh: return "zh";
    case UiLang::ja: return "ja";
    case UiLang::en: return "en";
    case UiLang::automatic: break;
  }
  return "auto";
}

std::optional<UiLang> uiLangFromCode(std::string_view c) {
  for (UiLang l : allUiLangs) {
    if (code(l) == c) return l;
  }
  return std::nullopt;
}

std::string display(UiLang l) {
  switch (l) {
    case UiLang::zh: return "简体中文";
    case UiLang::ja: return "日本語";
    case UiLang::en: return "English";
    case UiLang::automatic: break;
  }
  return T("跟随系统");
}

UiLang uiLangFromLocale(std::string_view locale) {
  // POSIX locales read "zh_TW.UTF-8@variant", language tags "zh-Hant-TW": the
  // language is whatever stands before the first separator of either kind.
  const auto end = locale.find_first_of("-_.@");
  const std::string language = toLower(locale.substr(0, end));
  if (language == "zh") return UiLang::zh;
  if (language == "ja") return UiLang::ja;
  return UiLang::en;
}

UiLang detectFromOS() {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    std::string_view v(value);
    // LANGUAGE is a priority list "ja:en_US"; the first entry is the preference.
    return uiLangFromLocale(v.substr(0, v.find(':')));
  }
  return UiLang::en;
}

UiLang uiLang() {
  UiLang l;
  {
    std::lock_guard lock(langLock);
    l = currentLang;
  }
  return l == UiLang::automatic ? detectFromOS() : l;
}

void setUiLang(UiLang lang) {
  std::lock_guard lock(langLock);
  currentLang = lang;
}

std::string T(std::string_view zhKey) {
  const UiLang lang = uiLang();
  const std::string key(zhKey);
  if (auto it = macOverrides().find(key); it != macOverrides().end()) {
    switch (lang) {
      case UiLang::ja: return it->second.ja;
      case UiLang::en: return it->second.en;
      default: return it->second.zh;
    }
  }
  if (lang == UiLang::zh) return key;
  for (const auto* table : {&i18nTable(), &macExtra()}) {
    if (auto it = table->find(key); it != table->end()) {
      const std::string& text = lang == UiLang::ja ? it->second.ja : it->second.en;
      if (!text.empty()) return text;
    }
  }
  return key;
}

namespace {
bool fontInstalled(const char* family) {
  FcPattern* pattern = FcPatternCreate();
  FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(family));
  FcObjectSet* objects = FcObjectSetBuild(FC_FAMILY, nullptr);
  FcFontSet* fonts = FcFontList(nullptr, pattern, objects);
  const bool found = fonts != nullptr && fonts->nfont > 0;
  if (fonts) FcFontSetDestroy(fonts);
  FcObjectSetDestroy(objects);
  FcPatternDestroy(pattern);
  return found;
}
}  // namespace

std::optional<std::string> uiFontName(UiLang lang) {
  if (lang == UiLang::automatic) lang = detectFromOS();
  static const char* const zhFonts[] = {"Noto Sans CJK SC", "Source Han Sans SC", "WenQuanYi Micro Hei",
                                        "WenQuanYi Zen Hei", "Droid Sans Fallback"};
  static const char* const jaFonts[] = {"Noto Sans CJK JP", "Source Han Sans JP", "IPAexGothic", "IPAGothic",
                                        "TakaoGothic", "VL Gothic"};
  std::span<const char* const> candidates;
  if (lang == UiLang::zh) candidates = zhFonts;
  if (lang == UiLang::ja) candidates = jaFonts;
  if (candidates.empty() || !FcInit()) return std::nullopt;
  for (const char* family : candidates) {
    if (fontInstalled(family)) return std::string(family);
  }
  return std::nullopt;
}

}  // namespace kelvo
