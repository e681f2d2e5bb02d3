#include "ctf/curve_fit.h"

void line_fit(const float* x, const float* y, int n, float& a, float& b) {
  float sx = 0.0f, sy = 0.0f, sxy = 0.0f, sxx = 0.0f;
  for (int i = 0; i < n; ++i) {
    sx += x[i];
    sy += y[i];
    sxy += x[i] * y[i];
    sxx += x[i] * x[i];
  }
  const float fn = (float)n, mx = sx / fn, my = sy / fn;
  a = (sxy - fn * mx * my) / (sxx - fn * mx * mx);
  b = my - a * mx;
}
