#include "ctf/ctf_core.h"

#include <cmath>

int check_ctf_warning(FILE* log, CTF_STS* sts, float a, float b, float c) {
  (void)log;
  (void)sts;
  (void)a;
  (void)b;
  (void)c;
  return 0;
}

void print_rp(const CTF_2DR_Para& rp, FILE* out) {
  fprintf(out,
          "UV_ave_1=%f, UV_ave_2=%f, UV_ave_2r=%f, UV_ave_2re=%f\nUV_dif_1=%f, UV_dif_2=%f, UV_dif_2r=%f, "
          "UV_dif_2re=%f;\nA_1=%f,      A_2=%f,      A_2r=%f,      A_2re=%f;\nps_1=%f,     ps_2=%f,     ps_2r=%f,     "
          "ps_2re=%f;\nfloat ccc_1=%f,    ccc_2=%f,    ccc_2r=%f,    ccc_2re=%f;\nU_refined=%f, V_refined=%f\n",
          rp.UV_ave_1, rp.UV_ave_2, rp.UV_ave_2r, rp.UV_ave_2re, rp.UV_dif_1, rp.UV_dif_2, rp.UV_dif_2r, rp.UV_dif_2re,
          rp.A_1, rp.A_2, rp.A_2r, rp.A_2re, rp.ps_1, rp.ps_2, rp.ps_2r, rp.ps_2re, rp.ccc_1, rp.ccc_2, rp.ccc_2r,
          rp.ccc_2re, rp.U_refined, rp.V_refined);
}

CTF_INFO ctf2d_default() { return CTF_INFO(300.0f, 2.7f, 0.1f, 0.0f, 20000.0f, 20000.0f, 0.0f, 150.0f); }
void ctf2d_init(CTF_INFO& ctf) { ctf = ctf2d_default(); }

CTF_INIT ctf2d_to_ctfinit(const CTF_INFO& c) {
  CTF_INIT o;
  o.valid = (c.defU == 0.0f || c.defV == 0.0f) ? 0 : 1;
  o.kV = c.kV;
  o.Cs = c.Cs;
  o.ac = c.ac;
  o.ps = c.ps;
  o.defU = c.defU;
  o.defV = c.defV;
  o.defA = c.defA;
  o.B = c.B;
  return o;
}

float gamma_theta_to_s(float gamma, float theta, const CTF_INFO& c) {
  const float lambda = hd_kV_to_lambda(c.kV);
  const float Cz = hd_ctf_Cz(hd_ctfinfo_to_Ztheta(theta, c), lambda);
  if (c.Cs <= 0.01f) return sqrtf(gamma / Cz);
  const float Ccs = hd_ctf_Ccs(c.Cs, lambda);
  return sqrtf((Cz - sqrtf(Cz * Cz - 4.0f * Ccs * gamma)) / (2.0f * Ccs));
}
float phase_theta_to_s(float phase, float theta, const CTF_INFO& c) {
  const float gamma = (float)((double)phase - hd_asin((double)c.ac) - (double)c.ps * ZK_CTF_PI / 180.0);
  return gamma_theta_to_s(gamma, theta, c);
}
float gamma_theta_to_s0(float gamma, const CTF_INFO& c) { return gamma_theta_to_s(gamma, 0.0f, c); }
float phase_theta_to_s0(float phase, const CTF_INFO& c) { return phase_theta_to_s(phase, 0.0f, c); }
float get_first_zero_s(const CTF_INFO& c) { return phase_theta_to_s(ZK_CTF_PI_F, 0.0f, c); }

ZkCtfTrial zk_ctf_trial(float kV, float Cs, float ac, float ps, float U, float V, float A, float B, float resL,
                        float resH) {
  ZkCtfTrial t;
  t.lambda = hd_kV_to_lambda(kV);
  t.Ccs = hd_ctf_Ccs(Cs, t.lambda);
  t.w = sqrtf(1.0f - ac * ac);
  t.ac = ac;
  t.ps_rad = (double)ps * ZK_CTF_PI / 180.0;
  t.zmean = (U + V) / 2.0f;
  t.zdif = (U - V) / 2.0f;
  hd_sincosf((float)(2.0 * (double)A * ZK_CTF_PI / 180.0), &t.s2A, &t.c2A);
  t.B = B;
  t.sL = 1.0f / resL;
  t.sH = 1.0f / resH;
  return t;
}
