// Validation of a CTF result by disturbed refinements in five bands.
#include "ctf/ctf_validation.h"

#include <cmath>

#include "ctf/ctf_refine3.h"
#include "ctf/ctf_sim.h"

namespace {

const float kBands[5][2] = {{20, 8}, {15, 6}, {12, 5}, {10, 4}, {8, 3}};

struct Grade {
  const char* screen;
  const char* log;
};
const Grade kGrades[6] = {{"", ""},
                          {"WRONG     ", "VALIDATION_SCORE: 1     \n"},
                          {"BAD            ", "VALIDATION_SCORE: 2            \n"},
                          {"USABLE         ", "VALIDATION_SCORE: 3         \n"},
                          {"GOOD           ", "VALIDATION_SCORE: 4           \n"},
                          {"PERFECT        ", "VALIDATION_SCORE: 5        \n"}};

}  // namespace

int ctf_validation_grade(float d, float e) {
  if (d < e * 0.3826834323650898f) return 5;  // sin 22.5 degrees
  if (d < e * 0.7071067811865475f) return 4;  // sin 45 degrees
  if (d < e) return 3;
  if (d < 2.0f * e) return 2;
  return 1;
}

int ctf_validation(const float* d_real, float* d_tmp, float apix, int nx, int ny, float ps, float kV, float Cs,
                   float ac, float U, float V, float A, float spare, float B, float resL, float resH, FILE* log,
                   std::vector<CTF_VALIDATION_BAND>* bands) {
  (void)spare;
  if (bands) bands->clear();
  ctf_say(log, "\n......................................  VALIDATION  ......................................\n");
  ctf_say(log,
          "Differences from Original Values:\n  RESOLUTION   Defocus_U   Defocus_V     Angle       CCC      "
          "CONVERGENCE  \n");
  for (const auto& band : kBands) {
    const float bL = band[0], bH = band[1];
    if (!(bH > 2.0f * apix)) continue;
    // The disturbance grows with the band's finest period: 1600 A at 8 A,
    // 225 A at 3 A; U moves away from V by e, V towards U by e/2.
    const float sign = U > V ? 1.0f : -1.0f;
    const float e = (float)(25.0 * (double)bH * (double)bH);
    float u = 0, v = 0, a = 0, c = 0;
    hcuda_ctfvalidate_half2d(d_real, d_tmp, u, v, a, c, apix, nx, ny, ps, kV, Cs, ac, U + sign * e, V - sign * e / 2.0f,
                             A, e / 4.0f, 3.0f, B, bL, bH, log);
    ctf_say(log, "  %02d-%02dA %12.2f%12.2f%12.2f%12.2f     ", (int)bL, (int)bH, u - U, v - V, a - A, c);
    const float m = fmaxf(fabsf(u - U), fabsf(v - V));
    const float q = sinf(fabsf(a - A) * (float)M_PI / 180.0f) * fabsf(u - v);
    const int g = ctf_validation_grade(fmaxf(m, q), e);
    printf("%s\n", kGrades[g].screen);
    if (log) fputs(kGrades[g].log, log);
    if (bands) bands->push_back(CTF_VALIDATION_BAND{bL, bH, u - U, v - V, a - A, c, g});
  }
  fflush(stdout);
  const int nxh = nx / 2 + 1;
  hcuda_ctf_mod_simulate_2d_half(d_tmp, apix, nxh, ny, kV, Cs, ac, ps, U, V, A, B, resL, resH);
  return 0;
}
