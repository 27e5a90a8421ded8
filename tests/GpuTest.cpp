#include <gtest/gtest.h>

#include "KELVOCore/Gpu.h"
#include "KELVOCore/I18n.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

TEST(Gpu, HumanSizeSwitchesUnitsAtTheBoundaries) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {-5, "?"},
      {0, "?"},
      {1, "0 KB"},
      {1023, "0 KB"},
      {1024, "1 KB"},
      {1048575, "1023 KB"},
      {1048576, "1.0 MB"},
      {1073741823, "1024.0 MB"},
      {1073741824, "1.00 GB"},
      {25769803776, "24.00 GB"},
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(humanSize(bytes), text) << bytes;
}

TEST(Gpu, DisplayNamesTheDeviceAndItsMemory) {
  setUiLang(UiLang::en);
  EXPECT_EQ(GpuInfo{}.display(), "no usable GPU found");
  EXPECT_EQ((GpuInfo{true, "RTX 4090", 0, false}.display()), "RTX 4090");
  EXPECT_EQ((GpuInfo{true, "RTX 4090", 25769803776, false}.display()), "RTX 4090 · 24.00 GB");
}

TEST(Gpu, GpuBackEndNeedsADeviceAndTheLibraryBesideTheEngine) {
  test::TempDir root;
  test::ScopedEnv noEngineDir("KELVO_ENGINE_DIR", nullptr);
  test::writeTextFile(root.path() + "engine/s2", "");
  EXPECT_TRUE(backendUsable(ComputeBackend::cpu, root.path()));
  EXPECT_TRUE(backendUsable(ComputeBackend::automatic, root.path()));
  EXPECT_FALSE(backendUsable(ComputeBackend::metal, root.path()));
  test::writeTextFile(root.path() + "engine/libggml-cuda.so", "");
  EXPECT_EQ(backendUsable(ComputeBackend::metal, root.path()), gpuInfo().available);
  const GpuInfo info = gpuInfo();
  EXPECT_EQ(info.available, !info.name.empty());
  EXPECT_EQ(info.available, info.recommendedWorkingSetSize > 0);
}

}  // namespace
}  // namespace kelvo
