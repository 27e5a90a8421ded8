// GPU detection: whether the machine has a GPU the engine's GPU back-end can
// use, what it is called and how much memory it offers. The answer comes from
// NVIDIA's management library, loaded at run time so that machines without it
// (or without a GPU) simply report none. Asked once per process and cached.
//
// Thread-safe: any thread may call anything. The cache sits behind one lock
// that is never held during the query; two first calls at once may both
// query, and the later store wins (the answers are the same). Cost: the first
// call loads the library and asks the driver (tens of milliseconds with a
// GPU, a failed dlopen without); every later call copies the cached record.
#pragma once

#include <cstdint>
#include <string>

#include "KELVOCore/Paths.h"
#include "KELVOCore/Types.h"

namespace kelvo {

struct GpuInfo {
  bool available = false;                      // a GPU device was found
  std::string name;                            // empty without a device
  std::int64_t recommendedWorkingSetSize = 0;  // bytes: the device's total memory; 0 without one
  bool unifiedMemory = false;                  // always false for discrete NVIDIA cards

  // The localised "no usable GPU found" without a device; the name alone when
  // the size is unknown; else name + " · " + humanSize(size).
  std::string display() const;
};

// The cached record; the first call performs the query.
GpuInfo gpuInfo();

// auto and cpu always; metal (the GPU back-end) only with a GPU and the GPU
// back-end library in the engine directory of `dataRoot`.
bool backendUsable(ComputeBackend backend, const std::string& dataRoot = KELVOPaths::dataRoot());

// "?" below 1 byte; whole KB below 1 MiB; "%.1f MB" below 1 GiB; else "%.2f GB".
std::string humanSize(std::int64_t bytes);

}  // namespace kelvo
