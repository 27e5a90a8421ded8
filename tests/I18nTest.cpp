#include "KELVOCore/I18n.h"

#include <gtest/gtest.h>

#include "KELVOCore/I18nTable.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

TEST(I18n, LookupFallsThroughToTheKey) {
  const std::pair<UiLang, const char*> female[] = {
      {UiLang::en, "Female"}, {UiLang::ja, "女性の声"}, {UiLang::zh, "女声"}};
  for (const auto& [lang, text] : female) {
    test::ScopedUiLang ui(lang);
    EXPECT_EQ(T("女声"), text);
    EXPECT_EQ(T("没有这条翻译"), "没有这条翻译");
  }
  test::ScopedUiLang en(UiLang::en);
  EXPECT_EQ(TF("本地 s2.cpp · %s · temp %.2f / top_p %.2f / top_k %d", std::string("CPU"), 0.5, 0.25, 7),
            "local s2.cpp · CPU · temp 0.50 / top_p 0.25 / top_k 7");
}

TEST(I18n, TablesKeepPlaceholdersAndTranslateEverything) {
  // Every entry has both translations, and a format keeps its placeholders in
  // the same order in every language: a mismatch would crash printf at run time.
  auto placeholders = [](const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i + 1 < s.size(); ++i) {
      if (s[i] != '%') continue;
      std::size_t j = i + 1;
      while (j < s.size() && std::string_view("0123456789.-+ #l").find(s[j]) != std::string_view::npos) ++j;
      if (j < s.size()) out += s[j];
      i = j;
    }
    return out;
  };
  for (const auto& [key, value] : i18nTable()) {
    EXPECT_FALSE(value.en.empty() || value.ja.empty()) << key;
    EXPECT_EQ(placeholders(key), placeholders(value.en)) << key;
    EXPECT_EQ(placeholders(key), placeholders(value.ja)) << key;
  }
  // An override rewords a text the code already looks up, in all three languages.
  for (const auto& [key, value] : macOverrides()) {
    EXPECT_TRUE(i18nTable().contains(key)) << key;
    for (const std::string* text : {&value.zh, &value.ja, &value.en}) EXPECT_EQ(placeholders(key), placeholders(*text)) << key;
  }
}

TEST(I18n, NoTextPointsAtADesktopApp) {
  // A service run from a terminal or systemd has no tray, no settings pages,
  // no vendor to defer to: whatever the language, no message may point there.
  const char* desktopWords[] = {"tray",   "Settings", "vendor",     "official", "the app",  "Service page",
                                "Broadcast page", "托盘", "设置里", "厂商",     "官方",     "「模型」页",
                                "「播报」页",     "トレイ", "ベンダー", "設定で", "ページで"};
  for (const UiLang lang : {UiLang::zh, UiLang::ja, UiLang::en}) {
    test::ScopedUiLang ui(lang);
    for (const auto& entry : i18nTable()) {
      const std::string text = T(entry.first);
      for (const char* word : desktopWords) EXPECT_EQ(text.find(word), std::string::npos) << text;
    }
  }
}

TEST(I18n, LanguageComesFromTheEnvironment) {
  const std::pair<const char*, UiLang> locales[] = {{"zh-Hant-TW", UiLang::zh},  {"zh_TW.UTF-8", UiLang::zh},
                                                    {"ja_JP.UTF-8", UiLang::ja}, {"pt-BR", UiLang::en},
                                                    {"C", UiLang::en},           {"", UiLang::en}};
  for (const auto& [locale, lang] : locales) EXPECT_EQ(uiLangFromLocale(locale), lang) << locale;

  test::ScopedUiLang ui(UiLang::automatic);
  test::ScopedEnv language("LANGUAGE", "ja:en_US");
  test::ScopedEnv all("LC_ALL", "zh_CN.UTF-8");
  test::ScopedEnv messages("LC_MESSAGES", nullptr);
  test::ScopedEnv lang("LANG", "en_US.UTF-8");
  EXPECT_EQ(detectFromOS(), UiLang::ja);
  EXPECT_EQ(uiLang(), UiLang::ja);
  EXPECT_EQ(T("男声"), "男性の声");
  {
    test::ScopedEnv emptyLanguage("LANGUAGE", "");  // empty falls through to LC_ALL
    EXPECT_EQ(detectFromOS(), UiLang::zh);
  }
  test::ScopedEnv noLanguage("LANGUAGE", nullptr);
  test::ScopedEnv noAll("LC_ALL", nullptr);
  test::ScopedEnv noLang("LANG", nullptr);
  EXPECT_EQ(detectFromOS(), UiLang::en);
  setUiLang(UiLang::zh);
  EXPECT_EQ(uiLang(), UiLang::zh);  // an explicit choice beats the environment
}

TEST(I18n, CodesAndFonts) {
  for (UiLang l : allUiLangs) EXPECT_EQ(uiLangFromCode(code(l)), l);
  EXPECT_FALSE(uiLangFromCode("fr").has_value());
  EXPECT_FALSE(uiFontName(UiLang::en).has_value());
}

}  // namespace
}  // namespace kelvo
