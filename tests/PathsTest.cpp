#include "KELVOCore/Paths.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kelvo {
namespace {

using KELVOPaths::chooseDataRoot;

TEST(Paths, DataRootOrder) {
  const std::string portable = "/opt/kelvo/bin/KELVO-data";
  EXPECT_EQ(chooseDataRoot("/srv/tts", portable, true, "/x", "/home/u"), "/srv/tts/");
  EXPECT_EQ(chooseDataRoot(" /srv/tts/\n", portable, true, std::nullopt, "/home/u"), "/srv/tts/");
  // Blank KELVO_HOME is ignored; the portable folder wins only when it exists.
  EXPECT_EQ(chooseDataRoot(" \t", portable, true, std::nullopt, "/home/u"), portable + "/");
  EXPECT_EQ(chooseDataRoot(std::nullopt, portable, false, "/data/xdg", "/home/u"), "/data/xdg/KELVO/");
  EXPECT_EQ(chooseDataRoot(std::nullopt, portable, false, "", "/home/u"), "/home/u/.local/share/KELVO/");
  EXPECT_EQ(chooseDataRoot(std::nullopt, portable, false, "relative/xdg", "/home/u/"),
            "/home/u/.local/share/KELVO/");
}

TEST(Paths, TreeUnderTheRoot) {
  // The test binary runs with KELVO_HOME unset, so the root is one of the
  // fallbacks; every path must hang under it and directories end in "/".
  const std::string root = KELVOPaths::dataRoot();
  ASSERT_EQ(root.back(), '/');
  EXPECT_EQ(KELVOPaths::configFile(), root + "data/config.json");
  EXPECT_EQ(KELVOPaths::voicesFile(), root + "data/voices.json");
  EXPECT_EQ(KELVOPaths::voicesDir(), root + "clone/");
  EXPECT_EQ(KELVOPaths::cacheDir(), root + "temp/");
  EXPECT_EQ(KELVOPaths::modelsDir(), root + "models/");
  EXPECT_EQ(KELVOPaths::engineDir(), root + "engine/");
  EXPECT_EQ(KELVOPaths::engineLog(), root + "logs/s2-engine.log");
  EXPECT_EQ(KELVOPaths::portableCandidate(), KELVOPaths::executableDir() + "KELVO-data");
  EXPECT_TRUE(std::filesystem::exists(KELVOPaths::executableDir() + "kelvo-tests"));
}

}  // namespace
}  // namespace kelvo
