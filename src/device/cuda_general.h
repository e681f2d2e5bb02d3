// Device runtime: the choice of back end and device, device memory, copies,
// clears, and the failure report of the device layer.
//
// Two back ends share one set of names.  With a usable GPU (and a build with
// CUDA) "device memory" is GPU memory and kernels run on the GPU; otherwise the
// host back end stands in as device 0: device memory is host memory and every
// kernel runs as a host loop over the same grid.
#pragma once
#include <cstddef>

#include "core/hd.h"
#include "core/report.h"

enum class ZkBackend { Host, Gpu };

// True when the build holds the CUDA back end.
bool zk_cuda_compiled();
// True when the CUDA back end is built and at least one GPU answers.
bool zk_gpu_available();
// The back end in force; the GPU where one is usable, else the host.
ZkBackend zk_backend();
inline bool zk_on_gpu() { return zk_backend() == ZkBackend::Gpu; }
// Choose the host back end, or the GPU back end when available (returns false
// and changes nothing otherwise).  Arrays of one back end must not be handed to
// the other, so a switch belongs before any allocation.
void zk_use_host();
bool zk_use_gpu();
// One line for the user: which back end computes.  Empty when a GPU is used.
const char* zk_backend_note();

// Device number check.  0 with a usable device in gid, -1 when none is found.
// On the host back end gid becomes 0 and the result is 0.
int check_and_set_gid(int& gid);
// Makes gid the device of all later work (nothing to do on the host back end).
int zk_set_device(int gid);
// GPUs of this machine that the GPU back end can use; 0 on the host back end.
int zk_device_count();
// The device of rank local_rank among the ranks of one machine: its GPUs taken
// in turn; 0 where the host back end stands in.
int zk_device_of_local_rank(int local_rank);

// Allocation that throws the fatal report on failure; the memory is not
// cleared.
int safe_cudaMalloc(void** p, size_t bytes);
// The same, then cleared by hcuda_empty.
int safe_cudaMalloc_empty(void** p, size_t bytes);
// Allocation that returns the platform's status; cleared on success.
int cudaMalloc_empty(void** p, size_t bytes);
// Releases memory from the allocators above (null is allowed), on the back
// end that gave it, whichever is in force now.  Blocks are kept and handed out
// again for the same size; see zk_release_cached_memory.
void device_free(void* p);
// Gives every kept block back to the platform.
void zk_release_cached_memory();

// Typed shorthands of safe_cudaMalloc.
float* d_alloc_float(size_t n);
float2* d_alloc_float2(size_t n);
unsigned int* d_alloc_uint(size_t n);

// Blocking copies; each returns the platform's status (0 on success).
int memcpy_H2D(void* dst, const void* src, size_t bytes);
int memcpy_D2H(void* dst, const void* src, size_t bytes);
int memcpy_D2D(void* dst, const void* src, size_t bytes);

// Clears and fills of device arrays (kernels cuda_empty, cuda_empty_float,
// cuda_memset_float, cuda_memset_int, cuda_memset_uint).
void hcuda_empty(void* p, size_t bytes);
void hcuda_empty_float(float* p, size_t n);
void hcuda_memset_float(float* p, float v, size_t n);
void hcuda_memset_int(int* p, int v, size_t n);
void hcuda_memset_uint(unsigned int* p, unsigned int v, size_t n);

void host_memset_float(float* p, float v, size_t n);
void host_memset_int(int* p, int v, size_t n);
void host_memset_uint(unsigned int* p, unsigned int v, size_t n);

// "GPU memory usage:  total = %f MB, used = %f, free = %f MB\n"; on the host
// back end the figures are those of the host's memory.
void gpu_report_memory();

// Launch geometry of the two rules.
inline dim3 zk_grid_1d(size_t n) { return dim3((unsigned int)((n + 1023) >> 10), 1, 1); }
inline dim3 zk_grid_2d(int nx, int ny) {
  return dim3((unsigned int)((nx + 31) / 32), (unsigned int)((ny + 31) / 32), 1);
}

// Waits for the device and throws the device report ("Error %s at line %d in
// file %s") if the work so far failed.  Nothing to wait for on the host.
void zk_sync_check(const char* file, int line);
// Throws the device report for a non-zero status.
void zk_check_status(int status, const char* file, int line);
#define ZK_CHECK(call) zk_check_status((int)(call), zk_basename(__FILE__), __LINE__)

// An array in device memory that knows the back end that holds it and its
// length, and frees itself there.  Raw pointers (get()) go to the operations.
template <class T>
class ZkDeviceArray {
 public:
  ZkDeviceArray() = default;
  // n elements on the back end in force, not cleared.
  explicit ZkDeviceArray(size_t n) { allocate(n); }
  ~ZkDeviceArray() { reset(); }
  ZkDeviceArray(const ZkDeviceArray&) = delete;
  ZkDeviceArray& operator=(const ZkDeviceArray&) = delete;
  ZkDeviceArray(ZkDeviceArray&& o) noexcept : p_(o.p_), n_(o.n_), backend_(o.backend_) { o.release(); }
  ZkDeviceArray& operator=(ZkDeviceArray&& o) noexcept {
    if (this != &o) {
      reset();
      p_ = o.p_;
      n_ = o.n_;
      backend_ = o.backend_;
      o.release();
    }
    return *this;
  }

  // Frees what is held, then takes n elements on the back end in force.
  void allocate(size_t n) {
    reset();
    void* p = nullptr;
    safe_cudaMalloc(&p, n * sizeof(T));
    p_ = (T*)p;
    n_ = n;
    backend_ = zk_backend();
  }
  void reset() {
    if (p_) device_free(p_);
    release();
  }

  T* get() const { return p_; }
  size_t size() const { return n_; }
  ZkBackend backend() const { return backend_; }

 private:
  void release() {
    p_ = nullptr;
    n_ = 0;
  }
  T* p_ = nullptr;
  size_t n_ = 0;
  ZkBackend backend_ = ZkBackend::Host;
};
