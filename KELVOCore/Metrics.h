// Metrics: what a Prometheus server scrapes from "/metrics", in the text
// exposition format 0.0.4. The API counts requests by route label, method and
// status and times them by route; synthesis is timed by engine. Everything the
// service already knows (cache, queue, pre-bake, engine) is read at scrape time
// and passed in as a MetricsSnapshot.
//
// Route labels are the route table's patterns and methods are a fixed set, so
// a scan of random paths or methods cannot grow the series.
//
// Thread-safe: one mutex guards the counters; observing costs a map probe and
// a bucket search under it; render() copies under it and formats outside.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace kelvo {

struct MetricsSnapshot {
  std::int64_t cacheHits = 0;
  std::int64_t cacheMisses = 0;
  std::int64_t cacheEntries = 0;
  std::int64_t cacheBytes = 0;
  std::int64_t queueDepth = 0;
  std::int64_t prewarmPending = 0;
  std::string engine;
  bool engineReady = false;
  bool placeholder = false;
  std::int64_t engineRestarts = 0;
};

class Metrics {
 public:
  // Upper bounds of the histograms' buckets, in seconds ("+Inf" is implied).
  static const std::vector<double>& requestBuckets();
  static const std::vector<double>& synthesisBuckets();

  void countRequest(const std::string& route, const std::string& method, std::int64_t status, double seconds);
  void observeSynthesis(const std::string& engine, double seconds);
  // The whole exposition, ending in a newline.
  std::string render(const MetricsSnapshot& now) const;

 private:
  struct Histogram {
    std::vector<std::uint64_t> counts;  // per bucket, not cumulative; the last is +Inf
    double sum = 0;
    std::uint64_t count = 0;
    void observe(const std::vector<double>& bounds, double value);
  };

  mutable std::mutex lock_;
  std::map<std::tuple<std::string, std::string, std::int64_t>, std::uint64_t> requests_;
  std::map<std::string, Histogram> requestTimes_;    // by route
  std::map<std::string, Histogram> synthesisTimes_;  // by engine
};

}  // namespace kelvo
