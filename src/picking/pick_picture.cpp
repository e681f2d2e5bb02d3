#include "picking/pick_picture.h"

#include <algorithm>
#include <cmath>

namespace {

void set_rgb(ZkPicture* pic, int i, int j, const uint8_t* c) {
  uint8_t* p = pic->rgb.data() + 3 * ((size_t)j * pic->nx + i);
  p[0] = c[0];
  p[1] = c[1];
  p[2] = c[2];
}

// The centre of picture pixel i in samples, as for a whole block.
double pixel_centre(int i, int bin) { return (i + 0.5) * bin - 0.5; }

}  // namespace

ZkPicture pick_picture_grey(const float* raw, int nx, int ny, int bin) {
  ZkPicture pic;
  pic.nx = (nx + bin - 1) / bin;
  pic.ny = (ny + bin - 1) / bin;
  const size_t n = (size_t)pic.nx * pic.ny;
  std::vector<double> sum(n, 0.0);
  std::vector<int> count(n, 0);
  for (int y = 0; y < ny; ++y) {
    const float* row = raw + (size_t)y * nx;
    const size_t base = (size_t)(y / bin) * pic.nx;
    for (int x = 0; x < nx; ++x)
      if (std::isfinite(row[x])) {
        sum[base + x / bin] += row[x];
        ++count[base + x / bin];
      }
  }
  double s = 0.0, s2 = 0.0;
  size_t m = 0;
  for (size_t k = 0; k < n; ++k)
    if (count[k] > 0) {
      sum[k] /= count[k];
      s += sum[k];
      s2 += sum[k] * sum[k];
      ++m;
    }
  const double mean = m ? s / m : 0.0;
  const double sd = m ? std::sqrt(std::max(0.0, s2 / m - mean * mean)) : 0.0;
  const double low = mean - 3.0 * sd, span = 6.0 * sd;
  pic.rgb.resize(3 * n);
  for (size_t k = 0; k < n; ++k) {
    double v = 127.0;
    if (count[k] > 0 && span > 0.0) v = std::min(255.0, std::max(0.0, 255.0 * (sum[k] - low) / span));
    const uint8_t g = (uint8_t)std::lround(v);
    pic.rgb[3 * k] = pic.rgb[3 * k + 1] = pic.rgb[3 * k + 2] = g;
  }
  return pic;
}

void pick_picture_shade_rejected(ZkPicture* pic, const float* mask, int L, int shrink, int bin) {
  for (int j = 0; j < pic->ny; ++j) {
    const int sy = (int)(pixel_centre(j, bin) / shrink);
    if (sy >= L) continue;
    for (int i = 0; i < pic->nx; ++i) {
      const int sx = (int)(pixel_centre(i, bin) / shrink);
      if (sx >= L || mask[(size_t)sy * L + sx] != 0.0f) continue;
      uint8_t* p = pic->rgb.data() + 3 * ((size_t)j * pic->nx + i);
      for (int c = 0; c < 3; ++c) p[c] = (uint8_t)((p[c] + ZK_REJECT_RGB[c] + 1) / 2);
    }
  }
}

void pick_picture_draw_circle(ZkPicture* pic, float x, float y, float diameter, int bin) {
  // The pick in picture pixels: the inverse of pixel_centre.
  const double u = (x + 0.5) / bin - 0.5, v = (y + 0.5) / bin - 0.5, r = 0.5 * diameter / bin;
  if (r < 1.0) {
    const long i = std::lround(u), j = std::lround(v);
    if (i >= 0 && i < pic->nx && j >= 0 && j < pic->ny) set_rgb(pic, (int)i, (int)j, ZK_PICK_RGB);
    return;
  }
  const int i0 = std::max(0, (int)std::floor(u - r - 1.0)), i1 = std::min(pic->nx - 1, (int)std::ceil(u + r + 1.0));
  const int j0 = std::max(0, (int)std::floor(v - r - 1.0)), j1 = std::min(pic->ny - 1, (int)std::ceil(v + r + 1.0));
  for (int j = j0; j <= j1; ++j)
    for (int i = i0; i <= i1; ++i)
      if (std::fabs(std::hypot(i - u, j - v) - r) < 1.0) set_rgb(pic, i, j, ZK_PICK_RGB);
}
