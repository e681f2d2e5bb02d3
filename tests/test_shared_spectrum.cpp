// The normalisation stage transforms the mirror-padded micrograph once and
// hands that spectrum to both local means of the ice test and to the
// band-pass.  Each consumer must give exactly the bits of its own-transform
// form, and must leave a shared spectrum as it found it.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "backend_fixture.h"
#include "device/process2d_local.h"
#include "picking/img_filter.h"

namespace {

class SharedSpectrum : public BackendTest {};

// Noise on a slope with a dark disc: local statistics that vary over the image.
std::vector<float> test_image(int n) {
  std::mt19937 rng(7);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> img((size_t)n * n);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const float dx = (float)(x - 30), dy = (float)(y - 50);
      img[(size_t)y * n + x] = noise(rng) + 0.02f * (float)x - (dx * dx + dy * dy < 144.0f ? 3.0f : 0.0f);
    }
  return img;
}

TEST_P(SharedSpectrum, EveryConsumerMatchesItsOwnTransformBitForBit) {
  const int n = 96;
  const size_t nn = (size_t)n * n, nhalf = (size_t)(n + 1) * 2 * n;
  const std::vector<float> img = test_image(n);
  Dev d;
  float *d_img = d.put(img), *d_out = d.f(nn);
  float2* d_f = d.c(nhalf);
  hcuda_2d_mpad_fft_r2c(d_f, d_img, n, n);
  const std::vector<float2> f0 = from_dev(d_f, nhalf);

  // Different radii, so that a disc spectrum taken for the wrong size shows.
  hcuda_2d_local_sigma_softR_mpad(d_out, d_img, n, n, 9.0f, 3.0f);
  const std::vector<float> sigma_own = from_dev(d_out, nn);
  hcuda_2d_local_sigma_softR_mpad_f(d_out, d_img, d_f, n, n, 9.0f, 3.0f);
  EXPECT_TRUE(same_bits(sigma_own, from_dev(d_out, nn)));

  hcuda_2d_local_ave_softR_mpad(d_out, d_img, n, n, 13.0f, 3.0f);
  const std::vector<float> ave_own = from_dev(d_out, nn);
  hcuda_2d_local_ave_softR_mpad_f(d_out, d_f, n, n, 13.0f, 3.0f);
  EXPECT_TRUE(same_bits(ave_own, from_dev(d_out, nn)));
  EXPECT_FALSE(same_bits(ave_own, sigma_own));

  // The two statistics keep the spectrum; the band-pass, last, may use it up.
  const std::vector<float2> f1 = from_dev(d_f, nhalf);
  EXPECT_EQ(memcmp(f0.data(), f1.data(), nhalf * sizeof(float2)), 0);

  hcuda_2d_bandpass_guas_mpad(d_img, d_out, n, 2.0f, 10.0f, 60.0f);
  const std::vector<float> band_own = from_dev(d_out, nn);
  hcuda_2d_bandpass_guas_mpad_f(d_f, d_img, n, 2.0f, 10.0f, 60.0f);  // in place, as the stage does
  EXPECT_TRUE(same_bits(band_own, from_dev(d_img, nn)));
}

ZK_BACKEND_SUITE(SharedSpectrum);

}  // namespace
