// The CTF model: the records that describe a contrast transfer function, the
// formulae that evaluate it at a spatial frequency, their inverses, and the
// normal forms of angle and phase shift.  Every function here is HD, so the
// host code and every kernel evaluate the same expressions.
//
// Units: apix in A/pixel, kV in kilovolt, Cs in mm, ac a fraction, phase shift
// and astigmatism angle in degrees, defocus in A, B-factor in A^2, spatial
// frequency s in 1/A, resolutions in A; theta and every phase in radians.
// A resolution band is a pair resL >= resH, tested as 1/resL <= s <= 1/resH.
#pragma once
#include <cmath>
#include <cstdio>

#include "core/hd.h"
#include "device/hd_math.h"
#include "device/math_utils.h"

constexpr double ZK_CTF_PI = 3.14159265358979323846;
constexpr float ZK_CTF_PI_F = 3.14159265f;

struct CTF_INFO {
  float kV, Cs, ac, ps, defU, defV, defA, B;
  CTF_INFO() = default;
  HD CTF_INFO(float kv, float cs, float a, float p, float u, float v, float angle, float b)
      : kV(kv), Cs(cs), ac(a), ps(p), defU(u), defV(v), defA(angle), B(b) {}
};

struct DEFOCUS {
  float defU, defV, defA;
  DEFOCUS() = default;
  HD DEFOCUS(float u, float v, float a) : defU(u), defV(v), defA(a) {}
};

// resL the low-resolution end (the larger number of A), resH the high one.
struct RESO {
  float resL, resH;
};

// The trial point of every search.
struct PUVA {
  float ps, defU, defV, defA;
};
struct PUVAB {
  float ps, defU, defV, defA, B;
};

// Starting values of one micrograph read from a STAR file.
struct CTF_INIT {
  int valid;
  float kV, Cs, ac, ps, defU, defV, defA, B;
};

// Status record of check_ctf_warning, which has nothing to check yet.
struct CTF_STS {};
int check_ctf_warning(FILE* log, CTF_STS* sts, float a, float b, float c);

// One stage of the alternating 2D refinement: the first and second trial
// point, the refined value and its extension, of each parameter.
struct CTF_2DR_Para {
  float UV_ave_1, UV_ave_2, UV_ave_2r, UV_ave_2re;
  float UV_dif_1, UV_dif_2, UV_dif_2r, UV_dif_2re;
  float A_1, A_2, A_2r, A_2re;
  float ps_1, ps_2, ps_2r, ps_2re;
  float ccc_1, ccc_2, ccc_2r, ccc_2re;
  float U_refined, V_refined;
};
void print_rp(const CTF_2DR_Para& rp, FILE* out = stdout);

// kV 300, Cs 2.7, ac 0.1, ps 0, defU = defV = 20000, defA 0, B 150.
CTF_INFO ctf2d_default();
void ctf2d_init(CTF_INFO& ctf);
// valid is 0 when defU or defV is exactly 0.
CTF_INIT ctf2d_to_ctfinit(const CTF_INFO& ctf);

HDI DEFOCUS hd_ctfinfo_to_defocus(const CTF_INFO& c) { return DEFOCUS(c.defU, c.defV, c.defA); }

// ---------------------------------------------------------------------------
// Normal forms.  hd_periodic_equivalent, hd_mod_angle_m90_p90,
// hd_min_max_bounded, is_in_res and hd_bfac come from device/math_utils.h.

// The angle into [0, 90): wrapped into [-90, 90), and a negative one turned
// by 90 degrees with U and V exchanged (the same astigmatism).
HDI void hd_format_UVA(float& U, float& V, float& A) {
  A = hd_mod_angle_m90_p90(A);
  if (A < 0.0f) {
    A += 90.0f;
    const float t = U;
    U = V;
    V = t;
  }
}
// The older form: the wrapped angle is stored only when it is negative.
HDI void kesmar_format_UVA(float& U, float& V, float& A) {
  const float a = hd_mod_angle_m90_p90(A);
  if (a < 0.0f) {
    A = 90.0f + a;
    const float t = U;
    U = V;
    V = t;
  }
}
// Phase shifts live in [-20, 160).
HDI void hd_format_PS(float& P) { P = hd_periodic_equivalent(P, -20.0f, 160.0f); }
HDI void hd_format_PUVA(float& P, float& U, float& V, float& A) {
  hd_format_PS(P);
  hd_format_UVA(U, V, A);
}
HDI void def_AD2UV(float& U, float& V, float ave, float dif) {
  U = ave - dif;
  V = ave + dif;
}
HDI void def_UV2AD(float& ave, float& dif, float U, float V) {
  ave = (U + V) / 2.0f;
  dif = (V - U) / 2.0f;
}

// ---------------------------------------------------------------------------
// Physics, single precision except where a product is formed in double.

