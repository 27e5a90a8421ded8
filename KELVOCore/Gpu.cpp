#include "KELVOCore/Gpu.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>

#include "KELVOCore/EngineS2Local.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

namespace {

// The handful of NVML entry points used, declared here so that building needs
// no NVIDIA headers; the layouts are those of NVML's stable C interface.
using NvmlReturn = int;
constexpr NvmlReturn kNvmlSuccess = 0;
using NvmlDevice = struct NvmlDeviceOpaque*;
struct NvmlMemory {
  unsigned long long total;
  unsigned long long free;
  unsigned long long used;
};
using InitFn = NvmlReturn (*)();
using ShutdownFn = NvmlReturn (*)();
using CountFn = NvmlReturn (*)(unsigned int*);
using HandleFn = NvmlReturn (*)(unsigned int, NvmlDevice*);
using NameFn = NvmlReturn (*)(NvmlDevice, char*, unsigned int);
using MemoryFn = NvmlReturn (*)(NvmlDevice, NvmlMemory*);

template <typename Fn>
Fn symbol(void* library, const char* name) {
  return reinterpret_cast<Fn>(dlsym(library, name));
}

// What NVML says about the first device; no library, no device or any NVML
// error is "no GPU".
GpuInfo queryNvml() {
  GpuInfo info;
  void* library = dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return info;
  const auto init = symbol<InitFn>(library, "nvmlInit_v2");
  const auto shutdown = symbol<ShutdownFn>(library, "nvmlShutdown");
  const auto count = symbol<CountFn>(library, "nvmlDeviceGetCount_v2");
  const auto handle = symbol<HandleFn>(library, "nvmlDeviceGetHandleByIndex_v2");
  const auto name = symbol<NameFn>(library, "nvmlDeviceGetName");
  const auto memory = symbol<MemoryFn>(library, "nvmlDeviceGetMemoryInfo");
  if (init && shutdown && count && handle && name && memory && init() == kNvmlSuccess) {
    unsigned int devices = 0;
    NvmlDevice device = nullptr;
    char deviceName[96] = {};
    NvmlMemory mem{};
    if (count(&devices) == kNvmlSuccess && devices > 0 && handle(0, &device) == kNvmlSuccess &&
        name(device, deviceName, sizeof deviceName) == kNvmlSuccess && memory(device, &mem) == kNvmlSuccess) {
      if (mem.total > static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
        std::fputs("kelvo: the GPU reports more memory than a signed 64-bit count holds\n", stderr);
        std::abort();
      }
      info.available = true;
      info.name = deviceName;
      info.recommendedWorkingSetSize = static_cast<std::int64_t>(mem.total);
    }
    shutdown();
  }
  dlclose(library);
  return info;
}

std::mutex gpuLock;
std::optional<GpuInfo> cached;  // guarded by gpuLock

}  // namespace

GpuInfo gpuInfo() {
  {
    std::lock_guard guard(gpuLock);
    if (cached) return *cached;
  }
  GpuInfo info = queryNvml();
  std::lock_guard guard(gpuLock);
  cached = info;
  return info;
}

bool backendUsable(ComputeBackend backend, const std::string& dataRoot) {
  if (backend != ComputeBackend::metal) return true;
  return gpuInfo().available && S2LocalEngine::backendAvailable(ComputeBackend::metal, dataRoot);
}

std::string GpuInfo::display() const {
  if (!available) return T("没有找到可用的显卡");
  if (recommendedWorkingSetSize < 1) return name;
  return name + " · " + humanSize(recommendedWorkingSetSize);
}

std::string humanSize(std::int64_t bytes) {
  if (bytes < 1) return "?";
  if (bytes < 1048576) return std::to_string(bytes >> 10) + " KB";
  if (bytes >= 1073741824) return formatText("%.2f GB", static_cast<double>(bytes) / 1073741824.0);
  return formatText("%.1f MB", static_cast<double>(bytes) / 1048576.0);
}

}  // namespace kelvo
