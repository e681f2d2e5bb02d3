#include "device/cuda_general.h"

#include <sys/sysinfo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>

#include "core/report.h"
#include "device/launch.h"

#if defined(ZAVIK_HAVE_CUDA)
#include <cuda_runtime.h>
#endif

namespace {

#if defined(ZAVIK_HAVE_CUDA)
// -1 not yet probed, 0 none, 1 at least one GPU.
int g_gpu_probe = -1;
#endif
// The back end in force once decided.
int g_backend = -1;

bool probe_gpu() {
#if defined(ZAVIK_HAVE_CUDA)
  if (g_gpu_probe < 0) {
    int count = 0;
    cudaError_t st = cudaGetDeviceCount(&count);
    g_gpu_probe = (st == cudaSuccess && count > 0) ? 1 : 0;
    if (st != cudaSuccess) cudaGetLastError();  // clear the probe's error
  }
  return g_gpu_probe == 1;
#else
  return false;
#endif
}

// Host "device memory" is aligned for the SIMD paths of FFTW.
void* host_alloc(size_t bytes) {
  size_t padded = ((bytes ? bytes : 1) + 63) / 64 * 64;
  return aligned_alloc(64, padded);
}

}  // namespace

bool zk_cuda_compiled() {
#if defined(ZAVIK_HAVE_CUDA)
  return true;
#else
  return false;
#endif
}

bool zk_gpu_available() { return probe_gpu(); }

ZkBackend zk_backend() {
  if (g_backend < 0) g_backend = probe_gpu() ? 1 : 0;
  return g_backend == 1 ? ZkBackend::Gpu : ZkBackend::Host;
}

void zk_use_host() { g_backend = 0; }

bool zk_use_gpu() {
  if (!probe_gpu()) return false;
  g_backend = 1;
  return true;
}

const char* zk_backend_note() {
  if (zk_on_gpu()) return "";
  if (!zk_cuda_compiled())
    return "No CUDA back end in this build: the host (CPU) back end stands in as GPU device 0.";
  return "No usable GPU device found: the host (CPU) back end stands in as GPU device 0.";
}

int check_and_set_gid(int& gid) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) {
    cudaDeviceProp prop;
    if (cudaGetDeviceProperties(&prop, gid) == cudaSuccess) return 0;
    cudaGetLastError();
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess || count <= 0) {
      printf("Warning: no GPU device found!\n");
      return -1;
    }
    int best_major = 0, best_minor = 0;
    for (int d = 0; d < count; ++d) {
      if (cudaGetDeviceProperties(&prop, d) != cudaSuccess) continue;
      if (prop.major > best_major || (prop.major == best_major && prop.minor > best_minor)) {
        best_major = prop.major;
        best_minor = prop.minor;
        gid = d;
      }
    }
    if (cudaGetDeviceProperties(&prop, gid) == cudaSuccess) return 0;
    cudaGetLastError();
    return -1;
  }
#endif
  gid = 0;
  return 0;
}

int zk_set_device(int gid) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) return (int)cudaSetDevice(gid);
#endif
  (void)gid;
  return 0;
}

int zk_device_count() {
#if defined(ZAVIK_HAVE_CUDA)
  int count = 0;
  if (zk_on_gpu() && cudaGetDeviceCount(&count) == cudaSuccess) return count;
  cudaGetLastError();
#endif
  return 0;
}

int zk_device_of_local_rank(int local_rank) {
  const int n = zk_device_count();
  return n > 0 ? local_rank % n : 0;
}

// Work areas of the same sizes come and go with every micrograph.  Freed
// blocks are kept by size and handed out again, so that after the first
// micrograph a run allocates nothing more: no growth, and no time spent in
// the platform's allocator or in page faults.  Under AddressSanitizer blocks
// go straight back, so that a use after free is still caught.
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPoolOn = false;
#else
constexpr bool kPoolOn = true;
#endif

struct BlockPool {
  std::mutex m;
  std::unordered_map<void*, size_t> live;  // block -> its size class
  std::multimap<size_t, void*> spare;      // size class -> kept block
  size_t spare_bytes = 0;
};
// Host and GPU.  Made once and never destroyed, so that arrays held by
// objects that outlive main (the caches) can still be given back.
BlockPool* const g_pools = new BlockPool[2];
// Kept bytes above this are given back at once.
constexpr size_t kSpareCap = (size_t)6 << 30;

size_t size_class(size_t bytes) { return ((bytes ? bytes : 1) + 255) / 256 * 256; }
BlockPool& pool() { return g_pools[zk_on_gpu() ? 1 : 0]; }

void* raw_alloc(size_t bytes) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) {
    void* p = nullptr;
    if (cudaMalloc(&p, bytes) != cudaSuccess) {
      cudaGetLastError();
      return nullptr;
    }
    return p;
  }
#endif
  return host_alloc(bytes);
}

void raw_free(void* p, bool gpu) {
#if defined(ZAVIK_HAVE_CUDA)
  if (gpu) {
    cudaFree(p);
    return;
  }
#else
  (void)gpu;
#endif
  free(p);
}

void release_spare(BlockPool& bp) {
  for (auto& kv : bp.spare) raw_free(kv.second, &bp == &g_pools[1]);
  bp.spare.clear();
  bp.spare_bytes = 0;
}

