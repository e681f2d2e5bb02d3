// Array arithmetic: the pairwise device tree and the statistics on it, the
// normalisations, the element-wise kernels, the host family, extremes and
// peaks, and the scalar helpers.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"
#include "test_util.h"

namespace {

// The tree written out plainly: blocks of 1024 filled up with zeros, adjacent
// pairs added first (stride 1, 2, 4, ...), the block results summed again in
// the same way until one is left.
std::vector<float> ref_tree_pass(const std::vector<float>& v) {
  std::vector<float> out;
  for (size_t base = 0; base < v.size(); base += 1024) {
    float buf[1024];
    for (size_t t = 0; t < 1024; ++t) buf[t] = base + t < v.size() ? v[base + t] : 0.0f;
    for (size_t s = 1; s < 1024; s *= 2)
      for (size_t k = 0; k < 1024; k += 2 * s) buf[k] = buf[k] + buf[k + s];
    out.push_back(buf[0]);
  }
  return out;
}
float ref_tree_sum(std::vector<float> v) {
  do v = ref_tree_pass(v);
  while (v.size() > 1);
  return v[0];
}

// Values whose float sum depends on the order: a wide spread of magnitudes.
std::vector<float> spread_values(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = (u(rng) - 0.3f) * std::exp2(u(rng) * 12.0f);
  return v;
}

template <class F>
std::vector<float> mapped(size_t n, F f) {
  std::vector<float> r(n);
  for (size_t i = 0; i < n; ++i) r[i] = f(i);
  return r;
}

// A device copy of a host vector, freed with the object.
struct DevArray {
  float* p = nullptr;
  size_t n = 0;
  explicit DevArray(const std::vector<float>& h) : p(to_dev(h)), n(h.size()) {}
  explicit DevArray(size_t count) : p(d_alloc_float(count)), n(count) {}
  ~DevArray() { device_free(p); }
  std::vector<float> get() const { return from_dev(p, n); }
  DevArray(const DevArray&) = delete;
  DevArray& operator=(const DevArray&) = delete;
};

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

void mean_sd(const std::vector<float>& v, double& mean, double& sd) {
  double s = 0.0, q = 0.0;
  for (float x : v) s += x;
  mean = s / v.size();
  for (float x : v) q += (x - mean) * (x - mean);
  sd = std::sqrt(q / v.size());
}

// The elements of v where the mask m is not 0.
std::vector<float> inside(const std::vector<float>& v, const std::vector<float>& m) {
  std::vector<float> r;
  for (size_t i = 0; i < v.size(); ++i)
    if (m[i] != 0.0f) r.push_back(v[i]);
  return r;
}

}  // namespace

// ===========================================================================
// The device tree

class DeviceReduce : public BackendTest {};

TEST_P(DeviceReduce, SumFollowsThePairwiseTree) {
  for (size_t n : {size_t(1), size_t(1024), size_t(1025), size_t(1048576), size_t(1048577)}) {
    std::vector<float> v = spread_values(n, (unsigned)n);
    float want = ref_tree_sum(v), seq = 0.0f;
    for (float x : v) seq += x;
    if (n >= 1024) {
      EXPECT_NE(want, seq) << "test data should tell the two orders apart, n = " << n;
    }
    DevArray d(v);
    float got = hcuda_fast_sum(d.p, n);
    EXPECT_TRUE(same_bits(got, want)) << "n = " << n << ": " << got << " vs " << want;
    EXPECT_EQ(d.get(), v) << "hcuda_fast_sum must keep its input, n = " << n;
    EXPECT_TRUE(same_bits(hcuda_fast_sum_inplace(d.p, n), want)) << "n = " << n;
    std::vector<float> after = d.get();
    EXPECT_EQ(after[0], want) << "the in-place form leaves the sum in a[0]";
    if (n > 1) {
      EXPECT_NE(after, v) << "the in-place form destroys its input, n = " << n;
    }
  }
  // One pass gives the block sums; in place, the rest of the array is kept.
  std::vector<float> v = spread_values(3000, 8), want = ref_tree_pass(v);
  DevArray a(v), out(want.size());
  hcuda_reduce_data_for_sum(a.p, out.p, v.size());
  EXPECT_EQ(out.get(), want);
  hcuda_reduce_data_for_sum_inplace(a.p, v.size());
  std::vector<float> got = a.get();
  std::copy(want.begin(), want.end(), v.begin());
  EXPECT_EQ(got, v);
}

