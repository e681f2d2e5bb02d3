// bench_frc: the Fourier ring correlation of the mean of particle stacks
// against a reference image, and the resolution where it first falls below a
// threshold.
//
//   bench_frc --ref reference.mrc [--apix 1.0] [--threshold 0.5] [--curve] stack.mrc [stack.mrc ...]
//
// Prints "resolution <A> shell <ring> of <n>"; with --curve first one line a
// ring (ring, frequency in 1/A, FRC).  Rings are one Fourier pixel wide; the
// resolution is where the curve first crosses the threshold, interpolated
// between two rings (Nyquist when it never does).
#include <fftw3.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "formats/mrcfile.h"

[[noreturn]] static void usage(const char* why) {
  fprintf(stderr, "bench_frc: %s\n", why);
  fprintf(stderr, "usage: bench_frc --ref reference.mrc [--apix A] [--threshold t] [--curve] stack.mrc ...\n");
  exit(1);
}

int main(int argc, char** argv) {
  std::string ref_name;
  double apix = 1.0, threshold = 0.5;
  bool curve = false;
  std::vector<std::string> stacks;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--curve") curve = true;
    else if (a == "--ref" && i + 1 < argc) ref_name = argv[++i];
    else if (a == "--apix" && i + 1 < argc) apix = atof(argv[++i]);
    else if (a == "--threshold" && i + 1 < argc) threshold = atof(argv[++i]);
    else if (a[0] == '-') usage(("unknown option " + a).c_str());
    else stacks.push_back(a);
  }
  if (ref_name.empty() || stacks.empty()) usage("a reference and at least one stack are needed");
  MRC_HEAD hr;
  mrcf_read_head(ref_name.c_str(), &hr);
  const int n = hr.nx, nh = n / 2 + 1;
  if (hr.ny != n) usage("the reference must be square");
  std::vector<float> ref((size_t)n * n * hr.nz);
  mrcf_read_all(ref_name.c_str(), ref.data());

  // The mean of every image of every stack.
  std::vector<double> mean((size_t)n * n, 0.0);
  long count = 0;
  for (const std::string& s : stacks) {
    MRC_HEAD hs;
    mrcf_read_head(s.c_str(), &hs);
    if (hs.nx != n || hs.ny != n) usage(("stack of another size: " + s).c_str());
    std::vector<float> v((size_t)n * n * hs.nz);
    mrcf_read_all(s.c_str(), v.data());
    for (int z = 0; z < hs.nz; ++z)
      for (size_t k = 0; k < (size_t)n * n; ++k) mean[k] += v[(size_t)z * n * n + k];
    count += hs.nz;
  }
  if (count == 0) usage("the stacks hold no images");

  float* a = fftwf_alloc_real((size_t)n * n);
  float* b = fftwf_alloc_real((size_t)n * n);
  fftwf_complex* fa = fftwf_alloc_complex((size_t)nh * n);
  fftwf_complex* fb = fftwf_alloc_complex((size_t)nh * n);
  for (size_t k = 0; k < (size_t)n * n; ++k) {
    a[k] = (float)(mean[k] / count);
    b[k] = ref[k];
  }
  fftwf_plan pa = fftwf_plan_dft_r2c_2d(n, n, a, fa, FFTW_ESTIMATE);
  fftwf_plan pb = fftwf_plan_dft_r2c_2d(n, n, b, fb, FFTW_ESTIMATE);
  fftwf_execute(pa);
  fftwf_execute(pb);

  std::vector<double> ab(nh, 0.0), aa(nh, 0.0), bb(nh, 0.0);
  for (int ky = 0; ky < n; ++ky) {
    const int fy = ky < n / 2 ? ky : ky - n;
    for (int kx = 0; kx < nh; ++kx) {
      const int ring = (int)lround(sqrt((double)kx * kx + (double)fy * fy));
      if (ring >= nh) continue;
      const size_t k = (size_t)ky * nh + kx;
      ab[ring] += (double)fa[k][0] * fb[k][0] + (double)fa[k][1] * fb[k][1];
      aa[ring] += (double)fa[k][0] * fa[k][0] + (double)fa[k][1] * fa[k][1];
      bb[ring] += (double)fb[k][0] * fb[k][0] + (double)fb[k][1] * fb[k][1];
    }
  }
  double cross = nh - 1, prev = 1.0;
  bool fell = false;
  for (int r = 1; r < nh; ++r) {
    const double frc = ab[r] / sqrt(aa[r] * bb[r] + 1e-300);
    if (curve) printf("%4d %8.5f %8.5f\n", r, r / (n * apix), frc);
    if (frc < threshold && !fell) {
      cross = (r - 1) + (prev - threshold) / (prev - frc);
      fell = true;
    }
    prev = frc;
  }
  printf("resolution %.3f shell %.2f of %d\n", n * apix / cross, cross, nh - 1);
  fftwf_destroy_plan(pa);
  fftwf_destroy_plan(pb);
  fftwf_free(a);
  fftwf_free(b);
  fftwf_free(fa);
  fftwf_free(fb);
  return 0;
}
