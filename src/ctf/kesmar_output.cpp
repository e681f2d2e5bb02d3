// The outputs of a micrograph: the .ctf picture (and .epa), the line of the
// summary STAR file, and the head of the log.
#include <cmath>
#include <string>

#include "core/str_utils.h"
#include "ctf/ctf_sim.h"
#include "ctf/kesmar.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

void log_ctfstar_head(FILE* fp) {
  fprintf(fp, "\ndata_\n");
  fprintf(fp, "\nloop_\n");
  fprintf(fp, "_rlnMicrographName #1\n");
  fprintf(fp, "_rlnCtfImage #2\n");
  fprintf(fp, "_rlnDefocusU #3\n");
  fprintf(fp, "_rlnDefocusV #4\n");
  fprintf(fp, "_rlnDefocusAngle #5\n");
  fprintf(fp, "_rlnVoltage #6\n");
  fprintf(fp, "_rlnSphericalAberration #7\n");
  fprintf(fp, "_rlnAmplitudeContrast #8\n");
  fprintf(fp, "_rlnMagnification #9\n");
  fprintf(fp, "_rlnDetectorPixelSize #10\n");
  fprintf(fp, "_rlnCtfFigureOfMerit #11\n");
}
void log_ctfstar_ex_head(FILE* fp) {
  log_ctfstar_head(fp);
  fprintf(fp, "_rlnFinalResolution #12\n");
}
void log_ctfstar_ex_head_phase_shift(FILE* fp) {
  log_ctfstar_head(fp);
  fprintf(fp, "_rlnCtfMaxResolution #12\n");
  fprintf(fp, "_rlnPhaseShift #13\n");
}

void log_ctfstar_ex_oneline(FILE* fp, const char* mic, const char* ctf, float U, float V, float A, float kV, float Cs,
                            float ac, float mag, float dstep, float ccc, float res) {
  fprintf(fp, "%s %s:mrc %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f\n", mic, ctf, U, V, A,
          kV, Cs, ac, mag, dstep, ccc, res);
}
void log_ctfstar_ex_oneline_phase_shift(FILE* fp, const char* mic, const char* ctf, float U, float V, float A, float ps,
                                        float kV, float Cs, float ac, float mag, float dstep, float ccc, float res) {
  fprintf(fp, "%s %s:mrc %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f\n", mic, ctf, U,
          V, A, kV, Cs, ac, mag, dstep, ccc, res, ps);
}

void host_2d_half_sim_raw_combine(float* out, const float* sim, const float* raw, int nx, int ny) {
  const int h = nx / 2 + 1;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      float v;
      if (x < nx / 2 - 1)
        v = sim[(size_t)((ny - y) % ny) * h + (nx / 2 - 1 - x)];
      else
        v = raw[(size_t)y * h + (x - nx / 2 + 1)];
      out[(size_t)y * nx + x] = v;
    }
  out[(size_t)(ny / 2) * nx + nx / 2] = 0.0f;
}

void host_2d_half_sim_raw_combine2(float* out, const float* sim, const float* raw, int nx, int ny) {
  const int h = nx / 2 + 1;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      float v;
      if (x < nx / 2 - 1)
        v = y >= ny / 2 ? raw[(size_t)((ny - y) % ny) * h + (nx / 2 - 1 - x)]
                        : sim[(size_t)((ny - y) % ny) * h + (nx / 2 - 1 - x)];
      else
        v = raw[(size_t)y * h + (x - nx / 2 + 1)];
      out[(size_t)y * nx + x] = v;
    }
}