// Relativistic electron wavelength in A.
HDI float hd_kV_to_lambda(float kV) { return 12.264325141906738f / sqrtf((0.9784659743309021f * kV + 1000.0f) * kV); }
// Defocus along the azimuth theta: U along the angle A, V across it.
HDI float hd_UVA_to_Ztheta(float theta, float U, float V, float A) {
  const float t = (float)((double)theta - (double)A * ZK_CTF_PI / 180.0);
  float sn, cs;
  hd_sincosf(t, &sn, &cs);
  return U * (cs * cs) + V * (sn * sn);
}
HDI float hd_defocus_to_Ztheta(float theta, const DEFOCUS& d) {
  return hd_UVA_to_Ztheta(theta, d.defU, d.defV, d.defA);
}
HDI float hd_ctfinfo_to_Ztheta(float theta, const CTF_INFO& c) {
  return hd_UVA_to_Ztheta(theta, c.defU, c.defV, c.defA);
}
HDI float hd_ctf_Ccs(float Cs, float lambda) {
  const double l = (double)lambda;
  return (float)(ZK_CTF_PI / 2.0 * (double)(1.0e7f * Cs) * (l * l * l));
}
HDI float hd_ctf_Cz(float z, float lambda) { return (float)(ZK_CTF_PI * (double)z * (double)lambda); }
HDI float hd_ctf_gamma_z(float s, float z, float lambda, float Ccs) {
  const float s2 = s * s;
  return hd_ctf_Cz(z, lambda) * s2 - Ccs * (s2 * s2);
}
HDI float hd_ctf_gamma(float s, float theta, float kV, float Cs, float U, float V, float A) {
  const float lambda = hd_kV_to_lambda(kV);
  return hd_ctf_gamma_z(s, hd_UVA_to_Ztheta(theta, U, V, A), lambda, hd_ctf_Ccs(Cs, lambda));
}
HDI float hd_ctf_phase_from_gamma(float gamma, float ac, float ps) {
  return (float)((double)gamma + hd_asin((double)ac) + (double)ps * ZK_CTF_PI / 180.0);
}
HDI float hd_ctf_phase(float s, float theta, float kV, float Cs, float ac, float ps, float U, float V, float A) {
  return hd_ctf_phase_from_gamma(hd_ctf_gamma(s, theta, kV, Cs, U, V, A), ac, ps);
}

// The value of one mode letter from gamma: G gamma, P the phase, E the phase
// in [0, pi), F sin(phase)*envelope, A its modulus, W sin^2(phase)*envelope,
// S the sign of sin(phase); any other letter 0.
HDI float hd_ctf_mode_value(float s, float gamma, float ac, float ps, float B, char mode) {
  if (mode == 'G') return gamma;
  const float phi = hd_ctf_phase_from_gamma(gamma, ac, ps);
  switch (mode) {
    case 'P':
      return phi;
    case 'E':
      return hd_periodic_equivalent(phi, 0.0f, ZK_CTF_PI_F);
    case 'F':
      return hd_sinf(phi) * hd_bfac(s, B);
    case 'A':
      return fabsf(hd_sinf(phi) * hd_bfac(s, B));
    case 'W': {
      const float v = hd_sinf(phi);
      return (v * v) * hd_bfac(s, B);
    }
    case 'S':
      return hd_sinf(phi) < 0.0f ? -1.0f : 1.0f;
    default:
      return 0.0f;
  }
}
HDI float hd_ctf_s(float s, float theta, float kV, float Cs, float ac, float ps, float U, float V, float A, float B,
                   char mode) {
  return hd_ctf_mode_value(s, hd_ctf_gamma(s, theta, kV, Cs, U, V, A), ac, ps, B, mode);
}
HDI bool hd_ctf_in_band(float s, float resL, float resH) { return !(s < 1.0f / resL || s > 1.0f / resH); }
HDI float hd_ctf_s_r(float s, float theta, float kV, float Cs, float ac, float ps, float U, float V, float A, float B,
                     float resL, float resH, char mode) {
  if (!hd_ctf_in_band(s, resL, resH)) return 0.0f;
  return hd_ctf_s(s, theta, kV, Cs, ac, ps, U, V, A, B, mode);
}
HDI float hd_ctf_s0(float s, float kV, float Cs, float ac, float ps, float U, float V, float A, float B, char mode) {
  return hd_ctf_s(s, 0.0f, kV, Cs, ac, ps, U, V, A, B, mode);
}
HDI float hd_ctf_s0_r(float s, float kV, float Cs, float ac, float ps, float U, float V, float A, float B, float resL,
                      float resH, char mode) {
  return hd_ctf_s_r(s, 0.0f, kV, Cs, ac, ps, U, V, A, B, resL, resH, mode);
}

