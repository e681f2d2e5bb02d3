// Test bodies written once and run on each back end.  The GPU instances skip
// when the build has no CUDA or no GPU answers, so the same suite runs on a
// machine without one.
#pragma once
#include <gtest/gtest.h>

#include <string>

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