TEST_P(DeviceReduce, StatisticsOnTheTree) {
  const size_t n = 70000;
  std::vector<float> a = spread_values(n, 21), m(n);
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  for (auto& x : m) x = u(rng) < 0.3f ? 0.0f : u(rng);  // soft weights and zeros
  DevArray da(a), dm(m);
  auto tree = [&](auto f) { return ref_tree_sum(mapped(n, f)); };
  float sum = ref_tree_sum(a), msum = ref_tree_sum(m), mean = sum / (float)n;
  EXPECT_TRUE(same_bits(hcuda_fast_mean(da.p, n), mean));
  EXPECT_TRUE(same_bits(hcuda_fast_sumsqr(da.p, n), tree([&](size_t i) { return a[i] * a[i]; })));
  float swm = tree([&](size_t i) { return a[i] * m[i]; }), mwm = swm / msum;
  EXPECT_TRUE(same_bits(hcuda_fast_sum_withmask(da.p, dm.p, n), swm));
  EXPECT_TRUE(same_bits(hcuda_mean_withmask(da.p, dm.p, n), mwm));
  EXPECT_TRUE(same_bits(hcuda_fast_sumsqr_withmask(da.p, dm.p, n), tree([&](size_t i) { return (a[i] * a[i]) * m[i]; })));
  float ssd = tree([&](size_t i) { return (a[i] - mean) * (a[i] - mean); });
  EXPECT_TRUE(same_bits(hcuda_fast_submean_sumsqr(da.p, n), ssd));
  EXPECT_TRUE(same_bits(hcuda_variance(da.p, n), ssd / (float)n));
  EXPECT_TRUE(same_bits(hcuda_stdv(da.p, n), sqrtf(ssd / (float)n)));
  float sswm = tree([&](size_t i) { return m[i] * ((a[i] - mwm) * (a[i] - mwm)); });
  EXPECT_TRUE(same_bits(hcuda_fast_submean_sumsqr_withmask(da.p, dm.p, n), sswm));
  EXPECT_TRUE(same_bits(hcuda_stdv_withmask(da.p, dm.p, n), sqrtf(sswm / msum)));
  EXPECT_EQ(da.get(), a);
  EXPECT_EQ(dm.get(), m);

  // The in-place sum of squares squares its input.
  float want_sq = hcuda_fast_sumsqr(da.p, n);
  EXPECT_TRUE(same_bits(hcuda_fast_sumsqr_inplace(da.p, n), want_sq));
  EXPECT_NE(da.get(), a);

  // The six-way sum is a sum in another order.
  for (size_t k : {size_t(1), size_t(2048), size_t(5000), size_t(5000000)}) {
    std::vector<float> v = zk_normal(k, 4, 1.0f, 1.0f);
    double exact = 0.0;
    for (float x : v) exact += x;
    DevArray d(v);
    float s6 = hcuda_fast_sum6(d.p, k);
    EXPECT_NEAR(s6, exact, std::fabs(exact) * 1e-5 + 1e-4) << k;
    EXPECT_EQ(d.get(), v);
    EXPECT_TRUE(same_bits(hcuda_fast_sum6_inplace(d.p, k), s6));
    EXPECT_EQ(d.get()[0], s6);
    // The seventh order too, with its input kept.
    DevArray d7(v);
    const float s7 = hcuda_reduce_data_for_sum7(d7.p, k);
    EXPECT_NEAR(s7, exact, std::fabs(exact) * 1e-5 + 1e-4) << k;
    EXPECT_EQ(d7.get(), v);
  }
  // Small integers sum exactly in any order, so an element missed or added
  // twice by the grid stride shows: sizes around one block pair and around
  // the full grid of 64 blocks.
  for (size_t k : {size_t(0), size_t(1), size_t(1024), size_t(1025), size_t(2049), size_t(64 * 2048 - 1),
                   size_t(64 * 2048 + 1025), size_t(300001)}) {
    std::vector<float> v = mapped(k, [](size_t i) { return (float)(i % 7 + 1); });
    double exact = 0.0;
    for (float x : v) exact += x;
    DevArray d(v.empty() ? std::vector<float>(1, 0.0f) : v);
    EXPECT_EQ(hcuda_reduce_data_for_sum7(d.p, k), (float)exact) << k;
  }
}

// ===========================================================================
// Normalisations

class DeviceNormalise : public BackendTest {};

TEST_P(DeviceNormalise, NormzGivesMeanZeroAndDeviationOne) {
  const size_t n = 300001;
  for (auto os : {std::pair<float, float>(0.0f, 1.0f), {1000.0f, 0.01f}, {-5e3f, 250.0f}, {3.0f, 1e-5f}}) {
    DevArray d(zk_normal(n, 11, os.first, os.second));
    hcuda_normz_inplace(d.p, n, 1.0f, 0.0f);
    double mean, sd;
    mean_sd(d.get(), mean, sd);
    EXPECT_NEAR(mean, 0.0, 1e-3) << os.first << " " << os.second;
    EXPECT_NEAR(sd, 1.0, 1e-3) << os.first << " " << os.second;
  }
  // The steps in their order: mean, subtraction, the sum of squares of the
  // subtracted array, one fused multiply-add with sigma/s and the target mean.
  const size_t k = 5000;
  std::vector<float> v = zk_normal(k, 12, 7.0f, 3.0f);
  float mu = ref_tree_sum(v) / (float)k;
  std::vector<float> sub = mapped(k, [&](size_t i) { return v[i] - mu; });
  float s = sqrtf(ref_tree_sum(mapped(k, [&](size_t i) { return sub[i] * sub[i]; })) / (float)k);
  DevArray d(v);
  hcuda_normz_inplace(d.p, k, 2.5f, -4.0f);
  std::vector<float> got = d.get();
  for (size_t i = 0; i < k; ++i) ASSERT_TRUE(same_bits(got[i], fmaf(sub[i], 2.5f / s, -4.0f))) << i;
  // A constant array has no deviation: the values are not finite.
  DevArray c(std::vector<float>(2000, 3.0f));
  hcuda_normz_inplace(c.p, 2000, 1.0f, 0.0f);
  for (float x : c.get()) ASSERT_FALSE(std::isfinite(x));
}

