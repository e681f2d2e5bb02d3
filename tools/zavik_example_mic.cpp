// A small example micrograph for trying the picker: a float MRC image of
// Gaussian noise with a few dark round particles at known places.
//   zavik_example_mic <out.mrc> [nx] [ny] [n_particles] [radius_px] [seed]
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "formats/mrcfile.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    printf("Usage: %s <out.mrc> [nx 1024] [ny 1024] [n_particles 12] [radius_px 40] [seed 1]\n", argv[0]);
    return 1;
  }
  const int nx = argc > 2 ? atoi(argv[2]) : 1024;
  const int ny = argc > 3 ? atoi(argv[3]) : 1024;
  const int n = argc > 4 ? atoi(argv[4]) : 12;
  const float r = argc > 5 ? (float)atof(argv[5]) : 40.0f;
  const unsigned seed = argc > 6 ? (unsigned)atoi(argv[6]) : 1u;
  if (nx < 8 || ny < 8 || n < 0 || !(r > 0.0f)) {
    printf("Example micrograph: sizes of at least 8, a particle count of 0 or more, a radius above 0.\n");
    return 1;
  }

  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> img((size_t)nx * ny);
  for (float& v : img) v = noise(rng);

  // Particles on a jittered lattice so that they do not overlap: dark discs
  // with soft Gaussian edges, contrast about twice the noise.
  std::uniform_real_distribution<float> jitter(-0.15f, 0.15f);
  const int cols = (int)std::ceil(std::sqrt((double)n));
  const int rows = cols > 0 ? (n + cols - 1) / cols : 0;
  printf("Particle centres (x, y) in pixels:\n");
  for (int k = 0; k < n; ++k) {
    float cx = ((k % cols) + 0.5f + jitter(rng)) * nx / cols;
    float cy = ((k / cols) + 0.5f + jitter(rng)) * ny / rows;
    printf("  %8.1f %8.1f\n", cx, cy);
    int x0 = std::max(0, (int)(cx - 2 * r)), x1 = std::min(nx - 1, (int)(cx + 2 * r));
    int y0 = std::max(0, (int)(cy - 2 * r)), y1 = std::min(ny - 1, (int)(cy + 2 * r));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        float d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
        img[(size_t)y * nx + x] -= 2.0f * std::exp(-d2 / (2.0f * r * r * 0.5f));
      }
  }
  mrcf_write_xyz_data(argv[1], img.data(), nx, ny, 1);
  printf("Wrote %s: %d x %d pixels, %d particles of radius %.1f pixels.\n", argv[1], nx, ny, n, r);
  return 0;
}
