// The automatic cutoff: the Gumbel fit of the decoys and the choice of the
// cutoff on score samples whose split is known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "picking/auto_cutoff.h"

namespace {

// n samples of a Gumbel distribution, the quantiles (i + 0.5) / n, in a
// shuffled order (the fit must not rely on sorted input).
std::vector<float> gumbel_sample(double mu, double beta, int n) {
  std::vector<float> v;
  for (int i = 0; i < n; ++i) {
    const int k = (i * 37) % n;
    v.push_back((float)(mu - beta * std::log(-std::log((k + 0.5) / n))));
  }
  return v;
}

// Particles: n scores spread evenly over [lo, hi].
std::vector<float> particles(double lo, double hi, int n) {
  std::vector<float> v;
  for (int i = 0; i < n; ++i) v.push_back((float)(lo + (hi - lo) * i / (n > 1 ? n - 1 : 1)));
  return v;
}

int count_at_or_above(const std::vector<float>& v, float t) {
  int n = 0;
  for (float x : v) n += x >= t;
  return n;
}

}  // namespace

TEST(AutoCutoff, GumbelFromQuartilesRecoversItsParameters) {
  for (const double beta : {0.05, 0.1, 0.3}) {
    const std::vector<float> s = gumbel_sample(0.25, beta, 2001);
    double mu = 0, b = 0;
    zavik_gumbel_from_quartiles(s.data(), (int)s.size(), mu, b);
    EXPECT_NEAR(mu, 0.25, 0.002 * (1 + beta * 10)) << beta;
    EXPECT_NEAR(b, beta, 0.01 * beta) << beta;
  }
  // A few artefacts far out in the tail do not move the fit.
  std::vector<float> s = gumbel_sample(0.25, 0.1, 400);
  for (int i = 0; i < 8; ++i) s.push_back(3.0f + i);
  double mu = 0, b = 0;
  zavik_gumbel_from_quartiles(s.data(), (int)s.size(), mu, b);
  EXPECT_NEAR(mu, 0.25, 0.01);
  EXPECT_NEAR(b, 0.1, 0.01);
}

TEST(AutoCutoff, KeepsTheShareOfNoiseAmongThePicksSmall) {
  const std::vector<float> decoys = gumbel_sample(0.2, 0.1, 200);
  // The real candidates: as much noise as the decoys hold, and 94 particles
  // well above it.  Every particle is kept, and no more noise than the 2 %
  // allowed.
  std::vector<float> scores = gumbel_sample(0.2, 0.1, 200);
  const std::vector<float> p = particles(0.9, 1.8, 94);
  scores.insert(scores.end(), p.begin(), p.end());
  float t = zavik_auto_cutoff(decoys.data(), (int)decoys.size(), scores.data(), (int)scores.size());
  EXPECT_EQ(count_at_or_above(p, t), 94);
  EXPECT_LE(count_at_or_above(scores, t) - 94, 2);
  // The cutoff is the lowest score at which the noise expected above it, from
  // the Gumbel of the decoys, is at most the share asked of what is kept: a
  // looser share lets more of the noise tail in.
  const float loose = zavik_auto_cutoff(decoys.data(), (int)decoys.size(), scores.data(), (int)scores.size(), 0.2f);
  EXPECT_LT(loose, t);
  EXPECT_GT(count_at_or_above(scores, loose) - 94, count_at_or_above(scores, t) - 94);
  // With half the noise among the real candidates (pi0 one half), the same
  // cutoff expects half the noise above it.
  std::vector<float> fewer = gumbel_sample(0.2, 0.1, 100);
  fewer.insert(fewer.end(), p.begin(), p.end());
  t = zavik_auto_cutoff(decoys.data(), (int)decoys.size(), fewer.data(), (int)fewer.size());
  EXPECT_EQ(count_at_or_above(p, t), 94);
  EXPECT_LE(count_at_or_above(fewer, t) - 94, 2);
}

TEST(AutoCutoff, EmptyAndCrowdedMicrographs) {
  const std::vector<float> decoys = gumbel_sample(0.2, 0.1, 200);
  // Noise alone: nothing stands out, nothing is kept.
  const std::vector<float> noise = gumbel_sample(0.2, 0.1, 200);
  EXPECT_TRUE(std::isinf(zavik_auto_cutoff(decoys.data(), 200, noise.data(), 200)));
  // Particles only (no candidate below the decoys' median): all are kept.
  const std::vector<float> crowd = particles(0.7, 1.6, 215);
  const float t = zavik_auto_cutoff(decoys.data(), 200, crowd.data(), 215);
  EXPECT_EQ(count_at_or_above(crowd, t), 215);
  // No decoys at all: every candidate is kept; no candidates: none.
  EXPECT_EQ(count_at_or_above(crowd, zavik_auto_cutoff(nullptr, 0, crowd.data(), 215)), 215);
  EXPECT_TRUE(std::isinf(zavik_auto_cutoff(decoys.data(), 200, nullptr, 0)));
}
