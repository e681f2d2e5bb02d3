// Per-particle CTF refinement from the boxes around each particle.
#include "ctf/ctf_local.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/report.h"
#include "core/str_utils.h"
#include "ctf/ctf_epa.h"
#include "ctf/ctf_refine3.h"
#include "ctf/ctf_sim.h"
#include "ctf/ctf_spectrum.h"
#include "ctf/kesmar.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/hd_math.h"
#include "device/launch.h"
#include "device/math_utils.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "formats/safe_output.h"
#include "formats/starfile.h"

namespace {

// exp(-(d^2/(2 R^2)) (s^2 res^2/2)) at frequency s.
HDI float local_weight(float d, float R, float s, float res) {
  return hd_expf(-(d * d / (2.0f * R * R)) * (s * s * res * res / 2.0f));
}

HDI float half_s(int x, int y, int nxh, int ny, float apix) {
  const int Y = y - ny / 2;
  return sqrtf((float)(x * x + Y * Y)) / (2.0f * (float)(nxh - 1) * apix);
}

}  // namespace

void hcuda_2ds_fft_amp_local_w1d_gen(float* d_w, int n, const float* d_dist, float R) {
  if (n <= 0) return;
  launch_1d((size_t)n, [=] HD(unsigned int i) { d_w[i] = hd_expf(-d_dist[i] * d_dist[i] / (2.0f * R * R)); });
}

void hcuda_2d_fft_amp_local_w2d_gen(float* d_w, int nx, int ny, float d, float R, float apix, float res) {
  const int nxh = nx / 2 + 1;
  launch_2d(nxh, ny,
            [=] HD(int x, int y) { d_w[(size_t)y * nxh + x] = local_weight(d, R, half_s(x, y, nxh, ny, apix), res); });
}

void cpu_2d_fft_amp_local_w2d_gen(float* h_w, int nx, int ny, float d, float R, float apix, float res) {
  const int nxh = nx / 2 + 1;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nxh; ++x) h_w[(size_t)y * nxh + x] = local_weight(d, R, half_s(x, y, nxh, ny, apix), res);
}

void hcuda_2ds_fft_amp_local_w2ds_gen(float* d_w, int nx, int ny, int n, const float* d_dist, float R, float apix,
                                      float res) {
  const int nxh = nx / 2 + 1;
  const size_t plane = (size_t)nxh * ny;
  launch_2d(nxh, ny, [=] HD(int x, int y) {
    const float s = half_s(x, y, nxh, ny, apix);
    for (int i = 0; i < n; ++i) d_w[(size_t)i * plane + (size_t)y * nxh + x] = local_weight(d_dist[i], R, s, res);
  });
}

void cpu_2d_fft_amp_local_w1d_gen(float* h_w, int n, float d, float R, float apix, float res) {
  for (int i = 0; i < n; ++i) h_w[i] = local_weight(d, R, (float)i / (2.0f * (float)(n - 1) * apix), res);
}

int hcuda_2d_read_ptcls_to_2ds_from_boxes(float* d_out, const float* d_image, int nx, int ny, const PTCL_BOX* boxes,
                                          int n, int box) {
  std::vector<int2> corners;
  for (int i = 0; i < n; ++i) {
    const long long x = boxes[i].x, y = boxes[i].y;
    if (x >= 0 && y >= 0 && x + box <= nx && y + box <= ny) corners.push_back(int2{(int)x, (int)y});
  }
  const int m = (int)corners.size();
  if (m == 0) return 0;
  ZkDeviceArray<int2> d_corners((size_t)m);
  ZK_CHECK(memcpy_H2D(d_corners.get(), corners.data(), (size_t)m * sizeof(int2)));
  const int2* c = d_corners.get();
  // One thread per pixel, the boxes along the third axis: seen as one image
  // of box*m rows, a disc of some thousand boxes would pass the GPU's limit
  // of 65535 blocks on the second axis of the grid.
  launch_3d(box, box, m, [=] HD(int x, int y, int k) {
    d_out[((size_t)k * box + y) * box + x] = d_image[(size_t)(c[k].y + y) * nx + (c[k].x + x)];
  });
  return m;
}

void hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                                  unsigned int n, const float* d_w, int mode, int convsize) {
  const size_t nhalf = (size_t)(nx / 2 + 1) * ny, plane = (size_t)nx * ny;
  if (mode == 2) {
    hcuda_empty_float(d_amp, nhalf);
    ZkDeviceArray<float> amp(nhalf), wsum(nhalf);
    ZkDeviceArray<float2> spectrum(nhalf);
    hcuda_empty_float(wsum.get(), nhalf);
    const ZkFftPlan p = zk_fft_plan_r2c((int)nx, (int)ny, 1);
    struct Destroy {
      ZkFftPlan p;
      ~Destroy() { zk_fft_plan_destroy(p); }
    } destroy{p};
    float *a = amp.get(), *ws = wsum.get(), *out = d_amp;
    for (unsigned int k = 0; k < n; ++k) {
      zk_fft_exec_r2c(p, d_stack + k * plane, spectrum.get());
      hcuda_empty_float(a, nhalf);
      hcuda_complex_mod_addto_center_swap(a, spectrum.get(), nhalf);
      const float* w = d_w + k * nhalf;
      launch_1d(nhalf, [=] HD(unsigned int i) {
        out[i] += w[i] * a[i];
        ws[i] += w[i];
      });
    }
    launch_1d(nhalf, [=] HD(unsigned int i) {
      if (ws[i] > 0.0f) out[i] /= ws[i];
    });
  } else {
    hcuda_2ds_fft_r2c_amp_weighted_ave(d_stack, d_amp, nx, ny, n, d_w);
  }
  hcuda_2d_fft_amp_log_subbg_inplace(d_amp, nx, ny, convsize);
}

namespace {

[[noreturn]] void refuse_boxtype(int boxtype) {
  if (boxtype == 2) ZK_FATAL("LOCAL_REFINE_GIVENBOX unsupported in the current version");
  if (boxtype == 3) ZK_FATAL("LOCAL_REFINE_AUTOGRID unsupported in the current version");
  ZK_FATAL("unrecognized local_boxtype");
}

void skip_warning(const char* func, int line, const char* what, const char* box_name) {
  printf(
      "\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the box file %s %s! Local refinement "
      "automatically ignored! Maybe you want to check the option '--boxsuffix' as well. \x1b[m\n\n",
      func, zk_basename(__FILE__), line, box_name, what);
  fflush(stdout);
}

// The picture of one particle: the model on the left, the local spectrum (or
// its equiphase average) on the right, normalised as the micrograph's .ctf.
void local_picture(std::vector<float>& out, std::vector<float>& sim, std::vector<float>& raw, const float* d_model,
                   const float* d_spec, int box, float apix, float kV, float Cs, float ac, float ps, float U, float V,
                   float A, float resL, float resH, int use_EPA) {
  const int nxh = box / 2 + 1;
  const size_t nhalf = (size_t)nxh * box;
  ZK_CHECK(memcpy_D2H(sim.data(), d_model, nhalf * sizeof(float)));
  if (use_EPA) {
    ZkDeviceArray<float> epa(nhalf);
    hcuda_2d_half_EPA(d_spec, epa.get(), apix, nxh, box, ps, kV, Cs, ac, U, V, A, resL, resH);
    ZK_CHECK(memcpy_D2H(raw.data(), epa.get(), nhalf * sizeof(float)));
  } else {
    ZK_CHECK(memcpy_D2H(raw.data(), d_spec, nhalf * sizeof(float)));
  }
  hm_normz_inplace(sim.data(), nhalf, sqrtf(apix / resH),
                   (float)(2.0 * sqrt((double)resH * ZK_CTF_PI / (4.0 * (double)apix)) / ZK_CTF_PI));
  hm_normz_inplace(raw.data(), nhalf, 1.0f, 0.6366197466850281f);
  host_2d_half_sim_raw_combine(out.data(), sim.data(), raw.data(), box, box);
}

}  // namespace

int ctf_local_refine(const char* mic_name, const char* boxsuffix, const float* h_image, int nx, int ny, int nz,
                     float radius, int boxsize, float overlap, int write_local_ctf, int boxtype, int use_EPA,
                     int refine_astm, float dstep, float apix, float kV, float Cs, float ac, float ps, float U, float V,
                     float A, float ccc, float err, float B, float resL, float resH, int avetype, FILE* log,
                     std::vector<CTF_LOCAL_RESULT>* results) {
  (void)nz;
  char box_name[ZK_TXT_LEN];
  set_outname_by_suffix(box_name, mic_name, boxsuffix);
  // A skipped micrograph has been reported by name; callers of this form go
  // on with the next one either way.
  ctf_local_refine_boxf(mic_name, box_name, h_image, nx, ny, radius, boxsize, overlap, write_local_ctf, boxtype, use_EPA,
                        refine_astm, dstep, apix, kV, Cs, ac, ps, U, V, A, ccc, err, B, resL, resH, avetype, log,
                        results);
  return 0;
}

