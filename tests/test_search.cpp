// The rotational search: the score's normalisation, its sign and centre
// convention for even and odd templates, the recovered angle, and the update
// rule between angles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "picking/zavik56_search.h"
#include "test_util.h"

namespace {

// An asymmetric smooth shape in template coordinates (u, v) from its centre.
double shape(double u, double v) {
  return exp(-((u - 3) * (u - 3) + v * v) / 8.0) + 0.6 * exp(-((u + 2) * (u + 2) + (v - 4) * (v - 4)) / 5.0);
}

struct SearchOut {
  std::vector<float> cc, psi;
};

SearchOut search(const std::vector<float>& mic, const std::vector<float>& mask, int n, const std::vector<float>& T,
                 int Tx, int Ty, float R, float step, float end = 359.0f) {
  const size_t nn = (size_t)n * n;
  Dev d;
  float *d_cc = d.f(nn), *d_psi = d.f(nn);
  zavik_ccmax_psi_by_one_template(d.put(mic), d.put(mask), d_cc, d_psi, 1, n, n, d.put(T), Tx, Ty, R, 0.0f, end, step);
  return {from_dev(d_cc, nn), from_dev(d_psi, nn)};
}

// A template of n x n samples of the shape, centred on (c, c).
std::vector<float> shape_template(int n, double c) {
  std::vector<float> T(n * n);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) T[y * n + x] = (float)shape(x - c, y - c);
  return T;
}

size_t argmax(const std::vector<float>& v) { return std::max_element(v.begin(), v.end()) - v.begin(); }

}  // namespace

class Search : public BackendTest {};

// A micrograph that holds one copy of the template: at the copy's place the
// score is sum(T^2) / D with D^2 = sum(T^2) * pi R^2 * sum(m^2 w) / sum(w).
TEST_P(Search, ScoreOfAPlacedCopyEvenTemplate) {
  const int n = 64, Tn = 16;
  std::vector<float> T = shape_template(Tn, 7.5);
  std::vector<float> mic(n * n, 0.0f), mask(n * n, 1.0f);
  // Template pixel (Tx/2, Ty/2) on micrograph pixel (20, 37).
  const int px = 20, py = 37;
  for (int y = 0; y < Tn; ++y)
    for (int x = 0; x < Tn; ++x) mic[(py - Tn / 2 + y) * n + (px - Tn / 2 + x)] = T[y * Tn + x];
  for (int i = 0; i < n * 4; ++i) mask[i] = 0.0f;  // rejected rows shape only D
  const float R = 6.5f;
  SearchOut o = search(mic, mask, n, T, Tn, Tn, R, 360.0f);
  double st = 0, sm = 0, sw = 0;
  for (float v : T) st += (double)v * v;
  for (int i = 0; i < n * n; ++i) {
    sm += (double)mic[i] * mic[i] * mask[i];
    sw += mask[i];
  }
  const double expect = st / sqrt(st * M_PI * R * R * sm / sw);
  ASSERT_EQ(argmax(o.cc), (size_t)(py * n + px));
  EXPECT_NEAR(o.cc[py * n + px], expect, 1e-5 * expect);
  EXPECT_EQ(o.psi[py * n + px], 0.0f);
}

// For an odd template the score's origin is template pixel (n/2 - ox) with
// ox = (n - Tx)/2 truncated: pixel 8 of 15, half a pixel off its centre 7.
TEST_P(Search, OddTemplateCentreConventionAndSign) {
  const int n = 64, Tn = 15;
  std::vector<float> T = shape_template(Tn, 7.0);
  std::vector<float> mic(n * n, 0.0f), mask(n * n, 1.0f);
  const int px = 41, py = 22, o8 = n / 2 - (n - Tn) / 2;
  ASSERT_EQ(o8, 8);
  for (int y = 0; y < Tn; ++y)
    for (int x = 0; x < Tn; ++x) mic[(py - o8 + y) * n + (px - o8 + x)] = -T[y * Tn + x];  // dark copy
  SearchOut o = search(mic, mask, n, T, Tn, Tn, 5.0f, 360.0f);
  const size_t lo = std::min_element(o.cc.begin(), o.cc.end()) - o.cc.begin();
  EXPECT_EQ(lo, (size_t)(py * n + px));
  EXPECT_LT(o.cc[lo], 0.0f);
}

