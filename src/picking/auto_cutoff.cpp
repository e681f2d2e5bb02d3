#include "picking/auto_cutoff.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// The q-quantile of sorted values, between neighbours.
double quantile(const std::vector<float>& sorted, double q) {
  const double at = q * (double)(sorted.size() - 1);
  const size_t i = (size_t)at;
  if (i + 1 >= sorted.size()) return sorted.back();
  return sorted[i] + (at - (double)i) * ((double)sorted[i + 1] - sorted[i]);
}

}  // namespace

void zavik_gumbel_from_quartiles(const float* samples, int n, double& mu, double& beta) {
  std::vector<float> v(samples, samples + n);
  std::sort(v.begin(), v.end());
  const double q1 = quantile(v, 0.25), q2 = quantile(v, 0.5), q3 = quantile(v, 0.75);
  // q3 - q1 = beta (ln ln 4 - ln ln 4/3); a flat sample keeps a tiny scale.
  beta = std::max((q3 - q1) / (std::log(std::log(4.0)) - std::log(std::log(4.0 / 3.0))), 1e-6);
  mu = q2 + beta * std::log(std::log(2.0));
}

float zavik_auto_cutoff(const float* decoys, int n_decoys, const float* scores, int n_scores, float fdr) {
  if (n_scores < 1) return INFINITY;
  std::vector<float> s(scores, scores + n_scores);
  std::sort(s.begin(), s.end());
  if (n_decoys < 1) return s[0] - 1.0f;
  double mu, beta;
  zavik_gumbel_from_quartiles(decoys, n_decoys, mu, beta);

  // The share of noise among the candidates, from the lower half of the decoys.
  std::vector<float> d(decoys, decoys + n_decoys);
  std::sort(d.begin(), d.end());
  const float median = (float)quantile(d, 0.5);
  const double below_d = (double)(std::lower_bound(d.begin(), d.end(), median) - d.begin());
  const double below_s = (double)(std::lower_bound(s.begin(), s.end(), median) - s.begin());
  const double pi0 = below_d > 0 ? std::min(1.0, below_s / below_d) : 1.0;
  for (int i = 0; i < n_scores; ++i) {
    const double noise = pi0 * n_decoys * -std::expm1(-std::exp(-((double)s[i] - mu) / beta));
    if (noise <= fdr * (double)(n_scores - i)) return s[i];
  }
  return INFINITY;
}
