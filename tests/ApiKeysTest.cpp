#include "KELVOCore/ApiKeys.h"

#include <gtest/gtest.h>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

// Whatever lies in the key file, the API never ends up more open than it was
// meant to be: a damaged file keeps it closed to all but the local key.
TEST(ApiKeysTest, KeyFileStatesNeverOpenTheApiByAccident) {
  struct Case {
    std::string file;  // "" = no file
    bool enforced;
  };
  const Case cases[] = {
      {"", false},
      {R"({"keys": []})", false},
      {"{not json", true},
      {R"({"keys": [{"name": "x", "scope": "root", "sha256": "00"}]})", true},
  };
  for (const Case& c : cases) {
    test::TempDir dir;
    const std::string folder = dir.path() + "data/";
    if (!c.file.empty()) test::writeTextFile(folder + std::string(apiKeysFileName), c.file);
    ApiKeys keys(folder);
    EXPECT_EQ(keys.enforced(), c.enforced) << c.file;
    EXPECT_FALSE(keys.check("kelvo_anything")) << c.file;
    ASSERT_TRUE(keys.writeLocalKey());
    const std::string local = trimmed(test::readTextFile(folder + std::string(localKeyFileName)));
    EXPECT_EQ(keys.check(local), Scope::admin) << c.file;

    const ApiKeys::Added speak = keys.add("kiosk", Scope::speak);
    ASSERT_EQ(speak.refusal, ApiKeys::Refusal::none);
    EXPECT_EQ(keys.add("kiosk", Scope::admin).refusal, ApiKeys::Refusal::taken);
    EXPECT_EQ(keys.add("two words", Scope::admin).refusal, ApiKeys::Refusal::badName);
    EXPECT_EQ(keys.check(speak.key), Scope::speak);
    EXPECT_FALSE(keys.check(speak.key + "x"));
    EXPECT_EQ(test::readTextFile(folder + std::string(apiKeysFileName)).find(speak.key), std::string::npos)
        << "stored hashed";

    ApiKeys reread(folder);  // what the next start sees
    EXPECT_TRUE(reread.enforced());
    EXPECT_EQ(reread.check(speak.key), Scope::speak);
    EXPECT_FALSE(reread.check(local)) << "the local key lives as long as the service that wrote it";
    EXPECT_TRUE(reread.remove("kiosk"));
    EXPECT_FALSE(reread.check(speak.key));
    EXPECT_FALSE(ApiKeys(folder).enforced());
  }
}

}  // namespace
}  // namespace kelvo
