#include "KELVOCore/Metrics.h"

#include <algorithm>
#include <cstdio>

#include "KELVOCore/Version.h"

namespace kelvo {

namespace {

std::string number(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

// Label values escape backslash, double quote and newline.
std::string label(const std::string& value) {
  std::string out;
  for (const char c : value) {
    if (c == '\\' || c == '"') out += {'\\', c};
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out;
}

void head(std::string& out, const char* name, const char* type, const char* help) {
  out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& out, const std::string& name, const std::string& labels, const std::string& value) {
  out += name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
}

}  // namespace

const std::vector<double>& Metrics::requestBuckets() {
  static const std::vector<double> b{0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60, 120};
  return b;
}

const std::vector<double>& Metrics::synthesisBuckets() {
  static const std::vector<double> b{0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60, 120, 300};
  return b;
}

void Metrics::Histogram::observe(const std::vector<double>& bounds, double value) {
  if (counts.empty()) counts.assign(bounds.size() + 1, 0);
  const auto at = std::lower_bound(bounds.begin(), bounds.end(), value);  // "le": the first bound >= value
  ++counts[static_cast<std::size_t>(at - bounds.begin())];
  sum += value;
  ++count;
}

void Metrics::countRequest(const std::string& route, const std::string& method, std::int64_t status,
                           double seconds) {
  std::lock_guard guard(lock_);
  ++requests_[{route, method, status}];
  requestTimes_[route].observe(requestBuckets(), seconds);
}

void Metrics::observeSynthesis(const std::string& engine, double seconds) {
  std::lock_guard guard(lock_);
  synthesisTimes_[engine].observe(synthesisBuckets(), seconds);
}

std::string Metrics::render(const MetricsSnapshot& now) const {
  decltype(requests_) requests;
  decltype(requestTimes_) requestTimes;
  decltype(synthesisTimes_) synthesisTimes;
  {
    std::lock_guard guard(lock_);
    requests = requests_;
    requestTimes = requestTimes_;
    synthesisTimes = synthesisTimes_;
  }
  std::string out;
  head(out, "kelvo_build_info", "gauge", "The running build; always 1.");
  sample(out, "kelvo_build_info", "version=\"" + label(std::string(KELVO::version)) + "\"", "1");

  head(out, "kelvo_http_requests_total", "counter", "HTTP requests answered, by route pattern, method and status.");
  for (const auto& [key, n] : requests) {
    const auto& [route, method, status] = key;
    sample(out, "kelvo_http_requests_total",
           "route=\"" + label(route) + "\",method=\"" + label(method) + "\",status=\"" + std::to_string(status) + "\"",
           std::to_string(n));
  }

  const auto histogram = [&](const char* name, const char* help, const char* labelName,
                             const std::map<std::string, Histogram>& byLabel, const std::vector<double>& bounds) {
    head(out, name, "histogram", help);
    for (const auto& [value, h] : byLabel) {
      const std::string l = std::string(labelName) + "=\"" + label(value) + "\"";
      std::uint64_t cumulative = 0;
      for (std::size_t i = 0; i <= bounds.size(); ++i) {
        cumulative += h.counts[i];
        const std::string le = i < bounds.size() ? number(bounds[i]) : "+Inf";
        sample(out, std::string(name) + "_bucket", l + ",le=\"" + le + "\"", std::to_string(cumulative));
      }
      sample(out, std::string(name) + "_sum", l, number(h.sum));
      sample(out, std::string(name) + "_count", l, std::to_string(h.count));
    }
  };
  histogram("kelvo_http_request_duration_seconds", "Time from request to answer, by route pattern.", "route",
            requestTimes, requestBuckets());
  histogram("kelvo_synthesis_duration_seconds", "Engine time of lines not served from the cache, by engine.",
            "engine", synthesisTimes, synthesisBuckets());

  // One-sample families: the cache, queue and engine as they are now.
  const auto single = [&](const char* name, const char* type, const char* help, const std::string& labels,
                          std::int64_t value) {
    head(out, name, type, help);
    sample(out, name, labels, std::to_string(value));
  };
  single("kelvo_cache_hits_total", "counter", "Synthesis requests answered from the cache.", "", now.cacheHits);
  single("kelvo_cache_misses_total", "counter", "Cache lookups that found nothing.", "", now.cacheMisses);
  single("kelvo_cache_entries", "gauge", "Lines in the cache.", "", now.cacheEntries);
  single("kelvo_cache_bytes", "gauge", "Bytes of audio in the cache.", "", now.cacheBytes);
  single("kelvo_queue_depth", "gauge", "Synthesis jobs waiting for the engine.", "", now.queueDepth);
  single("kelvo_prewarm_pending", "gauge", "Pre-bake entries not yet in the cache.", "", now.prewarmPending);
  single("kelvo_engine_ready", "gauge", "1 when the engine that answers is ready, by engine.",
         "engine=\"" + label(now.engine) + "\"", now.engineReady ? 1 : 0);
  single("kelvo_engine_placeholder", "gauge", "1 while the placeholder engine stands in for the real one.", "",
         now.placeholder ? 1 : 0);
  single("kelvo_engine_restarts", "gauge", "Automatic restarts of the inference process since the engine started.",
         "", now.engineRestarts);
  return out;
}

}  // namespace kelvo