HDI float hd_ctfinfo_gamma(float s, float theta, const CTF_INFO& c) {
  return hd_ctf_gamma(s, theta, c.kV, c.Cs, c.defU, c.defV, c.defA);
}
HDI float hd_ctfinfo_phase(float s, float theta, const CTF_INFO& c) {
  return hd_ctf_phase(s, theta, c.kV, c.Cs, c.ac, c.ps, c.defU, c.defV, c.defA);
}
HDI float hd_ctfinfo_s(float s, float theta, const CTF_INFO& c, char mode) {
  return hd_ctf_s(s, theta, c.kV, c.Cs, c.ac, c.ps, c.defU, c.defV, c.defA, c.B, mode);
}
HDI float hd_ctfinfo_s0(float s, const CTF_INFO& c, char mode) { return hd_ctfinfo_s(s, 0.0f, c, mode); }
HDI float hd_ctfinfo_s_r(float s, float theta, const CTF_INFO& c, RESO r, char mode) {
  return hd_ctf_s_r(s, theta, c.kV, c.Cs, c.ac, c.ps, c.defU, c.defV, c.defA, c.B, r.resL, r.resH, mode);
}
HDI float hd_ctfinfo_phase_mod_pi(float s, float theta, const CTF_INFO& c) { return hd_ctfinfo_s(s, theta, c, 'E'); }

// A rotationally symmetric copy: defocus U, V or their mean, no phase shift.
HDI CTF_INFO hd_ctf2d_to_ctf1d(const CTF_INFO& c, char which) {
  CTF_INFO o = c;
  o.ps = 0.0f;
  o.defA = 0.0f;
  float z = (c.defU + c.defV) / 2.0f;
  if (which == 'U' || which == 'u') z = c.defU;
  if (which == 'V' || which == 'v') z = c.defV;
  o.defU = z;
  o.defV = z;
  return o;
}

// ---------------------------------------------------------------------------
// Inverse formulae: the frequency at which the CTF reaches a phase, the
// smaller root of Cz s^2 - Ccs s^4 = gamma.

float gamma_theta_to_s(float gamma, float theta, const CTF_INFO& c);
float phase_theta_to_s(float phase, float theta, const CTF_INFO& c);
float gamma_theta_to_s0(float gamma, const CTF_INFO& c);
float phase_theta_to_s0(float phase, const CTF_INFO& c);
// The frequency of the first zero of the CTF along theta = 0.
float get_first_zero_s(const CTF_INFO& c);

// ---------------------------------------------------------------------------
// The per-sample evaluation of one trial point, as the kernels run it: the
// constants of the trial are formed once on the host, the contrast
// sqrt(1 - ac^2) sin(g) + ac cos(g), g = gamma + ps*pi/180, per sample.  The
// defocus along a sample's azimuth comes from cos 2t = cos 2(theta - A),
// written with the sample's coordinates, so no arc tangent is needed.

struct ZkCtfTrial {
  float lambda, Ccs, w, ac;
  double ps_rad;
  float zmean, zdif, c2A, s2A;  // (U + V)/2, (U - V)/2, cos 2A, sin 2A
  float B, sL, sH;              // envelope, band as 1/resL, 1/resH
};

ZkCtfTrial zk_ctf_trial(float kV, float Cs, float ac, float ps, float U, float V, float A, float B, float resL,
                        float resH);

// Defocus at the frequency (x, Y) in pixels of any layout; (0, 0) counts as
// theta = 0.
HDI float zk_ctf_z_xy(const ZkCtfTrial& t, float x, float Y) {
  const float r2 = x * x + Y * Y;
  if (r2 == 0.0f) return t.zmean + t.zdif * t.c2A;
  const float c2t = ((x * x - Y * Y) * t.c2A + (2.0f * x * Y) * t.s2A) / r2;
  return t.zmean + t.zdif * c2t;
}
// The contrast C at frequency s for defocus z.
HDI float zk_ctf_contrast(const ZkCtfTrial& t, float s, float z) {
  const float gamma = hd_ctf_gamma_z(s, z, t.lambda, t.Ccs);
  const float g = (float)((double)gamma + t.ps_rad);
  float sn, cs;
  hd_sincosf(g, &sn, &cs);
  return t.w * sn + t.ac * cs;
}
HDI bool zk_ctf_in_band(const ZkCtfTrial& t, float s) { return !(s < t.sL || s > t.sH); }
// |C| exp(-B s^2/4) in the band, 0 outside.
HDI float zk_ctf_mod_value(const ZkCtfTrial& t, float s, float z) {
  if (!zk_ctf_in_band(t, s)) return 0.0f;
  return fabsf(zk_ctf_contrast(t, s, z)) * hd_bfac(s, t.B);
}
// Frequency of the 2D half layout: row y holds Y = y - ny/2.
HDI float zk_ctf_s_half(int x, int Y, int nx, float apix) {
  return sqrtf((float)(x * x + Y * Y)) / (2.0f * (float)(nx - 1) * apix);
}
