// The spectrum of one micrograph against which every trial is scored: d_sub,
// the log of the summed box amplitudes less its smooth background.
#include <cstring>

#include "core/txt_file.h"
#include "ctf/ctf_spectrum.h"
#include "ctf/kesmar.h"
#include "device/cuda_fft.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {
constexpr int KESMAR_POW_CREATID = 9986;
}

int KESMAR_A::kesmar_generate_ctf_d_data() {
  KESMAR_Para& p = *para;
  if (p.reload_ctf_files && check_file_access(ctf_name, "FR") == 0 && check_file_access(pow_name, "FR") == 0) {
    printf("pre-loading CTF files %s \n", ctf_name);
    if (mrcf_read_slice_check_xy_cid(pow_name, 0, 'z', h_sub_full.data(), nx, ny, KESMAR_POW_CREATID) == 0) {
      kesmar_reload_pre_ctf_files();
      return 0;
    }
    // A .pow file of another size or origin is not used: the spectrum is
    // made anew from the micrograph.
    printf("The file %s does not hold a spectrum of this run; computing it from %s.\n", pow_name, mic_name);
  }
  if (kesmar_generate_ctf_d_data_from_mrc() != 0) return -1;
  if (p.smooth_resL_given) hcuda_2dh_smooth_low_frequency_inplace(d_sub.get(), nxh, ny, p.apix, p.smooth_resL);
  hcuda_2d_fft_amp_half2full(d_raw_full.get(), d_raw.get(), nx, ny);
  hcuda_2d_fft_amp_half2full(d_bg_full.get(), d_bg.get(), nx, ny);
  hcuda_2d_fft_amp_half2full(d_sub_full.get(), d_sub.get(), nx, ny);
  const size_t hb = (size_t)nhalf * sizeof(float), fb = (size_t)nfull * sizeof(float);
  ZK_CHECK(memcpy_D2H(h_raw_half.data(), d_raw.get(), hb));
  ZK_CHECK(memcpy_D2H(h_bg_half.data(), d_bg.get(), hb));
  ZK_CHECK(memcpy_D2H(h_sub_half.data(), d_sub.get(), hb));
  ZK_CHECK(memcpy_D2H(h_raw_full.data(), d_raw_full.get(), fb));
  ZK_CHECK(memcpy_D2H(h_bg_full.data(), d_bg_full.get(), fb));
  ZK_CHECK(memcpy_D2H(h_sub_full.data(), d_sub_full.get(), fb));
  h_sub_half[(size_t)nxh * (ny / 2)] = 0.0f;
  kesmar_write_powf();
  return 0;
}

int KESMAR_A::kesmar_generate_ctf_d_data_from_mrc() {
  KESMAR_Para& p = *para;
  const double t0 = kesmar_wall_seconds();
  hcuda_empty_float(d_sub.get(), (size_t)nhalf);
  const int nz = head.nz;
  const unsigned int inx = (unsigned int)head.nx, iny = (unsigned int)head.ny, box = (unsigned int)p.boxsize;
  if (nz < 1) {
    ZK_WARNING("Invalid frame number!");
    return -1;
  }
  if (nz == 1) {
    puts(".");
    ZK_CHECK(memcpy_H2D(d_image.get(), h_stack.data(), (size_t)nimage * sizeof(float)));
    hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_image.get(), d_raw.get(), d_bg.get(), d_sub.get(), inx, iny, box, box,
                                            p.step, p.convsize);
    kesmar_print_time("FFT", t0);
    return 0;
  }
  // A movie: the frames averaged as images (type 0) or their amplitudes
  // summed (types 1 and 2).  The amplitude sum and its logarithm go to d_raw
  // and d_bg as for a single image, so that the .pow file holds this movie's
  // spectrum.
  if (p.mdef_ave_type == 0) {
    hcuda_empty_float(d_image.get(), (size_t)nimage);
    for (int k = 0; k < nz; ++k) {
      printf(".");
      fflush(stdout);
      ZK_CHECK(memcpy_H2D(d_frame.get(), h_stack.data() + (size_t)k * nimage, (size_t)nimage * sizeof(float)));
      hcuda_addto_float(d_image.get(), d_frame.get(), (size_t)nimage);
    }
    hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_image.get(), d_raw.get(), d_bg.get(), d_sub.get(), inx, iny, box, box,
                                            p.step, p.convsize);
  } else if (p.mdef_ave_type == 1 || p.mdef_ave_type == 2) {
    for (int k = 0; k < nz; ++k) {
      printf(".");
      fflush(stdout);
      ZK_CHECK(memcpy_H2D(d_frame.get(), h_stack.data() + (size_t)k * nimage, (size_t)nimage * sizeof(float)));
      hcuda_2d_gridfft_r2c_amp_ave(d_frame.get(), d_frame_amp.get(), inx, iny, box, box, p.step, p.convsize);
      hcuda_addto_float(d_sub.get(), d_frame_amp.get(), (size_t)nhalf);
    }
    ZK_CHECK(memcpy_D2D(d_raw.get(), d_sub.get(), (size_t)nhalf * sizeof(float)));
    hcuda_2d_logf(d_bg.get(), d_raw.get(), nxh, ny);
    hcuda_2d_fft_amp_log_subbg_inplace(d_sub.get(), box, box, p.convsize);
  }
  printf("\n");
  kesmar_print_time("FFT", t0);
  return 0;
}

// The .pow file holds the log spectrum before the background was removed
// (h_bg_full); it is loaded as that and the background is removed again, so
// that the reloaded run scores against the very spectrum of the first run.
void KESMAR_A::kesmar_reload_pre_ctf_files() {
  KESMAR_Para& p = *para;
  ZK_CHECK(memcpy_H2D(d_bg_full.get(), h_sub_full.data(), (size_t)nfull * sizeof(float)));
  hcuda_2d_fft_amp_full2half(d_bg.get(), d_bg_full.get(), nx, ny);
  hcuda_2d_fft_amp_subbg(d_sub.get(), d_bg.get(), nx, ny, p.convsize);
  if (p.smooth_resL_given) hcuda_2dh_smooth_low_frequency_inplace(d_sub.get(), nxh, ny, p.apix, p.smooth_resL);
  hcuda_2d_fft_amp_half2full(d_sub_full.get(), d_sub.get(), nx, ny);
  ZK_CHECK(memcpy_D2H(h_sub_half.data(), d_sub.get(), (size_t)nhalf * sizeof(float)));
  ZK_CHECK(memcpy_D2H(h_sub_full.data(), d_sub_full.get(), (size_t)nfull * sizeof(float)));
  h_sub_half[(size_t)nxh * (ny / 2)] = 0.0f;
}

void KESMAR_A::kesmar_write_powf() {
  MRC_HEAD h;
  mrc_init_head(&h);
  mrc_set_head_xyz_mode(&h, nx, ny, 1, MRC_MODE_FLOAT);
  mrc_set_head_mmm_from_data(&h, h_bg_full.data(), (uint32_t)nfull);
  h.creatid = KESMAR_POW_CREATID;
  mrcf_write_head_data(pow_name, &h, h_bg_full.data());
}