// The micrograph holds the shape turned by 30 degrees (content from +x toward
// +y); the search in steps of 10 degrees finds 30 at the shape's centre.
TEST_P(Search, RecoversTheAngleOfARotatedCopy) {
  const int n = 96, Tn = 24;
  std::vector<float> T = shape_template(Tn, (Tn - 1) / 2.0);
  const double th = 30.0 * M_PI / 180.0, cx = 50 - 0.5, cy = 45 - 0.5;  // template (Tx/2, Ty/2) on (50, 45)
  std::vector<float> mic(n * n), mask(n * n, 1.0f);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const double dx = x - cx, dy = y - cy;
      mic[y * n + x] = (float)shape(dx * cos(th) + dy * sin(th), dy * cos(th) - dx * sin(th));
    }
  SearchOut o;
  EXPECT_EQ(zk_stdout([&] { o = search(mic, mask, n, T, Tn, Tn, 10.0f, 10.0f); }), std::string(36, '.') + "\n");
  const size_t best = argmax(o.cc);
  EXPECT_EQ(best, (size_t)(45 * n + 50));
  EXPECT_EQ(o.psi[best], 30.0f);
}

TEST_P(Search, UpdateKeepsTheEarlierAngleAtEqualScoresAndIgnoresNaN) {
  const int n = 3;
  Dev d;
  float* d_max = d.put(std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9});
  float* d_cc = d.put(std::vector<float>{1, 3, 2, NAN, 6, 6, 6, 6, 6});
  float* d_psi = d.put(std::vector<float>(9, 5.0f));
  hcuda_update_ccmax_psi_2d(d_max, d_cc, d_psi, 10.0f, n, n);
  EXPECT_EQ(from_dev(d_max, 9), (std::vector<float>{1, 3, 3, 4, 6, 6, 7, 8, 9}));
  EXPECT_EQ(from_dev(d_psi, 9), (std::vector<float>{5, 10, 5, 5, 10, 5, 5, 5, 5}));
}

ZK_BACKEND_SUITE(Search);

// The whole-run search gives the one-template search's bits, whatever its
// shortcuts: kept spectra or not, one or several host threads, GPU batches.
TEST_P(Search, RunSearchEqualsTheOneTemplateSearchBitForBit) {
  const int n = 80, Tx = 17, Ty = 17, Nt = 2;
  std::vector<float> T(Nt * Tx * Ty), mic(n * n), mask(n * n, 1.0f);
  unsigned int s = 12345;
  auto rnd = [&s]() {
    s = s * 1103515245u + 12345u;
    return ((s >> 9) & 0xFFFF) / 65536.0f - 0.5f;
  };
  for (float& v : mic) v = rnd();
  for (int t = 0; t < Nt; ++t)
    for (int y = 0; y < Ty; ++y)
      for (int x = 0; x < Tx; ++x) T[(t * Ty + y) * Tx + x] = (float)shape(x - 8.0 + t, y - 8.0) + 0.05f * rnd();
  for (int i = 0; i < n * 10; ++i) mask[i] = 0.0f;
  const size_t nn = (size_t)n * n;
  Dev d;
  float *d_mic = d.put(mic), *d_mask = d.put(mask), *d_T = d.put(T), *d_cc = d.f(nn), *d_psi = d.f(nn);
  const float R = 7.3f, step = 7.0f;
  std::vector<std::vector<float>> ref_cc(Nt, std::vector<float>(nn)), ref_psi = ref_cc;
  testing::internal::CaptureStdout();
  for (int t = 0; t < Nt; ++t) {
    zavik_ccmax_psi_by_one_template(d_mic, d_mask, d_cc, d_psi, 1, n, n, d_T + t * Tx * Ty, Tx, Ty, R, 0.0f, 359.0f,
                                    step);
    ref_cc[t] = from_dev(d_cc, nn);
    ref_psi[t] = from_dev(d_psi, nn);
  }
  const std::string ref_dots = testing::internal::GetCapturedStdout();
  struct Case {
    bool keep;
    int threads, batch;
  };
  for (Case c : {Case{true, 1, 16}, Case{false, 1, 1}, Case{true, 2, 5}, Case{false, 3, 16}, Case{true, 4, 52}}) {
    ZkSearchOptions opt;
    opt.keep_spectra = c.keep;
    opt.host_threads = c.threads;
    opt.gpu_batch = c.batch;
    ZkSearchBank* bank = zavik_search_bank_create(d_T, Nt, Tx, Ty, n, n, R, 0.0f, 359.0f, step, opt);
    EXPECT_EQ(zavik_search_bank_kept(bank), c.keep ? Nt : 0);
    zavik_search_bank_set_micrograph(bank, d_mic, d_mask);
    testing::internal::CaptureStdout();
    for (int t = 0; t < Nt; ++t) {
      zavik_search_bank_run(bank, t, d_cc, d_psi, 1);
      EXPECT_EQ(memcmp(from_dev(d_cc, nn).data(), ref_cc[t].data(), nn * 4), 0)
          << "scores, template " << t << " threads " << c.threads;
      EXPECT_EQ(memcmp(from_dev(d_psi, nn).data(), ref_psi[t].data(), nn * 4), 0) << "angles, template " << t;
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ref_dots);
    zavik_search_bank_destroy(bank);
  }
}