int ctf_local_refine_boxf(const char* mic_name, const char* box_name, const float* h_image, int nx, int ny,
                          float radius, int boxsize, float overlap, int write_local_ctf, int boxtype, int use_EPA,
                          int refine_astm, float dstep, float apix, float kV, float Cs, float ac, float ps, float U,
                          float V, float A, float ccc, float err, float B, float resL, float resH, int avetype,
                          FILE* log, std::vector<CTF_LOCAL_RESULT>* results) {
  if (boxtype != 1) refuse_boxtype(boxtype);
  if (results) results->clear();
  if (access(box_name, F_OK) != 0) {
    skip_warning(__func__, __LINE__, "does NOT exsit", box_name);
    return -1;
  }
  if (access(box_name, R_OK) != 0) {
    skip_warning(__func__, __LINE__, "are NOT readable", box_name);
    return -1;
  }
  std::vector<PTCL_BOX> list((size_t)CTF_LOCAL_MAX_BOXES);
  const int n_ptcl = read_all_ptcl_boxes(list.data(), CTF_LOCAL_MAX_BOXES, box_name);
  if (n_ptcl == CTF_LOCAL_MAX_BOXES)
    printf("Note: only the first %d particles of %s are refined.\n", CTF_LOCAL_MAX_BOXES, box_name);
  if (n_ptcl == 0) {
    skip_warning(__func__, __LINE__, "holds no particles", box_name);
    return -1;
  }
  for (int i = 0; i < n_ptcl; ++i) {
    const long long cx = ptcl_centre_x(list[i]), cy = ptcl_centre_y(list[i]);
    if (cx < 0 || cy < 0 || cx >= nx || cy >= ny) {
      skip_warning(__func__, __LINE__,
                   zk_format("has a particle at (%lld, %lld), outside the %d x %d micrograph", cx, cy, nx, ny).c_str(),
                   box_name);
      return -1;
    }
  }
  if (boxsize < 16 || boxsize > nx || boxsize > ny)
    ZK_FATAL(zk_format("local box size %d does not fit the %d x %d micrograph", boxsize, nx, ny).c_str());
  if (avetype < 0 || avetype > 2) {
    ZK_WARNING("Unknown local CTF average type! Will use equally average instead");
    avetype = 0;
  }

  const int box = boxsize, nxh = box / 2 + 1, convsize = box / 12 > 0 ? box / 12 : 1;
  const size_t nhalf = (size_t)nxh * box;
  int step = (int)((1.0 - (double)overlap) * (double)box);
  if (step < 1) step = 1;
  std::vector<PTCL_BOX> disc((size_t)CTF_LOCAL_MAX_BOXES);
  const int max_disc =
      auto_generate_neighbor_boxes(disc.data(), CTF_LOCAL_MAX_BOXES, one_new_ptcl_box(), radius, box, step);
  const int m = max_disc > 0 ? max_disc : 1;

  // Outputs, each renamed into place only when every particle is written.
  char star_name[ZK_TXT_LEN], lctf_name[ZK_TXT_LEN];
  set_outname_by_suffix(star_name, mic_name, "_local.star");
  set_outname_by_suffix(lctf_name, mic_name, "_local.ctf");
  ZkOutFile star_out, lctf_out;
  FILE* star = zk_out_open(star_out, star_name);
  printf("Writing out star file %s for local refinement\n", star_name);
  particle_star_write_head(star);
  FILE* lctf = write_local_ctf ? zk_out_open(lctf_out, lctf_name) : nullptr;

  printf("Using box file %s for local refinement\n", box_name);
  ctf_say(log, "Total particle number for local refinement: %d\n", n_ptcl);
  ctf_say(log, "\n       X       Y       Defocus_U   Defocus_V       Angle         CCC\n");

  ZkDeviceArray<float> d_image((size_t)nx * ny), d_stack((size_t)m * box * box), d_amp(nhalf), d_tmp(nhalf),
      d_dist((size_t)m), d_w(avetype == 2 ? (size_t)m * nhalf : (size_t)m);
  ZK_CHECK(memcpy_H2D(d_image.get(), h_image, (size_t)nx * ny * sizeof(float)));
  std::vector<float> h_sim(nhalf), h_raw(nhalf), h_out((size_t)box * box), dist((size_t)m);
  std::vector<PTCL_BOX> inside((size_t)m);
  const float mag = (float)((double)dstep * 10000.0 / (double)apix);

  for (int ip = 0; ip < n_ptcl; ++ip) {
    const PTCL_BOX& p = list[(size_t)ip];
    const int cx = (int)ptcl_centre_x(p), cy = (int)ptcl_centre_y(p);
    // The disc is centred on the particle, or, for a particle nearer an edge
    // than half a box, on the nearest point whose own box lies inside; a box
    // counts only with its mirror through that centre, so that the disc stays
    // symmetric and a defocus gradient (a tilted specimen) averages out.
    const long long ccx = std::min(std::max((long long)cx, (long long)box / 2), (long long)(nx - box + box / 2));
    const long long ccy = std::min(std::max((long long)cy, (long long)box / 2), (long long)(ny - box + box / 2));
    PTCL_BOX centre = one_new_ptcl_box();
    centre.x = (int)ccx;
    centre.y = (int)ccy;
    const int nd = auto_generate_neighbor_boxes(disc.data(), m, centre, radius, box, step);
    auto fits = [&](long long x, long long y) { return x >= 0 && y >= 0 && x + box <= nx && y + box <= ny; };
    int n = 0;
    for (int k = 0; k < nd; ++k) {
      const PTCL_BOX& b = disc[(size_t)k];
      const long long mx = 2 * ccx - ((long long)b.x + box / 2) - box / 2;
      const long long my = 2 * ccy - ((long long)b.y + box / 2) - box / 2;
      if (!fits(b.x, b.y) || !fits(mx, my)) continue;
      inside[(size_t)n] = b;
      dist[(size_t)n] = b.dist;
      ++n;
    }
    n = hcuda_2d_read_ptcls_to_2ds_from_boxes(d_stack.get(), d_image.get(), nx, ny, inside.data(), n, box);
    float lU = U, lV = V, lA = A, lc = ccc;
    if (n == 0) {
      ctf_say(log, "%8d%8d%12.2f%12.2f%12.2f%12.6f  Local Values0\n", cx, cy, U, V, A, ccc);
      hcuda_ctf_mod_simulate_2d_half(d_tmp.get(), apix, nxh, box, kV, Cs, ac, ps, U, V, A, B, resL, resH);
      hcuda_empty_float(d_amp.get(), nhalf);
    } else {
      ZK_CHECK(memcpy_H2D(d_dist.get(), dist.data(), (size_t)n * sizeof(float)));
      if (avetype == 0) {
        hcuda_2ds_fft_r2c_amp_ave_log_subbg(d_stack.get(), d_amp.get(), box, box, n, convsize);
      } else if (avetype == 1) {
        hcuda_2ds_fft_amp_local_w1d_gen(d_w.get(), n, d_dist.get(), radius);
        hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack.get(), d_amp.get(), box, box, n, d_w.get(), 1, convsize);
      } else {
        hcuda_2ds_fft_amp_local_w2ds_gen(d_w.get(), box, box, n, d_dist.get(), radius, apix, resH);
        hcuda_2ds_fft_r2c_amp_weighted_ave_log_subbg(d_stack.get(), d_amp.get(), box, box, n, d_w.get(), 2, convsize);
      }
      if (refine_astm == 0)
        hcuda_ctfrefine_half2d_only_defave(d_amp.get(), d_tmp.get(), lU, lV, lc, apix, box, box, kV, Cs, ac, ps, U, V,
                                           A, err / 3.0f, B, resL, resH, log);
      else
        hcuda_ctfrefine_half2d_local(d_amp.get(), d_tmp.get(), lU, lV, lA, lc, apix, box, box, kV, Cs, ac, ps, U, V, A,
                                     err / 3.0f, 1.0f, B, resL, resH, log);
      ctf_say(log, "%8d%8d%12.2f%12.2f%12.2f%12.6f  Local Values\n", cx, cy, lU, lV, lA, lc);
    }
    particle_star_write_oneline(star, mic_name, cx, cy, lU, lV, lA, kV, Cs, ac, mag, dstep, lc, p.cc, ps);
    if (results) results->push_back(CTF_LOCAL_RESULT{cx, cy, n, lU, lV, lA, lc});
    if (lctf) {
      local_picture(h_out, h_sim, h_raw, d_tmp.get(), d_amp.get(), box, apix, kV, Cs, ac, ps, lU, lV, lA, resL, resH,
                    use_EPA);
      if (ip == 0) {
        MRC_HEAD head;
        mrc_init_head(&head);
        mrc_set_head_xyz_mode(&head, box, box, n_ptcl, MRC_MODE_FLOAT);
        mrc_set_head_mmm_from_data(&head, h_out.data(), (uint32_t)h_out.size());
        mrc_write_head(lctf, &head);
      }
      if (fwrite(h_out.data(), sizeof(float), h_out.size(), lctf) != h_out.size())
        ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", lctf_name),
                       "open file failed.");
    }
  }
  zk_out_commit(star_out);
  if (lctf) zk_out_commit(lctf_out);
  return 0;
}