TEST_P(DeviceNormalise, MaskedStatisticsUseOnlyTheMask) {
  const size_t n = 200000;
  std::vector<float> v = zk_normal(n, 13, 10.0f, 2.0f), m(n);
  for (size_t i = 0; i < n; ++i) {
    m[i] = (i % 3 == 0) ? 1.0f : 0.0f;
    if (m[i] == 0.0f) v[i] = 1e4f + (float)(i % 100);  // far off: must not move the statistics
  }
  double mu, sd, gm, gs;
  mean_sd(inside(v, m), mu, sd);
  DevArray d(v), dm(m);
  hcuda_norm_withmask_inplace(d.p, dm.p, n, 1.0f, 0.0f);
  std::vector<float> got = d.get();
  mean_sd(inside(got, m), gm, gs);
  EXPECT_NEAR(gm, 0.0, 1e-3);
  EXPECT_NEAR(gs, 1.0, 1e-3);
  // Outside the mask the same linear change, not cleared.
  for (size_t i = 1; i < n; i += 3) EXPECT_NEAR(got[i], (v[i] - mu) / sd, 0.05) << i;
  EXPECT_EQ(dm.get(), m);

  DevArray d2(v);
  hcuda_norm_withmask_applymask_inplace(d2.p, dm.p, n, 1.0f, 0.0f);
  std::vector<float> got2 = d2.get();
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(got2[i], m[i] != 0.0f ? got[i] : 0.0f) << i;

  // The staging forms give the device result on host arrays.
  std::vector<float> h = v, out(n);
  gpu_norm_withmask_applymask(out.data(), v.data(), m.data(), n, 1.0f, 0.0f);
  EXPECT_EQ(out, got2);
  EXPECT_EQ(h, v);
  gpu_norm_withmask_applymask_inplace(h.data(), m.data(), n, 1.0f, 0.0f);
  EXPECT_EQ(h, got2);

  // An empty mask has no statistics: the values are not finite.
  DevArray z(std::vector<float>(3000, 0.0f)), d3(zk_normal(3000, 15, 0.0f, 1.0f));
  hcuda_norm_withmask_inplace(d3.p, z.p, 3000, 1.0f, 0.0f);
  for (float x : d3.get()) ASSERT_FALSE(std::isfinite(x));
}

// ===========================================================================
// Element-wise kernels

class DeviceElementwise : public BackendTest {};

