#include "KELVOCore/Correlate.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace kelvo {
namespace {

// Every variant must give the plain in-order sum to the bit, or the search
// could pick different offsets on different machines.
TEST(CorrelateTest, EveryVariantMatchesThePlainSumBitForBit) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  for (const std::size_t lags : {1u, 7u, 8u, 9u, 25u, 63u, 64u, 65u, 100u, 129u, 707u}) {
    for (const std::size_t n : {1u, 5u, 160u, 882u}) {
      std::vector<float> x(n + lags - 1), y(n);
      for (float& v : x) v = dist(rng) * 1e3f;
      for (float& v : y) v = dist(rng);
      std::vector<float> plain(lags), fast(lags, -1.0f), portable(lags, -1.0f);
      for (std::size_t l = 0; l < lags; ++l) {
        float acc = 0.0f;
        for (std::size_t i = 0; i < n; ++i) acc += y[i] * x[l + i];
        plain[l] = acc;
      }
      std::vector<float> scratch(correlateScratchSize(n, lags) + 1);
      // Misaligned on purpose: the kernel aligns its rows itself.
      correlateLags(x.data(), y.data(), n, lags, fast.data(), scratch.data() + 1);
      correlateLagsPortable(x.data(), y.data(), n, lags, portable.data());
      SCOPED_TRACE(testing::Message() << "lags " << lags << " n " << n);
      EXPECT_EQ(std::memcmp(plain.data(), fast.data(), lags * sizeof(float)), 0);
      EXPECT_EQ(std::memcmp(plain.data(), portable.data(), lags * sizeof(float)), 0);
    }
  }
}

}  // namespace
}  // namespace kelvo
