#include "picking/img_filter.h"

#include <cstdlib>
#include <memory>

#include "core/report.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/process2d_local.h"
#include "device/process2d_raw.h"
#include "formats/mrcfile.h"

namespace {

enum ZkBand { ZK_BAND_SHARP, ZK_BAND_SOFT, ZK_BAND_GUAS, ZK_LOW_SHARP, ZK_HIGH_SHARP };

// One filter: its curve and the radii in Fourier pixels of the N by N
// transform that it runs on.
struct ZkBandFilter {
  int type;
  float r1, r2;  // rl and rh, or the cut-off radius twice for the one-sided forms
  float soft;
};

ZkBandFilter band_filter(int type, int N, float apix, float a, float b, float soft) {
  ZkBandFilter f;
  f.type = type;
  f.r1 = hd_band_rl(N, apix, a, b);
  f.r2 = hd_band_rh(N, apix, a, b);
  f.soft = soft;
  return f;
}

ZkBandFilter cut_filter(int type, int N, float apix, float d) {
  ZkBandFilter f;
  f.type = type;
  f.r1 = f.r2 = hd_res2radius(N, apix, d);
  f.soft = 0.0f;
  return f;
}

// The filter kernel over the half spectrum: N/2 + 1 columns, N rows.
void apply_filter(float2* spectrum, int N, ZkBandFilter f) {
  const float rl = f.r1, rh = f.r2, soft = f.soft;
  switch (f.type) {
    case ZK_BAND_SHARP:
      launch_2d(N / 2 + 1, N, [=] HD(int kx, int ky) { cuda_c2d_bandpass_sharp(kx, ky, spectrum, N, rl, rh); });
      break;
    case ZK_BAND_SOFT:
      launch_2d(N / 2 + 1, N, [=] HD(int kx, int ky) { cuda_c2d_bandpass_softR(kx, ky, spectrum, N, rl, rh, soft); });
      break;
    case ZK_BAND_GUAS:
      launch_2d(N / 2 + 1, N, [=] HD(int kx, int ky) { cuda_c2d_bandpass_guas(kx, ky, spectrum, N, rl, rh); });
      break;
    case ZK_LOW_SHARP:
      launch_2d(N / 2 + 1, N, [=] HD(int kx, int ky) { cuda_c2d_lowpass_sharp(kx, ky, spectrum, N, rl); });
      break;
    default:
      launch_2d(N / 2 + 1, N, [=] HD(int kx, int ky) { cuda_c2d_highpass_sharp(kx, ky, spectrum, N, rl); });
      break;
  }
}

// Plain filter, N = n.  The forward transform reads in before the inverse
// writes out, so in may be out.
void filter_plain(const float* in, float* out, int n, ZkBandFilter f) {
  float2* spectrum = d_alloc_float2((size_t)(n / 2 + 1) * n);
  hcuda_2d_fft_r2c(in, spectrum, n, n);
  apply_filter(spectrum, n, f);
  hcuda_2d_fft_c2r(spectrum, out, n, n);
  device_free(spectrum);
}

// The inverse half of the mirror-padded filter: the spectrum of the 2n by 2n
// padded image is filtered (in place) and brought back to the n by n image.
void filter_mpad_spectrum(float2* spectrum, float* out, int n, ZkBandFilter f) {
  const int N = 2 * n;
  float* work = d_alloc_float((size_t)N * N);
  apply_filter(spectrum, N, f);
  hcuda_2d_fft_c2r(spectrum, work, N, N);
  hcuda_2d_mirror_pad_inv(out, work, n, n);
  device_free(work);
}

// Mirror-padded filter: 2n by 2n real work image, (n + 1) by 2n spectrum.
void filter_mpad(const float* in, float* out, int n, ZkBandFilter f) {
  float2* spectrum = d_alloc_float2((size_t)(n + 1) * 2 * n);
  hcuda_2d_mpad_fft_r2c(spectrum, in, n, n);
  filter_mpad_spectrum(spectrum, out, n, f);
  device_free(spectrum);
}

// A host image through the device and back.
template <class F>
void staged(const float* in, float* out, int n, F filter) {
  const size_t bytes = (size_t)n * n * sizeof(float);
  float* d = d_alloc_float((size_t)n * n);
  ZK_CHECK(memcpy_H2D(d, in, bytes));
  filter(d);
  ZK_CHECK(memcpy_D2H(out, d, bytes));
  device_free(d);
}

}  // namespace

