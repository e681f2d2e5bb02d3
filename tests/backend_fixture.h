// Test bodies written once and run on each back end.  The GPU instances skip
// when the build has no CUDA or no GPU answers, so the same suite runs on a
// machine without one.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "device/cuda_general.h"

class BackendTest : public ::testing::TestWithParam<ZkBackend> {
 protected:
  void SetUp() override {
    if (GetParam() == ZkBackend::Gpu) {
      if (!zk_use_gpu()) GTEST_SKIP() << "no usable GPU";
    } else {
      zk_use_host();
    }
  }
  void TearDown() override { zk_use_host(); }
};

inline std::string backend_name(const ::testing::TestParamInfo<ZkBackend>& info) {
  return info.param == ZkBackend::Gpu ? "Gpu" : "Host";
}

// Instantiate a BackendTest-derived fixture for both back ends.
#define ZK_BACKEND_SUITE(Fixture) \
  INSTANTIATE_TEST_SUITE_P(Backends, Fixture, ::testing::Values(ZkBackend::Host, ZkBackend::Gpu), backend_name)


// Device round trips of plain host vectors, on the back end in force.
template <class T>
T* to_dev(const std::vector<T>& h) {
  T* d = nullptr;
  safe_cudaMalloc((void**)&d, h.size() * sizeof(T));
  memcpy_H2D(d, h.data(), h.size() * sizeof(T));
  return d;
}
template <class T>
std::vector<T> from_dev(const T* d, size_t n) {
  std::vector<T> h(n);
  memcpy_D2H(h.data(), d, n * sizeof(T));
  return h;
}

// Device buffers of one test, freed together when it ends.
struct Dev {
  std::vector<void*> held;
  ~Dev() {
    for (void* p : held) device_free(p);
  }
  template <class T>
  T* keep(T* p) {
    held.push_back(p);
    return p;
  }
  template <class T>
  T* put(const std::vector<T>& h) {
    return keep(to_dev(h));
  }
  float* f(size_t n) { return keep(d_alloc_float(n)); }
  float2* c(size_t n) { return keep(d_alloc_float2(n)); }
};

// Equal bit for bit (a NaN equals the same NaN; 0 and -0 differ).
template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}