void KESMAR_A::kesmar_write_ctfout(char c) {
  (void)c;
  const KESMAR_Para& p = *para;
  hcuda_ctf_modsquare_simulate_2d_half(d_tmp.get(), p.apix, nxh, ny, ref_ps, p.kV, p.cs, p.ac, ref_defU, ref_defV,
                                       ref_defA, p.ctfout_bfac, p.ctfout_resL, p.ctfout_resH);
  ZK_CHECK(memcpy_D2H(h_sim_half.data(), d_tmp.get(), (size_t)nhalf * sizeof(float)));
  const float sigma = sqrtf(p.apix / p.resH);
  const float mean = (float)(2.0 * sqrt((double)p.resH * ZK_CTF_PI / (4.0 * (double)p.apix)) / ZK_CTF_PI);
  hm_normz_inplace(h_sim_half.data(), (size_t)nhalf, sigma, mean);
  cpu_2dh_zero_low_frequency_inplace(h_sub_half.data(), nxh, ny, p.apix, p.ctfout_resL);
  hm_normz_inplace(h_sub_half.data(), (size_t)nhalf, 1.0f, 0.6366197466850281f);
  host_2d_half_sim_raw_combine(h_out.data(), h_sim_half.data(), h_sub_half.data(), nx, ny);
  mrcf_write_xyz_data(ctf_name, h_out.data(), nx, ny, 1);
  if (p.do_EPA) {
    kesmar_do_epa_2d();
    hm_normz_inplace(h_epa_half.data(), (size_t)nhalf, 1.0f, 0.6366197466850281f);
    host_2d_half_sim_raw_combine(h_out.data(), h_sim_half.data(), h_epa_half.data(), nx, ny);
    mrcf_write_xyz_data(epa_name, h_out.data(), nx, ny, 1);
  }
}

void KESMAR_A::kesmar_write_star_oneline() {
  const KESMAR_Para& p = *para;
  if (is_str_null(p.ctfstar) || (!star_fp && zk_par_size() == 1)) return;
  const float mag = (float)((double)p.dstep * 10000.0 / (double)p.apix);
  // One whole line per micrograph, on disk before the next begins.
  char* text = nullptr;
  size_t len = 0;
  FILE* mem = open_memstream(&text, &len);
  if (!mem) ZK_FATAL("memory allocation failed");
  if (p.do_phase_shift)
    log_ctfstar_ex_oneline_phase_shift(mem, mic_name, ctf_name, ref_defU, ref_defV, ref_defA, ref_ps, p.kV, p.cs, p.ac,
                                       mag, p.dstep, ref_ccc, res_limit);
  else
    log_ctfstar_ex_oneline(mem, mic_name, ctf_name, ref_defU, ref_defV, ref_defA, p.kV, p.cs, p.ac, mag, p.dstep,
                           ref_ccc, res_limit);
  fclose(mem);
  const std::string line(text, len);
  free(text);
  if (zk_par_size() > 1) {
    // Rank 0 writes the lines of all ranks in list order at the end.
    star_lines.push_back({imic, line});
    if (!star_part) {
      star_part_name = zk_format("%s.rank%d", p.ctfstar, zk_par_rank());
      star_part.reset(ZK_FOPEN_WRITE(star_part_name.c_str(), "w"));
    }
    if (fwrite(line.data(), 1, line.size(), star_part.get()) != line.size() || fflush(star_part.get()) != 0)
      ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n",
                               star_part_name.c_str()),
                     "open file failed.");
    return;
  }
  if (fwrite(line.data(), 1, line.size(), star_fp) != line.size() || fflush(star_fp) != 0 || ferror(star_fp))
    ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", p.ctfstar),
                   "open file failed.");
}

void KESMAR_A::kesmar_fput_parameters_ctffind3() {
  const KESMAR_Para& p = *para;
  kesmar_fput_parameters();
  fprintf(log_fp,
          "********************************  parameter format for RELION: "
          "*********************************************\n\n");
  fprintf(log_fp, " CS[mm], HT[kV], AmpCnst, XMAG, DStep[um]\n");
  fprintf(log_fp, "  %.1f    %.1f    %.2f  %.1f   %.3f\n\n", p.cs, p.kV, p.ac, 10000.0f * p.dstep / p.apix, p.dstep);
  fprintf(log_fp, " Positive defocus values for underfocus\n");
  fprintf(log_fp, " Box, ResMin[A], ResMax[A], dFMin[A], dFMax[A], FStep[A], dAst[A]\n");
  fprintf(log_fp, " %d       %.1f        %.1f   10000.0   70000.0  500.0    0.0\n", p.boxsize, p.resL, p.resH);
  fprintf(log_fp,
          "********************************* end of parameter format for RELION: "
          "*************************************\n\n");
}