void hcuda_2d_bandpass_softR_mpad(const float* in, float* out, int n, float apix, float a, float b, float soft) {
  filter_mpad(in, out, n, band_filter(ZK_BAND_SOFT, 2 * n, apix, a, b, soft));
}
void hcuda_2d_bandpass_softR_mpad_inplace(float* img, int n, float apix, float a, float b, float soft) {
  hcuda_2d_bandpass_softR_mpad(img, img, n, apix, a, b, soft);
}
void hcuda_2d_bandpass_guas_mpad(const float* in, float* out, int n, float apix, float a, float b) {
  filter_mpad(in, out, n, band_filter(ZK_BAND_GUAS, 2 * n, apix, a, b, 0.0f));
}
void hcuda_2d_bandpass_guas_mpad_inplace(float* img, int n, float apix, float a, float b) {
  hcuda_2d_bandpass_guas_mpad(img, img, n, apix, a, b);
}
void hcuda_2d_bandpass_guas_mpad_f(float2* in_f, float* out, int n, float apix, float a, float b) {
  filter_mpad_spectrum(in_f, out, n, band_filter(ZK_BAND_GUAS, 2 * n, apix, a, b, 0.0f));
}

void hcuda_2d_bandpass_softR(const float* in, float* out, int n, float apix, float a, float b, float soft) {
  filter_plain(in, out, n, band_filter(ZK_BAND_SOFT, n, apix, a, b, soft));
}
void hcuda_2d_bandpass_softR_inplace(float* img, int n, float apix, float a, float b, float soft) {
  hcuda_2d_bandpass_softR(img, img, n, apix, a, b, soft);
}
void hcuda_2d_bandpass_guas(const float* in, float* out, int n, float apix, float a, float b) {
  filter_plain(in, out, n, band_filter(ZK_BAND_GUAS, n, apix, a, b, 0.0f));
}
void hcuda_2d_bandpass_guas_inplace(float* img, int n, float apix, float a, float b) {
  hcuda_2d_bandpass_guas(img, img, n, apix, a, b);
}
void hcuda_2d_bandpass_sharp(const float* in, float* out, int n, float apix, float a, float b) {
  filter_plain(in, out, n, band_filter(ZK_BAND_SHARP, n, apix, a, b, 0.0f));
}
void hcuda_2d_bandpass_sharp_inplace(float* img, int n, float apix, float a, float b) {
  hcuda_2d_bandpass_sharp(img, img, n, apix, a, b);
}
void hcuda_2d_lowpass_sharp(const float* in, float* out, int n, float apix, float d) {
  filter_plain(in, out, n, cut_filter(ZK_LOW_SHARP, n, apix, d));
}
void hcuda_c2d_highpass_sharp(const float* in, float* out, int n, float apix, float d) {
  filter_plain(in, out, n, cut_filter(ZK_HIGH_SHARP, n, apix, d));
}

void gpu_2d_bandpass_sharp_inplace(float* img, int n, float apix, float a, float b) {
  staged(img, img, n, [=](float* d) { hcuda_2d_bandpass_sharp_inplace(d, n, apix, a, b); });
}
void gpu_2d_bandpass_softR_inplace(float* img, int n, float apix, float a, float b, float soft) {
  // A soft zone narrower than one Fourier pixel holds no element worth a curve.
  if (soft < 1.0f) {
    gpu_2d_bandpass_sharp_inplace(img, n, apix, a, b);
    return;
  }
  staged(img, img, n, [=](float* d) { hcuda_2d_bandpass_softR_inplace(d, n, apix, a, b, soft); });
}
void gpu_2d_bandpass_guas_inplace(float* img, int n, float apix, float a, float b) {
  staged(img, img, n, [=](float* d) { hcuda_2d_bandpass_guas_inplace(d, n, apix, a, b); });
}
void gpu_2d_bandpass_guas_mpad(const float* in, float* out, int n, float apix, float a, float b) {
  staged(in, out, n, [=](float* d) { hcuda_2d_bandpass_guas_mpad_inplace(d, n, apix, a, b); });
}
void gpu_2d_bandpass_guas_mpad_inplace(float* img, int n, float apix, float a, float b) {
  gpu_2d_bandpass_guas_mpad(img, img, n, apix, a, b);
}

int mrcf_2d_bandpass(const char* in_name, const char* out_name, float apix, float a, float b, float soft, int type) {
  MRC_HEAD head;
  {
    std::unique_ptr<MRC_HEAD, decltype(&free)> h(get_mrcf_head(in_name), &free);
    head = *h;
  }
  std::unique_ptr<float, decltype(&free)> samples(get_mrcf_data_all(in_name), &free);
  float* data = samples.get();
  if (head.nx != head.ny) ZK_FATAL("Can not do band-pass on rectangle data. Must be square.");
  const int n = head.nx;
  switch (type) {
    case 1: gpu_2d_bandpass_guas_inplace(data, n, apix, a, b); break;
    case 2: gpu_2d_bandpass_softR_inplace(data, n, apix, a, b, soft); break;
    case 3: gpu_2d_bandpass_sharp_inplace(data, n, apix, a, b); break;
    case 4: gpu_2d_bandpass_guas_mpad_inplace(data, n, apix, a, b); break;
    default: break;
  }
  // The samples are floats now, and no extended head is carried over.
  mrc_set_head_mode(&head, MRC_MODE_FLOAT);
  head.next = 0;
  mrcf_write_head_data(out_name, &head, data);
  return 0;
}
