// The three-parameter line search: mean defocus, half difference and angle
// improved in turn, each on a two-point state of reflection and bisection.
#include "ctf/ctf_refine3.h"

#include <cmath>
#include <cstdarg>
#include <utility>

#include "ctf/ctf_core.h"
#include "ctf/ctf_sim.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"

void ctf_say(FILE* log, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  vprintf(fmt, ap);
  if (log) vfprintf(log, fmt, again);
  va_end(again);
  va_end(ap);
}

namespace {

constexpr float kTolA = 0.5f, kTolUV = 1.0f;

// The jitter of the reflections: a fixed-seed generator, restarted for each
// refinement, so that a particle gives the same values on every run and on
// both back ends.
struct Jitter {
  unsigned int state = 1;
  float unit() {
    state = state * 1103515245u + 12345u;
    return (float)((double)((state >> 1) & 0x7fffffffu) / 2147483648.0);
  }
};

struct Search {
  const float* d_real;
  float* d_tmp;
  float apix;
  int nxh, ny;
  float kV, Cs, ac, ps, B, resL, resH;
  float score(float mean, float dif, float A) const {
    return ctf_ccc_sim_with_real_2d_half(d_tmp, d_real, apix, nxh, ny, kV, Cs, ac, ps, mean - dif, mean + dif, A, B,
                                         resL, resH);
  }
  // The model of (U, V, A) into d_tmp and the score normalised by the norms
  // of model and data over the band.
  float finish(float U, float V, float A, float c) const {
    const size_t n = (size_t)nxh * ny;
    ZkDeviceArray<float> sq(n);
    hcuda_ctf_mod_simulate_2d_half(d_tmp, apix, nxh, ny, kV, Cs, ac, ps, U, V, A, B, resL, resH);
    hcuda_2d_half_res_based_square(sq.get(), d_tmp, apix, nxh, ny, resL, resH);
    c /= sqrtf(hcuda_fast_sum_inplace(sq.get(), n));
    hcuda_2d_half_res_based_square(sq.get(), d_real, apix, nxh, ny, resL, resH);
    c /= sqrtf(hcuda_fast_sum_inplace(sq.get(), n));
    hcuda_ctf_mod_simulate_2d_half(d_tmp, apix, nxh, ny, kV, Cs, ac, ps, U, V, A, B, resL, resH);
    return c;
  }
};

// One step on one parameter: reflection with jitter; a better reflection
// is taken as it stands, a worse one bisects towards the better side.
template <class Score>
void step(float& x1, float& x2, float& c1, float jitter, Score&& score) {
  const float xr = (float)(2.0 * (double)x1 - (double)x2 + (double)jitter);
  float c2 = score(x2);
  const float cr = score(xr);
  if (cr <= c1) {
    x2 = cr <= c2 ? (x2 + x1) / 2.0f : (xr + x1) / 2.0f;
    c2 = score(x2);
    if (c1 < c2) {
      std::swap(c1, c2);
      std::swap(x1, x2);
    }
  } else {
    x2 = x1;
    x1 = xr;
    c1 = cr;
  }
}

struct State {
  float mean1, mean2, dif1, dif2, A1, A2, c1;
};

// The cycles; move_A and move_dif switch those stages on.  Returns the
// cycles run, 100 when they ran out.
int run_cycles(const Search& s, State& st, bool move_A, bool move_dif) {
  Jitter jit;
  bool A_done = !move_A, ave_done = false, dif_done = !move_dif;
  int cycle = 0;
  for (; cycle < 100; ++cycle) {
    if (move_A && fabsf(st.A1 - st.A2) > kTolA)
      step(st.A1, st.A2, st.c1, jit.unit() * kTolA / 20.0f, [&](float a) { return s.score(st.mean1, st.dif1, a); });
    else
      A_done = true;
    if (fabsf(st.mean1 - st.mean2) > kTolUV)
      step(st.mean1, st.mean2, st.c1, jit.unit() * kTolUV / 20.0f, [&](float m) { return s.score(m, st.dif1, st.A1); });
    else
      ave_done = true;
    if (move_dif && fabsf(st.dif1 - st.dif2) > kTolUV)
      step(st.dif1, st.dif2, st.c1, jit.unit() * kTolUV / 20.0f, [&](float d) { return s.score(st.mean1, d, st.A1); });
    else
      dif_done = true;
    if (A_done && ave_done && dif_done) break;
  }
  return cycle;
}

// The two starts of the full search, each pair ordered by its score.
State start_three(const Search& s, float U0, float V0, float A0, float err_ave, float err_A) {
  State st;
  st.mean1 = (U0 + V0) / 2.0f;
  st.mean2 = st.mean1 - err_ave;
  st.dif1 = (U0 - V0) / 2.0f;
  st.dif2 = -st.dif1;
  st.A1 = A0;
  st.A2 = A0 + err_A;
  st.c1 = s.score(st.mean1, st.dif1, st.A1);
  float c2 = s.score(st.mean1, st.dif2, st.A1);
  if (st.c1 < c2) {
    std::swap(st.c1, c2);
    std::swap(st.dif1, st.dif2);
  }
  st.c1 = s.score(st.mean1, st.dif1, st.A1);
  c2 = s.score(st.mean1, st.dif1, st.A2);
  if (st.c1 < c2) {
    std::swap(st.c1, c2);
    std::swap(st.A1, st.A2);
  }
  return st;
}

int refine_three(const Search& s, float& U, float& V, float& A, float& ccc, float U0, float V0, float A0, float err_ave,
                 float err_A) {
  State st = start_three(s, U0, V0, A0, err_ave, err_A);
  const int cycle = run_cycles(s, st, true, true);
  U = st.mean1 - st.dif1;
  V = st.mean1 + st.dif1;
  A = st.A1;
  hd_format_UVA(U, V, A);
  ccc = st.c1;
  return cycle;
}

}  // namespace