TEST_P(DeviceElementwise, ArithmeticFamilies) {
  const size_t n = 2500;  // three blocks, the last partly idle
  std::vector<float> a = zk_normal(n, 31, 0.5f, 2.0f), b = zk_normal(n, 32, 3.0f, 1.0f);
  DevArray da(a), db(b), out(n);
  const float s = 1.75f, s1 = -0.3f, s2 = 2.5f;
  float *pa = da.p, *pb = db.p, *po = out.p;
  // Runs one kernel into out and compares every element with the formula.
  auto check = [&](const char* what, auto run, auto f) {
    run();
    std::vector<float> got = out.get();
    // Same bits; a NaN only needs to be a NaN (its payload is the platform's).
    for (size_t i = 0; i < n; ++i) {
      float want = f(i);
      if (std::isnan(want)) {
        ASSERT_TRUE(std::isnan(got[i])) << what << " at " << i;
      } else {
        ASSERT_TRUE(same_bits(got[i], want)) << what << " at " << i;
      }
    }
  };
  check("x1d_add", [&] { hcuda_x1d_add(pa, pb, po, n); }, [&](size_t i) { return a[i] + b[i]; });
  check("x1d_sub", [&] { hcuda_x1d_sub(pa, pb, po, n); }, [&](size_t i) { return a[i] - b[i]; });
  check("x1d_multi", [&] { hcuda_x1d_multi(pa, pb, po, n); }, [&](size_t i) { return a[i] * b[i]; });
  check("apply_mask", [&] { hcuda_apply_mask(pa, pb, po, n); }, [&](size_t i) { return a[i] * b[i]; });
  check("x1d_divide", [&] { hcuda_x1d_divide(pa, pb, po, n); }, [&](size_t i) { return a[i] / b[i]; });
  check("add", [&] { hcuda_add(pa, po, n, s); }, [&](size_t i) { return a[i] + s; });
  check("sub", [&] { hcuda_sub(pa, po, n, s); }, [&](size_t i) { return a[i] - s; });
  check("multi", [&] { hcuda_multi(pa, po, n, s); }, [&](size_t i) { return a[i] * s; });
  check("divide", [&] { hcuda_divide(pa, po, n, s); }, [&](size_t i) { return a[i] / s; });
  check("add_multi", [&] { hcuda_add_multi(pa, po, n, s1, s2); }, [&](size_t i) { return (a[i] + s1) * s2; });
  check("multi_add", [&] { hcuda_multi_add(pa, po, n, s1, s2); }, [&](size_t i) { return fmaf(a[i], s1, s2); });
  check("sub_divide", [&] { hcuda_sub_divide(pa, po, n, s1, s2); }, [&](size_t i) { return (a[i] - s1) / s2; });
  check("divide_sub", [&] { hcuda_divide_sub(pa, po, n, s1, s2); }, [&](size_t i) { return a[i] / s1 - s2; });
  check("sqr", [&] { hcuda_sqr(pa, po, n); }, [&](size_t i) { return a[i] * a[i]; });
  check("sub_sqr", [&] { hcuda_sub_sqr(pa, po, n, s); }, [&](size_t i) { return (a[i] - s) * (a[i] - s); });
  check("data_submean_sqr", [&] { hcuda_data_submean_sqr(pa, po, n, s); },
        [&](size_t i) { return (a[i] - s) * (a[i] - s); });
  check("data_submean_sqr_withmask", [&] { hcuda_data_submean_sqr_withmask(pa, pb, po, n, s); },
        [&](size_t i) { return b[i] * ((a[i] - s) * (a[i] - s)); });
  check("sqr_withmask", [&] { hcuda_sqr_withmask(pa, pb, po, n); }, [&](size_t i) { return (a[i] * a[i]) * b[i]; });
  check("sqrtf", [&] { hcuda_sqrtf(pb, po, n); }, [&](size_t i) { return sqrtf(b[i]); });
  check("logf", [&] { hcuda_logf(pb, po, n); }, [&](size_t i) { return hd_logf(b[i]); });
  EXPECT_EQ(da.get(), a);
  EXPECT_EQ(db.get(), b);

  // The in-place forms, chained on one array.
  std::vector<float> h = a;
  DevArray w(a);
  hcuda_x1d_add_inplace(w.p, pb, n);
  hcuda_x1d_multi_inplace(w.p, pb, n);
  hcuda_x1d_sub_inplace(w.p, pa, n);
  hcuda_x1d_divide_inplace(w.p, pb, n);
  hcuda_add_inplace(w.p, n, s);
  hcuda_multi_inplace(w.p, n, s);
  hcuda_sub_inplace(w.p, n, s1);
  hcuda_divide_inplace(w.p, n, s2);
  hcuda_multi_add_inplace(w.p, n, s1, s2);
  hcuda_sub_divide_inplace(w.p, n, s2, s);
  hcuda_invert_inplace(w.p, n);
  hcuda_addto_float(w.p, pb, n);
  hcuda_apply_mask_inplace(w.p, pb, n);
  hcuda_sqr_inplace(w.p, n);
  hcuda_sqrtf_inplace(w.p, n);
  hcuda_logf_inplace(w.p, n);
  for (size_t i = 0; i < n; ++i) {
    float x = ((((h[i] + b[i]) * b[i]) - a[i]) / b[i] + s) * s;
    x = fmaf((x - s1) / s2, s1, s2);
    x = (-((x - s2) / s) + b[i]) * b[i];
    h[i] = hd_logf(sqrtf(x * x));
  }
  std::vector<float> got = w.get();
  for (size_t i = 0; i < n; ++i) ASSERT_TRUE(same_bits(got[i], h[i])) << i;
}

TEST_P(DeviceElementwise, ManyWithOne) {
  const int L = 37;
  const size_t rows = 1100;
  std::vector<float> data = zk_normal(L * rows, 41, 0.0f, 1.0f), one = zk_normal(L, 42, 1.0f, 0.5f);
  DevArray dd(data), d1(one), out(rows), big(L * rows);
  // Each row against a sum over columns [k0, k1) in column order.
  auto expect_rows = [&](int k0, int k1, bool dot) {
    std::vector<float> got = out.get();
    for (size_t r = 0; r < rows; ++r) {
      float s = 0.0f;
      for (int k = k0; k < k1; ++k) s = dot ? fmaf(data[r * L + k], one[k], s) : s + data[r * L + k];
      ASSERT_TRUE(same_bits(got[r], s)) << r;
    }
  };
  hcuda_dot_manydata_with_one(dd.p, d1.p, L, out.p, rows);
  expect_rows(0, L, true);
  hcuda_correlation_many_with_one_limited(dd.p, d1.p, out.p, L, rows, 5, 20);
  expect_rows(5, 20, true);
  hcuda_sumX_manydata_to_one(dd.p, out.p, L, rows);
  expect_rows(0, L, false);
  hcuda_multiply_manydata_with_one(dd.p, d1.p, big.p, L, rows);
  std::vector<float> got = big.get();
  for (size_t r = 0; r < rows; ++r)
    for (int k = 0; k < L; ++k) ASSERT_EQ(got[r * L + k], data[r * L + k] * one[k]);
}

ZK_BACKEND_SUITE(DeviceReduce);
ZK_BACKEND_SUITE(DeviceNormalise);
ZK_BACKEND_SUITE(DeviceElementwise);

// ===========================================================================
// Host family