// A block of at least bytes, or null when the platform has none left even
// after the kept blocks are given back.
void* pool_alloc(size_t bytes) {
  const size_t cls = size_class(bytes);
  BlockPool& bp = pool();
  std::lock_guard<std::mutex> lock(bp.m);
  auto it = bp.spare.find(cls);
  void* p = nullptr;
  if (kPoolOn && it != bp.spare.end()) {
    p = it->second;
    bp.spare.erase(it);
    bp.spare_bytes -= cls;
  } else {
    p = raw_alloc(cls);
    if (!p) {
      release_spare(bp);
      p = raw_alloc(cls);
    }
    if (!p) return nullptr;
  }
  bp.live[p] = cls;
  return p;
}

}  // namespace

void zk_release_cached_memory() {
  for (int k = 0; k < 2; ++k) {
    BlockPool& bp = g_pools[k];
    std::lock_guard<std::mutex> lock(bp.m);
    release_spare(bp);
  }
}

int safe_cudaMalloc(void** p, size_t bytes) {
  *p = pool_alloc(bytes);
  if (!*p) ZK_FATAL("Device memory allocation failed");
  return 0;
}

int safe_cudaMalloc_empty(void** p, size_t bytes) {
  safe_cudaMalloc(p, bytes);
  hcuda_empty(*p, bytes);
  return 0;
}

int cudaMalloc_empty(void** p, size_t bytes) {
  *p = pool_alloc(bytes);
  if (!*p) return 2;  // the platform's "out of memory"
  hcuda_empty(*p, bytes);
  return 0;
}

void device_free(void* p) {
  if (!p) return;
  // Each pool knows its own blocks, so a block goes back to the back end that
  // gave it even when the other one is in force now.
  for (int k = 0; k < 2; ++k) {
    BlockPool& bp = g_pools[k];
    std::lock_guard<std::mutex> lock(bp.m);
    auto it = bp.live.find(p);
    if (it == bp.live.end()) continue;
    const size_t cls = it->second;
    bp.live.erase(it);
    if (kPoolOn && bp.spare_bytes + cls <= kSpareCap) {
      bp.spare.emplace(cls, p);
      bp.spare_bytes += cls;
    } else {
      raw_free(p, k == 1);
    }
    return;
  }
}

float* d_alloc_float(size_t n) {
  void* p = nullptr;
  safe_cudaMalloc(&p, n * sizeof(float));
  return (float*)p;
}
float2* d_alloc_float2(size_t n) {
  void* p = nullptr;
  safe_cudaMalloc(&p, n * sizeof(float2));
  return (float2*)p;
}
unsigned int* d_alloc_uint(size_t n) {
  void* p = nullptr;
  safe_cudaMalloc(&p, n * sizeof(unsigned int));
  return (unsigned int*)p;
}

int memcpy_H2D(void* dst, const void* src, size_t bytes) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) return (int)cudaMemcpy(dst, src, bytes, cudaMemcpyHostToDevice);
#endif
  if (bytes) memcpy(dst, src, bytes);
  return 0;
}
int memcpy_D2H(void* dst, const void* src, size_t bytes) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) return (int)cudaMemcpy(dst, src, bytes, cudaMemcpyDeviceToHost);
#endif
  if (bytes) memcpy(dst, src, bytes);
  return 0;
}
int memcpy_D2D(void* dst, const void* src, size_t bytes) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) return (int)cudaMemcpy(dst, src, bytes, cudaMemcpyDeviceToDevice);
#endif
  if (bytes) memmove(dst, src, bytes);
  return 0;
}

// One thread a byte.
void hcuda_empty(void* p, size_t bytes) {
  unsigned char* b = (unsigned char*)p;
  launch_1d(bytes, [=] HD(unsigned int i) { b[i] = 0; });
}
void hcuda_empty_float(float* p, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { p[i] = 0.0f; });
}
void hcuda_memset_float(float* p, float v, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { p[i] = v; });
}
void hcuda_memset_int(int* p, int v, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { p[i] = v; });
}
void hcuda_memset_uint(unsigned int* p, unsigned int v, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { p[i] = v; });
}

void host_memset_float(float* p, float v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[i] = v;
}
void host_memset_int(int* p, int v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[i] = v;
}
void host_memset_uint(unsigned int* p, unsigned int v, size_t n) {
  for (size_t i = 0; i < n; ++i) p[i] = v;
}

void gpu_report_memory() {
  double total = 0, avail = 0;
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) {
    size_t f = 0, t = 0;
    cudaError_t st = cudaMemGetInfo(&f, &t);
    if (st != cudaSuccess)
      ZK_FATAL_AFTER(zk_format("Error: cudaMemGetInfo fails, %s \n", cudaGetErrorString(st)),
                     "Device memory, cudaMemGetInfo failed");
    total = (double)t;
    avail = (double)f;
  }
#endif
  if (!zk_on_gpu()) {
    struct sysinfo si;
    if (sysinfo(&si) == 0) {
      total = (double)si.totalram * si.mem_unit;
      avail = (double)si.freeram * si.mem_unit;
    }
  }
  printf("GPU memory usage:  total = %f MB, used = %f, free = %f MB\n", total / 1024.0 / 1024.0,
         (total - avail) / 1024.0 / 1024.0, avail / 1024.0 / 1024.0);
}

void zk_sync_check(const char* file, int line) {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) zk_check_status((int)cudaDeviceSynchronize(), file, line);
#else
  (void)file;
  (void)line;
#endif
}

void zk_check_status(int status, const char* file, int line) {
  if (status == 0) return;
#if defined(ZAVIK_HAVE_CUDA)
  const char* text = cudaGetErrorString((cudaError_t)status);
#else
  const char* text = "host back end failure";
#endif
  throw ZkError(ZkError::DEVICE, "", "", file, line, text);
}