int hcuda_ctfvalidate_half2d(const float* d_real, float* d_tmp, float& U, float& V, float& A, float& ccc, float apix,
                             int nx, int ny, float ps, float kV, float Cs, float ac, float U0, float V0, float A0,
                             float err_ave, float err_A, float B, float resL, float resH, FILE* log) {
  const Search s{d_real, d_tmp, apix, nx / 2 + 1, ny, kV, Cs, ac, ps, B, resL, resH};
  const int cycle = refine_three(s, U, V, A, ccc, U0, V0, A0, err_ave, err_A);
  // The same CTF with U and V exchanged and the angle turned by 90 degrees:
  // the form nearer the start is the answer.
  const double d_swap = (double)(V - U0) * (V - U0) + (double)(U - V0) * (U - V0);
  const double d_same = (double)(V - V0) * (V - V0) + (double)(U - U0) * (U - U0);
  if (d_swap < d_same) {
    std::swap(U, V);
    A = fabsf(A - 90.0f) < A ? A - 90.0f : A + 90.0f;
  }
  ccc = s.finish(U, V, A, ccc);
  if (cycle == 100 && log)
    fprintf(log, "WARNING: Too many refinement cycles, Kesmar might have failed on this micrograph!\n");
  return cycle;
}

int hcuda_ctfrefine_half2d_local(const float* d_real, float* d_tmp, float& U, float& V, float& A, float& ccc,
                                 float apix, int nx, int ny, float kV, float Cs, float ac, float ps, float U0, float V0,
                                 float A0, float err_ave, float err_A, float B, float resL, float resH, FILE* log) {
  const Search s{d_real, d_tmp, apix, nx / 2 + 1, ny, kV, Cs, ac, ps, B, resL, resH};
  const int cycle = refine_three(s, U, V, A, ccc, U0, V0, A0, err_ave, err_A);
  if (cycle == 100) {
    puts("WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!");
    if (log) fprintf(log, "WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\n");
  }
  ccc = s.finish(U, V, A, ccc);
  return cycle;
}

int hcuda_ctfrefine_half2d_only_defave(const float* d_real, float* d_tmp, float& U, float& V, float& ccc, float apix,
                                       int nx, int ny, float kV, float Cs, float ac, float ps, float U0, float V0,
                                       float A, float err_ave, float B, float resL, float resH, FILE* log) {
  const Search s{d_real, d_tmp, apix, nx / 2 + 1, ny, kV, Cs, ac, ps, B, resL, resH};
  State st;
  st.dif1 = st.dif2 = (V0 - U0) / 2.0f;
  st.mean1 = (U0 + V0) / 2.0f;
  st.mean2 = st.mean1 - err_ave;
  st.A1 = st.A2 = A;
  st.c1 = s.score(st.mean1, st.dif1, A);
  const int cycle = run_cycles(s, st, false, false);
  if (cycle == 100) {
    puts("WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!");
    if (log) fprintf(log, "WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\n");
  }
  U = st.mean1 - st.dif1;
  V = st.mean1 + st.dif1;
  ccc = s.finish(U, V, A, st.c1);
  return cycle;
}