TEST(HostMath, SumsAndMomentsAccumulateInDouble) {
  const float v2[] = {0.0f, 2.0f};
  EXPECT_EQ(hm_svariance(v2, 2), 2.0);
  EXPECT_EQ(hm_svariancef(v2, 2), 2.0f);
  EXPECT_EQ(hm_variance(v2, 2), 1.0);
  EXPECT_EQ(hm_variancef(v2, 2), 1.0f);
  EXPECT_EQ(hm_stdv(v2, 2), 1.0);
  EXPECT_DOUBLE_EQ(hm_sstdv(v2, 2), std::sqrt(2.0));
  double m, s;
  hm_mean_stdv(v2, 2, m, s);
  EXPECT_TRUE(m == 1.0 && s == 1.0);
  // 2^24 + 1 + 1 + ...: a float accumulator loses every 1, a double keeps them.
  std::vector<float> v(1001, 1.0f), ones(1001, 1.0f);
  v[0] = 16777216.0f;
  const double big = 16777216.0 + 1000.0;
  EXPECT_EQ(hm_sum(v.data(), v.size()), big);
  EXPECT_EQ(hm_mean(v.data(), v.size()), big / 1001.0);
  EXPECT_EQ(hm_dot(v.data(), ones.data(), v.size()), big);
  EXPECT_EQ(hm_sum_withmask(v.data(), ones.data(), v.size()), big);
  EXPECT_EQ(hm_dotf(v.data(), ones.data(), v.size()), 16777216.0f);  // the float ones
  EXPECT_EQ(hm_sumf_withmask(v.data(), ones.data(), v.size()), 16777216.0f);

  const float a[] = {1.0f, -2.0f, 3.0f}, b[] = {4.0f, 5.0f, -6.0f}, w[] = {0.5f, 1.0f, 0.0f};
  EXPECT_EQ(hm_sum_sqr(a, 3), 14.0);
  EXPECT_EQ(hm_sqr_sum(a, 3), 4.0);
  EXPECT_EQ(hm_l1_norm(a, 3), 6.0);
  EXPECT_DOUBLE_EQ(hm_l2_norm(a, 3), std::sqrt(14.0));
  EXPECT_DOUBLE_EQ(hm_mod(a, 3), std::sqrt(14.0));
  EXPECT_NEAR(hm_lp_norm(a, 3, 3.0f), std::cbrt(36.0), 1e-12);
  EXPECT_EQ(hm_dot(a, b, 3), 4.0 - 10.0 - 18.0);
  EXPECT_EQ(hm_dot_withmask(a, b, w, 3), 2.0 - 10.0);
  EXPECT_EQ(hm_dotf_weighted(a, b, w, 3), -8.0f);
  EXPECT_EQ(hm_mean_weighted(a, w, 3), (0.5 - 2.0) / 1.5);
  EXPECT_EQ(hm_meanf_withmask(a, w, 3), (float)((0.5 - 2.0) / 1.5));
  // covariance: means 2/3 and 1
  double cov = (1 - 2.0 / 3) * 3 + (-2 - 2.0 / 3) * 4 + (3 - 2.0 / 3) * (-7);
  EXPECT_NEAR(hm_covariance(a, b, 3), cov, 1e-12);
  // One value more at a time gives the statistics of all so far.
  std::vector<float> r = zk_normal(200, 61, 4.0f, 3.0f);
  double mean = r[0], sd = 0.0;
  for (size_t k = 1; k < r.size(); ++k) {
    EXPECT_EQ(hm_update_mean_stdv_by_one_more(mean, sd, k, r[k]), mean);
    hm_mean_stdv(r.data(), k + 1, m, s);
    ASSERT_NEAR(mean, m, 1e-9) << k;
    ASSERT_NEAR(sd, s, 1e-7) << k;
  }
}

TEST(HostMath, ElementwiseFamily) {
  const float a[] = {1.0f, -2.0f, 4.0f, 9.0f}, b[] = {2.0f, 4.0f, -8.0f, 3.0f};
  float out[4], w[4];
  // Runs call, then checks one element of out.
#define ZK_AT(call, i, want)              \
  do {                                    \
    call;                                 \
    EXPECT_EQ(out[i], want) << #call;     \
  } while (0)
  ZK_AT(hm_add(out, a, 4, 1.0f), 1, -1.0f);
  ZK_AT(hm_sub(out, a, 4, 1.0f), 2, 3.0f);
  ZK_AT(hm_multi(out, a, 4, 3.0f), 3, 27.0f);
  ZK_AT(hm_divide(out, a, 4, 2.0f), 2, 2.0f);
  ZK_AT(hm_invert(out, a, 4), 0, -1.0f);
  ZK_AT(hm_sqr(out, a, 4), 1, 4.0f);
  ZK_AT(hm_sqrtf(out, a, 4), 3, 3.0f);
  EXPECT_TRUE(std::isnan(out[1]));
  ZK_AT(hm_logf(out, a, 4), 0, 0.0f);
  ZK_AT(hm_multi_add(out, a, 4, 2.0f, 1.0f), 1, -3.0f);
  ZK_AT(hm_add_multi(out, a, 4, 1.0f, 2.0f), 1, -2.0f);
  ZK_AT(hm_divide_sub(out, a, 4, 2.0f, 1.0f), 2, 1.0f);
  ZK_AT(hm_sub_divide(out, a, 4, 1.0f, 2.0f), 3, 4.0f);
  ZK_AT(hm_sub_sqr(out, a, 4, 1.0f), 1, 9.0f);
  ZK_AT(hm_linear_norm_kb(out, a, 4, 2.0f, -1.0f), 2, 7.0f);
  ZK_AT(hm_submean(out, a, 4), 0, -2.0f);  // mean 3
  ZK_AT(hm_submean_sqr(out, a, 4), 1, 25.0f);
  ZK_AT(hm_submean_abs(out, a, 4), 1, 5.0f);
  ZK_AT(hm_x1d_add(out, a, b, 4), 2, -4.0f);
  ZK_AT(hm_x1d_sub(out, a, b, 4), 1, -6.0f);
  ZK_AT(hm_x1d_multi(out, a, b, 4), 3, 27.0f);
  ZK_AT(hm_x1d_divide(out, a, b, 4), 2, -0.5f);
  ZK_AT(hm_appply_mask(out, a, b, 4), 0, 2.0f);
#undef ZK_AT
  memcpy(w, a, sizeof w);
  hm_submean_inplace(w, 4);
  hm_x1d_multi_inplace(w, b, 4);
  hm_apply_weights_inplace(w, b, 4);
  hm_multi_add_inplace(w, 4, 0.5f, 1.0f);
  EXPECT_EQ(w[0], (-2.0f * 2.0f * 2.0f) * 0.5f + 1.0f);
  EXPECT_EQ(w[3], (6.0f * 3.0f * 3.0f) * 0.5f + 1.0f);
}

