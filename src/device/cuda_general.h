// Device runtime: the choice of back end and device, device memory, copies,
// clears, and the failure report of the device layer.
//
// Two back ends share one set of names.  With a usable GPU (and a build with
// CUDA) "device memory" is GPU memory and kernels run on the GPU; otherwise the
// host back end stands in as device 0: device memory is host memory and every
// kernel runs as a host loop over the same grid.
#pragma once
#include <cstddef>

#include "device/hd.h"
#include "device/report.h"

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

// Allocation that never returns on failure; the memory is not cleared.
int safe_cudaMalloc(void** p, size_t bytes);
// The same, then cleared by hcuda_empty.
int safe_cudaMalloc_empty(void** p, size_t bytes);
// Allocation that returns the platform's status; cleared on success.
int cudaMalloc_empty(void** p, size_t bytes);
// Releases memory from the allocators above (null is allowed).  Blocks are
// kept and handed out again for the same size; see zk_release_cached_memory.
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
inline dim3 zk_grid_2d(int nx, int ny) { return dim3((unsigned int)((nx + 31) / 32), (unsigned int)((ny + 31) / 32), 1); }

// Waits for the device and ends the process with "Error %s at line %d in file
// %s\n" on stderr if the work so far failed.  Nothing to wait for on the host.
void zk_sync_check(const char* file, int line);
// Ends the process with the device error line for a non-zero status.
void zk_check_status(int status, const char* file, int line);
#define ZK_CHECK(call) zk_check_status((int)(call), zk_basename(__FILE__), __LINE__)