TEST(HostMath, NormalisationsInDouble) {
  const size_t n = 10000;
  std::vector<float> v = zk_normal(n, 51, 100.0f, 7.0f), out(n);
  hm_normz(out.data(), v.data(), n, 2.0f, 5.0f);
  double m, s;
  mean_sd(out, m, s);
  EXPECT_NEAR(m, 5.0, 1e-5);
  EXPECT_NEAR(s, 2.0, 1e-5);
  // out = (float)(mean + (a - mu)*(sigma/s)), all in double
  hm_mean_stdv(v.data(), n, m, s);
  for (size_t i = 0; i < n; i += 97) EXPECT_EQ(out[i], (float)(5.0 + (v[i] - m) * (2.0 / s)));

  // Masked: statistics from the weighted elements, all elements change.
  std::vector<float> mk = mapped(n, [](size_t i) { return i % 4 == 0 ? 1.0f : 0.0f; });
  for (size_t i = 0; i < n; ++i) v[i] += 500.0f * (1.0f - mk[i]);
  mean_sd(inside(v, mk), m, s);
  std::vector<float> w = v, wa(n), ww = v;
  hm_normz_withmask_inplace(w.data(), mk.data(), n);
  for (size_t i = 0; i < n; i += 3) EXPECT_NEAR(w[i], (v[i] - m) / s, 1e-4 * (1 + std::fabs(w[i])));
  hm_normz_withmask_applymask(wa.data(), v.data(), mk.data(), n);
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(wa[i], mk[i] != 0.0f ? w[i] : 0.0f);
  hm_normz_weighted_inplace(ww.data(), mk.data(), n);
  EXPECT_EQ(ww, w);

  // Correlation of an array with a linear function of itself is 1, or -1.
  std::vector<float> x = zk_normal(1000, 52, 0.0f, 1.0f);
  std::vector<float> y = mapped(1000, [&](size_t i) { return 3.0f * x[i] + 2.0f; });
  std::vector<float> yn = mapped(1000, [&](size_t i) { return -y[i]; });
  EXPECT_NEAR(hm_ccc_norm(x.data(), y.data(), 1000), 1.0f, 1e-5f);
  EXPECT_NEAR(hm_ccc_norm(x.data(), yn.data(), 1000), -1.0f, 1e-5f);
  const float p[] = {1.0f, 0.0f}, q[] = {0.0f, 1.0f};
  EXPECT_EQ(hm_ccc_unnorm(p, q, 2), 0.0f);
}

TEST(HostMath, SumCheck0EndsTheRunOnZeroAndWarnsOnTiny) {
  const float zeros[3] = {0.0f, 0.0f, 0.0f};
  EXPECT_FAILS("^Error in function hm_sum_check0\\(\\), file math_utils.cpp on line [0-9]+: Zero sum of mask! Exit now!\n$",
               hm_sum_check0(zeros, 3););
  EXPECT_FAILS("Zero sum of mask! Exit now!",
               hm_normz_withmask_inplace(const_cast<float*>(zeros), zeros, 3););
  const float tiny[2] = {0.5e-7f, 0.5e-7f};
  double s = 0.0;
  std::string said = zk_stdout([&] { s = hm_sum_check0(tiny, 2); });
  EXPECT_NEAR(s, 1e-7, 1e-13);
  EXPECT_TRUE(said.find("Warning in function hm_sum_check0(), file math_utils.cpp on line ") == 0) << said;
  EXPECT_NE(said.find(": Too small sum of mask!\n"), std::string::npos) << said;
  EXPECT_TRUE(zk_has(zk_stdout([&] { EXPECT_EQ(hm_sumf_check0(tiny, 2), (float)s); }), "Too small sum of mask!"));
  const float fine[2] = {0.25f, 0.75f};
  EXPECT_EQ(zk_stdout([&] { EXPECT_EQ(hm_sum_check0(fine, 2), 1.0); }), "");
}

// ===========================================================================
// Extremes and peaks

TEST(Extremes, FirstIndexOfEqualValues) {
  const float a[] = {3.0f, -1.0f, 7.0f, -1.0f, 7.0f, 2.0f};
  float mn, mx, mean;
  size_t imn, imx;
  EXPECT_EQ(min_max_value_and_index(a, 6, mn, imn, mx, imx), 0);
  EXPECT_TRUE(mn == -1.0f && imn == 1u && mx == 7.0f && imx == 2u);
  EXPECT_EQ(max_min_value_and_index(a, 6, mx, imx, mn, imn), 0);
  EXPECT_TRUE(imx == 2u && imn == 1u);
  EXPECT_TRUE(min_index(a, 6) == 1u && max_index(a, 6) == 2u);
  EXPECT_TRUE(min_value(a, 6) == -1.0f && max_value(a, 6) == 7.0f);
  EXPECT_EQ(max_min_mean_value(a, 6, mx, mn, mean), 0);
  EXPECT_EQ(mean, 17.0f / 6.0f);
  EXPECT_EQ(min_max_mean_value(a, 6, mn, mx, mean), 0);
  EXPECT_TRUE(mn == -1.0f && mx == 7.0f);
  // Element 0 counts.
  const float b[] = {9.0f, 1.0f, 9.0f};
  EXPECT_EQ(max_index(b, 3), 0u);
  EXPECT_EQ(min_index(b + 1, 2), 0u);
}

TEST(Extremes, PeakMaskClearsTheWholeHill) {
  //               0     1     2     3     4     5     6     7     8     9
  const float a[] = {1.0f, 2.0f, 5.0f, 9.0f, 6.0f, 4.0f, 4.0f, 8.0f, 3.0f, 0.0f};
  std::vector<int> mask(10, 1);
  EXPECT_EQ(peak_index_masked(a, mask.data(), 10), 3u);
  peak_make_mask(a, mask.data(), 10, 3);
  // Right: 6 < 9, 4 < 6, then 4 is not < 4: stops at 6.  Left: 5 < 9, 2 < 5, 1 < 2.
  EXPECT_EQ(mask, (std::vector<int>{0, 0, 0, 0, 0, 0, 1, 1, 1, 1}));
  EXPECT_EQ(peak_index_masked(a, mask.data(), 10), 7u);
  peak_make_mask(a, mask.data(), 10, 7);
  // Left of 7: 4 < 8 clears 6, then 4 (index 5) is not < 4.
  EXPECT_EQ(mask, std::vector<int>(10, 0));
  EXPECT_EQ(peak_index_masked(a, mask.data(), 10), 10u);

  size_t out[5];
  peak_indices(a, 10, out, 5);
  EXPECT_TRUE(out[0] == 3u && out[1] == 7u && out[2] == 10u && out[3] == 10u && out[4] == 10u);
  // Equal peaks: the first wins.
  const float e[] = {5.0f, 1.0f, 5.0f, 1.0f};
  peak_indices(e, 4, out, 2);
  EXPECT_TRUE(out[0] == 0u && out[1] == 2u);
  // k larger than n gives n entries.
  size_t o3[4] = {99, 99, 99, 99};
  peak_indices(e, 2, o3, 4);
  EXPECT_TRUE(o3[0] == 0u && o3[2] == 99u);
}

// ===========================================================================
// Scalar helpers

TEST(ScalarHelpers, Interpolations) {
  const int nx = 4, ny = 3;
  std::vector<float> img(nx * ny + nx, NAN);  // a row of NaN past the end
  for (int i = 0; i < nx * ny; ++i) img[i] = (float)(i * i) * 0.5f;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) EXPECT_EQ(hd_2d_frac_value(img.data(), nx, (float)x, (float)y), img[y * nx + x]);
  // On the last row a fractional x interpolates along the row only; on the
  // last column a fractional y down the column only; inside, bilinear.
  EXPECT_FLOAT_EQ(hd_2d_frac_value(img.data(), nx, 1.25f, 2.0f), img[9] + 0.25f * (img[10] - img[9]));
  EXPECT_FLOAT_EQ(hd_2d_frac_value(img.data(), nx, 3.0f, 0.5f), 0.5f * (img[3] + img[7]));
  float top = 0.5f * (img[0] + img[1]), bottom = 0.5f * (img[4] + img[5]);
  EXPECT_FLOAT_EQ(hd_2d_frac_value(img.data(), nx, 0.5f, 0.25f), top + 0.25f * (bottom - top));
  const float line[3] = {1.0f, 3.0f, NAN};
  EXPECT_EQ(hd_1d_frac_value(line, 1.0f), 3.0f);
  EXPECT_EQ(hd_1d_frac_value(line, 0.25f), 1.5f);
  // 3-D: the last plane does not read the next one.
  std::vector<float> vol(2 * 2 * 2 + 4, NAN);
  for (int i = 0; i < 8; ++i) vol[i] = (float)i;
  EXPECT_EQ(hd_3d_frac_value(vol.data(), 2, 2, 1.0f, 1.0f, 1.0f), 7.0f);
  EXPECT_FLOAT_EQ(hd_3d_frac_value(vol.data(), 2, 2, 0.5f, 0.0f, 1.0f), 4.5f);
  EXPECT_EQ(hd_linear_interpolation(2.0f, 6.0f, 0.25f), 3.0f);
  EXPECT_EQ(hd_bilinear_interpolation(1.0f, 2.0f, 3.0f, 5.0f, 0.5f, 0.5f), 2.75f);
  EXPECT_EQ(hd_trilinear_interpolation(0, 1, 2, 3, 4, 5, 6, 7, 1.0f, 1.0f, 0.5f), 5.0f);
}

TEST(ScalarHelpers, Neighbours) {
  const int nx = 3, ny = 3;
  const float a[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  std::vector<int> k(8);
  hd_2d_index_nb8(nx, ny, 0, 0, k.data());  // the corner falls back on itself
  EXPECT_EQ(k, (std::vector<int>{0, 1, 0, 3, 0, 1, 3, 4}));
  hd_2d_index_nb4(nx, ny, 2, 1, k.data());
  EXPECT_EQ(std::vector<int>(k.begin(), k.begin() + 4), (std::vector<int>{4, 5, 2, 8}));
  EXPECT_EQ(hd_2d_ave_nb4(a, nx, ny, 1, 1), 5.0f);
  EXPECT_EQ(hd_2d_ave_nb8(a, nx, ny, 1, 1, 0), 5.0f);
  EXPECT_EQ(hd_2d_ave_nb4(a, nx, ny, 0, 0), (1.0f + 2.0f + 1.0f + 4.0f) / 4.0f);
  // Weighted: direct neighbours twice, over 12.
  EXPECT_EQ(hd_2d_ave_nb8(a, nx, ny, 0, 0, 1), (2.0f * (1 + 2 + 1 + 4) + (1 + 2 + 4 + 5)) / 12.0f);
}

TEST(ScalarHelpers, PeriodicEquivalentEitherOrder) {
  EXPECT_EQ(hd_periodic_equivalent(100.0f, -90.0f, 90.0f), -80.0f);
  EXPECT_EQ(hd_periodic_equivalent(100.0f, 90.0f, -90.0f), -80.0f);
  EXPECT_EQ(hd_periodic_equivalent(90.0f, -90.0f, 90.0f), -90.0f);  // half-open
  EXPECT_EQ(hd_periodic_equivalent(-451.0f, -90.0f, 90.0f), 89.0f);
  EXPECT_EQ(hd_periodic_equivalent(7.0f, 3.0f, 3.0f), 7.0f);      // no period
  EXPECT_EQ(hd_periodic_equivalent(-1e-8f, 0.0f, 360.0f), 0.0f);  // rounding lands on hi
  EXPECT_EQ(hd_periodic_equivalent(200.0, 160.0, -20.0), 20.0);
  EXPECT_EQ(hd_mod_angle_m90_p90(135.0f), -45.0f);
  EXPECT_EQ(hd_mod_angle_m90_p90(-135.0), 45.0);
  for (float x = -1000.0f; x < 1000.0f; x += 0.37f) {
    float v = hd_periodic_equivalent(x, 160.0f, -20.0f);
    ASSERT_GE(v, -20.0f);
    ASSERT_LT(v, 160.0f);
    ASSERT_NEAR(std::remainder((double)v - x, 180.0), 0.0, 1e-3) << x;
  }
}

TEST(ScalarHelpers, ClampsGaussiansAndComplex) {
  float v = 5.0f, w = -5.0f;
  hd_min_max_bounded(v, 3.0f, 1.0f);  // limits in either order
  EXPECT_EQ(v, 3.0f);
  EXPECT_EQ(hd_min_max_bounded(w, 1.0f, 3.0f), 1.0f);
  // Between 1/20 and 1/4 per angstrom, limits included, either order.
  EXPECT_TRUE(is_in_res(1.0f / 20.0f, 20.0f, 4.0f));
  EXPECT_TRUE(is_in_res(1.0f / 4.0f, 20.0f, 4.0f));
  EXPECT_FALSE(is_in_res(0.0499f, 20.0f, 4.0f));
  EXPECT_FALSE(is_in_res(0.2501f, 4.0f, 20.0f));
  EXPECT_EQ(hd_guasf(0.0f, 2.0f), 0.39894229f);
  EXPECT_NEAR(hd_guasf(2.0f, 2.0f), 0.39894229 * std::exp(-0.5), 1e-7);
  EXPECT_EQ(hd_guas(0.0, 2.0), 0.39894228);
  EXPECT_NEAR(hd_guas(3.0, 2.0), 0.39894228 * std::exp(-9.0 / 8.0), 1e-15);
  EXPECT_EQ(hd_guasf1(0.0f, 3.0f), 1.0f);
  EXPECT_EQ(hd_guasf1(0.0f, 0.0f), 1.0f);
  EXPECT_EQ(hd_guasf1(0.5f, 0.0f), 0.0f);
  EXPECT_EQ(hd_guas1(0.0, 0.0), 1.0);
  EXPECT_EQ(hd_guas1(-0.5, 0.0), 0.0);
  EXPECT_NEAR(hd_guasf1(1.0f, 1.0f), std::exp(-0.5), 1e-7);
  EXPECT_EQ(hd_bfac(0.0f, 100.0f), 1.0f);
  EXPECT_NEAR(hd_bfac(0.1f, 200.0f), std::exp(-0.5), 1e-7);
  float2 a = make_f2(1.0f, 2.0f), b = make_f2(3.0f, -1.0f);
  float2 p = hd_cXc(a, b), r = hd_cXrc(a, b);
  EXPECT_TRUE(p.x == 5.0f && p.y == 5.0f && r.x == 5.0f);
  EXPECT_EQ(hd_conj(a).y, -2.0f);
}
