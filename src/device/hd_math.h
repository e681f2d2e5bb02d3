// Elementary functions that give the same bits on the host and in kernels.
//
// The libraries of the two back ends round exp, log, sin, ... differently in
// the last bit, so a picture computed on the host would not equal the one
// computed on the GPU.  These functions use only IEEE operations that every
// back end rounds the same way (+, -, *, /, fmaf, fma, exact conversions and
// bit operations), so each gives one result for one argument everywhere.
// Error: at most 2 ulp (the tests measure it), right at 0, -0, inf, NaN and
// subnormals.  A NaN result is always the one quiet NaN 0x7fffffff.
//
// Constants are written as hexadecimal literals so that no compiler has to
// round a decimal text.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>

#include "core/hd.h"

// ---------------------------------------------------------------------------
// Bit access

HDI uint32_t hd_f2u(float x) {
#if defined(__CUDA_ARCH__)
  return __float_as_uint(x);
#else
  uint32_t u;
  memcpy(&u, &x, sizeof u);
  return u;
#endif
}
HDI float hd_u2f(uint32_t u) {
#if defined(__CUDA_ARCH__)
  return __uint_as_float(u);
#else
  float x;
  memcpy(&x, &u, sizeof x);
  return x;
#endif
}
HDI uint64_t hd_d2u(double x) {
#if defined(__CUDA_ARCH__)
  return (uint64_t)__double_as_longlong(x);
#else
  uint64_t u;
  memcpy(&u, &x, sizeof u);
  return u;
#endif
}
HDI double hd_u2d(uint64_t u) {
#if defined(__CUDA_ARCH__)
  return __longlong_as_double((long long)u);
#else
  double x;
  memcpy(&x, &u, sizeof x);
  return x;
#endif
}
// Leading zero bits of a non-zero 64-bit word.
HDI int hd_clz64(uint64_t u) {
#if defined(__CUDA_ARCH__)
  return __clzll((long long)u);
#else
  return __builtin_clzll(u);
#endif
}

HDI float hd_nanf() { return hd_u2f(0x7fffffffu); }
HDI float hd_inff() { return hd_u2f(0x7f800000u); }
HDI double hd_nan() { return hd_u2d(0x7fffffffffffffffull); }
HDI double hd_inf() { return hd_u2d(0x7ff0000000000000ull); }
HDI bool hd_isnanf(float x) { return (hd_f2u(x) & 0x7fffffffu) > 0x7f800000u; }
HDI bool hd_isinff(float x) { return (hd_f2u(x) & 0x7fffffffu) == 0x7f800000u; }
HDI bool hd_isnan(double x) { return (hd_d2u(x) & 0x7fffffffffffffffull) > 0x7ff0000000000000ull; }
// 2^k for -126 <= k <= 127 (float) and -1022 <= k <= 1023 (double).
HDI float hd_pow2f(int k) { return hd_u2f((uint32_t)(k + 127) << 23); }
HDI double hd_pow2(int k) { return hd_u2d((uint64_t)(k + 1023) << 52); }

// x * 2^k for a normal x near 1 and any k in [-300, 300]: the first factor is
// exact, so a result in the subnormal range is rounded only once.
HDI float hd_scalef(float x, int k) {
  if (k > 127) return (x * hd_pow2f(127)) * hd_pow2f(k - 127 > 127 ? 127 : k - 127);
  if (k < -126) {
    int k1 = k + 64;
    if (k1 < -126) return (x * hd_pow2f(-126)) * hd_pow2f(-64);
    return (x * hd_pow2f(k1)) * hd_pow2f(-64);
  }
  return x * hd_pow2f(k);
}
HDI double hd_scale(double x, int k) {
  if (k > 1023) return (x * hd_pow2(1023)) * hd_pow2(k - 1023 > 1023 ? 1023 : k - 1023);
  if (k < -1022) {
    int k1 = k + 128;
    if (k1 < -1022) return (x * hd_pow2(-1022)) * hd_pow2(-128);
    return (x * hd_pow2(k1)) * hd_pow2(-128);
  }
  return x * hd_pow2(k);
}

// Round to the nearest integer (ties to even) for |x| < 2^22 (float) or 2^51
// (double): adding and removing 1.5*2^23 leaves no fraction bits.
HDI float hd_rintf_small(float x) { return (x + 0x1.8p23f) - 0x1.8p23f; }
HDI double hd_rint_small(double x) { return (x + 0x1.8p52) - 0x1.8p52; }

// ---------------------------------------------------------------------------
// Exponential

// exp(r) for |r| <= ln2/2 + a little: Taylor polynomial of degree 7, whose
// remainder (5e-9) is far below half an ulp.
HDI float hd_expf_poly(float r) {
  float q = 0x1.a01a02p-13f;       // 1/7!
  q = fmaf(q, r, 0x1.6c16c2p-10f);  // 1/6!
  q = fmaf(q, r, 0x1.111112p-7f);   // 1/5!
  q = fmaf(q, r, 0x1.555556p-5f);   // 1/4!
  q = fmaf(q, r, 0x1.555556p-3f);   // 1/3!
  q = fmaf(q, r, 0.5f);
  q = fmaf(q, r, 1.0f);
  return fmaf(q, r, 1.0f);
}

HDI float hd_expf(float x) {
  if (hd_isnanf(x)) return hd_nanf();
  if (x > 100.0f) return hd_inff();
  if (x < -110.0f) return 0.0f;
  // x = k*ln2 + r.  ln2 is split in two floats; x - k*LN2_HI is exact for
  // every x in range, so r carries a single rounding.
  float k = hd_rintf_small(x * 0x1.715476p+0f);
  float r = fmaf(-k, 0x1.62e430p-1f, x);
  r = fmaf(-k, -0x1.05c610p-29f, r);
  return hd_scalef(hd_expf_poly(r), (int)k);
}

// exp(r) for |r| <= ln2/2 + a little, degree 13 (remainder 4e-18).
HDI double hd_exp_poly(double r) {
  double q = 0x1.6124613a86d09p-33;  // 1/13!
  q = fma(q, r, 0x1.1eed8eff8d898p-29);
  q = fma(q, r, 0x1.ae64567f544e4p-26);
  q = fma(q, r, 0x1.27e4fb7789f5cp-22);
  q = fma(q, r, 0x1.71de3a556c734p-19);
  q = fma(q, r, 0x1.a01a01a01a01ap-16);
  q = fma(q, r, 0x1.a01a01a01a01ap-13);
  q = fma(q, r, 0x1.6c16c16c16c17p-10);
  q = fma(q, r, 0x1.1111111111111p-7);
  q = fma(q, r, 0x1.5555555555555p-5);
  q = fma(q, r, 0x1.5555555555555p-3);
  q = fma(q, r, 0.5);
  q = fma(q, r, 1.0);
  return fma(q, r, 1.0);
}

HDI double hd_exp(double x) {
  if (hd_isnan(x)) return hd_nan();
  if (x > 710.0) return hd_inf();
  if (x < -746.0) return 0.0;
  double k = hd_rint_small(x * 0x1.71547652b82fep+0);
  double r = fma(-k, 0x1.62e42fefa39efp-1, x);
  r = fma(-k, 0x1.abc9e3b39803fp-56, r);
  return hd_scale(hd_exp_poly(r), (int)k);
}

// 2^w in double.
HDI double hd_exp2(double w) {
  if (hd_isnan(w)) return hd_nan();
  if (w > 1025.0) return hd_inf();
  if (w < -1076.0) return 0.0;
  double k = hd_rint_small(w);
  double f = w - k;  // exact, |f| <= 1/2
  return hd_scale(hd_exp_poly(f * 0x1.62e42fefa39efp-1), (int)k);
}

// ---------------------------------------------------------------------------
// Logarithm.  x = 2^e * m with m in [sqrt(2)/2, sqrt(2)), f = m - 1 (exact),
// s = f/(2 + f); log(1 + f) = 2 atanh(s) = f - s*(f - R) with
// R = 2/3 s^2 + 2/5 s^4 + ...  The large part f is exact, so only the small
// correction carries rounding.

HDI float hd_logf(float x) {
  if (hd_isnanf(x) || x < 0.0f) return hd_nanf();
  if (x == 0.0f) return -hd_inff();
  if (hd_isinff(x)) return x;
  uint32_t u = hd_f2u(x);
  int e = 0;
  if (u < 0x00800000u) {  // subnormal: bring it into the normal range first
    u = hd_f2u(x * 0x1p25f);
    e = -25;
  }
  e += (int)(u >> 23) - 127;
  float m = hd_u2f((u & 0x007fffffu) | 0x3f800000u);
  if (m > 0x1.6a09e6p+0f) {
    m *= 0.5f;
    e += 1;
  }
  float f = m - 1.0f;
  float s = f / (2.0f + f);
  float z = s * s;
  float R = fmaf(z, 0x1.c71c72p-3f, 0x1.24924ap-2f);  // 2/9, 2/7
  R = fmaf(R, z, 0x1.99999ap-2f);                      // 2/5
  R = fmaf(R, z, 0x1.555556p-1f);                      // 2/3
  R = R * z;
  if (e == 0) return f - s * (f - R);
  // ln2 = LN2_HI + LN2_LO with LN2_HI short enough that e*LN2_HI is exact.
  float ef = (float)e;
  return ef * 0x1.62e400p-1f + (f - (s * (f - R) - ef * 0x1.7f7d1cp-20f));
}

// Natural logarithm in double, split as e*ln2 + log(1 + f).
HDI double hd_log_parts(double x, double* lp) {
  uint64_t u = hd_d2u(x);
  int e = 0;
  if (u < 0x0010000000000000ull) {
    u = hd_d2u(x * 0x1p60);
    e = -60;
  }
  e += (int)(u >> 52) - 1023;
  double m = hd_u2d((u & 0x000fffffffffffffull) | 0x3ff0000000000000ull);
  if (m > 0x1.6a09e667f3bcdp+0) {
    m *= 0.5;
    e += 1;
  }
  double f = m - 1.0;
  double s = f / (2.0 + f);
  double z = s * s;
  double R = fma(z, 0x1.642c8590b2164p-4, 0x1.8618618618618p-4);  // 2/23, 2/21
  R = fma(R, z, 0x1.af286bca1af28p-4);                             // 2/19
  R = fma(R, z, 0x1.e1e1e1e1e1e1ep-4);                             // 2/17
  R = fma(R, z, 0x1.1111111111111p-3);                             // 2/15
  R = fma(R, z, 0x1.3b13b13b13b14p-3);                             // 2/13
  R = fma(R, z, 0x1.745d1745d1746p-3);                             // 2/11
  R = fma(R, z, 0x1.c71c71c71c71cp-3);                             // 2/9
  R = fma(R, z, 0x1.2492492492492p-2);                             // 2/7
  R = fma(R, z, 0x1.999999999999ap-2);                             // 2/5
  R = fma(R, z, 0x1.5555555555555p-1);                             // 2/3
  R = R * z;
  *lp = f - s * (f - R);
  return (double)e;
}

HDI double hd_log(double x) {
  if (hd_isnan(x) || x < 0.0) return hd_nan();
  if (x == 0.0) return -hd_inf();
  if (x == hd_inf()) return x;
  double lp;
  double e = hd_log_parts(x, &lp);
  if (e == 0.0) return lp;
  // e*LN2 with LN2 in two doubles: the first product is exact (e has at most
  // 11 bits and the high part ends in zeros).
  return e * 0x1.62e42fefa3800p-1 + (lp + e * 0x1.ef35793c7673p-45);
}

HDI double hd_log2(double x) {
  if (hd_isnan(x) || x < 0.0) return hd_nan();
  if (x == 0.0) return -hd_inf();
  if (x == hd_inf()) return x;
  double lp;
  double e = hd_log_parts(x, &lp);
  return e + lp * 0x1.71547652b82fep+0;
}

HDI double hd_log10(double x) {
  if (hd_isnan(x) || x < 0.0) return hd_nan();
  if (x == 0.0) return -hd_inf();
  if (x == hd_inf()) return x;
  double lp;
  double e = hd_log_parts(x, &lp);
  // log10(x) = e*log10(2) + log(1+f)/ln10
  return fma(e, 0x1.34413509f79ffp-2, fma(lp, 0x1.bcb7b1526e50ep-2, e * -0x1.9dc1da994fd21p-59));
}

// log2 and log10 in float are rounded from the double value: an error of
// about 1e-16 before a single final rounding.
HDI float hd_log2f(float x) {
  if (hd_isnanf(x) || x < 0.0f) return hd_nanf();
  return (float)hd_log2((double)x);
}
HDI float hd_log10f(float x) {
  if (hd_isnanf(x) || x < 0.0f) return hd_nanf();
  return (float)hd_log10((double)x);
}

// ---------------------------------------------------------------------------
// Power.  The special cases follow C99 powf; the rest is 2^(y*log2|x|) in
// double, rounded once to float.

// 0: y not an integer, 1: odd integer, 2: even integer.
HDI int hd_float_int_kind(float y) {
  float ay = y < 0.0f ? -y : y;
  if (ay >= 0x1p24f) return 2;  // every float this large is even
  float t = (float)(int)ay;
  if (t != ay) return 0;
  return ((int)ay & 1) ? 1 : 2;
}

HDI float hd_powf(float x, float y) {
  if (y == 0.0f || x == 1.0f) return 1.0f;
  if (hd_isnanf(x) || hd_isnanf(y)) return hd_nanf();
  int yk = hd_float_int_kind(y);
  float ax = x < 0.0f ? -x : x;
  bool neg = (hd_f2u(x) >> 31) != 0 && yk == 1;  // the sign survives an odd power
  if (hd_isinff(y)) {
    if (ax == 1.0f) return 1.0f;
    return ((ax < 1.0f) == (y < 0.0f)) ? hd_inff() : 0.0f;
  }
  if (ax == 0.0f || hd_isinff(x)) {
    // |x|^y is 0 or inf; for x = 0 a negative y gives inf, for x = inf a positive one
    bool big = (ax == 0.0f) == (y < 0.0f);
    float v = big ? hd_inff() : 0.0f;
    return neg ? -v : v;
  }
  if (x < 0.0f && yk == 0) return hd_nanf();
  double w = (double)y * hd_log2((double)ax);
  float v = (float)hd_exp2(w);
  return neg ? -v : v;
}

// ---------------------------------------------------------------------------
// Sine and cosine.  The argument is reduced to r in [-pi/4, pi/4] and a
// quadrant q: by three fused steps with pi/2 in three floats up to 2^17, and
// beyond that with the bits of 2/pi in integer arithmetic, so even the largest
// floats are reduced exactly enough.

// The bits of 2/pi, 32 a word, after one word of zeros (the bits before the
// binary point).
HDI uint32_t hd_two_over_pi_word(int i) {
  switch (i) {
    case 1: return 0xa2f9836eu;
    case 2: return 0x4e441529u;
    case 3: return 0xfc2757d1u;
    case 4: return 0xf534ddc0u;
    case 5: return 0xdb629599u;
    case 6: return 0x3c439041u;
    case 7: return 0xfe5163abu;
    default: return 0u;
  }
}

// Reduction of a large positive finite x (x >= 2^17): returns the quadrant,
// r + rl = x - q*pi/2 to about 2^-60 relative.
HDI int hd_reduce_large(float x, float* r, float* rl) {
  uint32_t u = hd_f2u(x);
  int E = (int)(u >> 23) - 150;  // x = M * 2^E
  uint64_t M = (uint64_t)((u & 0x007fffffu) | 0x00800000u);
  // Bits of 2/pi from position E - 1 on: the earlier ones only add multiples
  // of 4 to x*2/pi.  p counts bits in the padded sequence (32 zero bits first).
  int p = E - 1 + 31;
  int wi = p >> 5, sh = p & 31;
  uint32_t t0 = hd_two_over_pi_word(wi), t1 = hd_two_over_pi_word(wi + 1);
  uint32_t t2 = hd_two_over_pi_word(wi + 2), t3 = hd_two_over_pi_word(wi + 3);
  uint32_t w0 = t0, w1 = t1, w2 = t2;
  if (sh != 0) {
    w0 = (t0 << sh) | (t1 >> (32 - sh));
    w1 = (t1 << sh) | (t2 >> (32 - sh));
    w2 = (t2 << sh) | (t3 >> (32 - sh));
  }
  // P = M * (w0 w1 w2); x*2/pi = P * 2^-94 (mod 4).
  uint64_t p2 = M * w2;
  uint64_t p1 = M * w1 + (p2 >> 32);
  uint64_t p0 = M * w0 + (p1 >> 32);
  int q = (int)((p0 >> 30) & 3u);
  uint64_t frac = ((p0 & 0x3fffffffull) << 34) | ((p1 & 0xffffffffull) << 2) | ((p2 >> 30) & 3u);
  bool negr = false;
  if (frac >> 63) {  // fraction >= 1/2: round the quadrant up
    frac = ~frac + 1u;
    q = (q + 1) & 3;
    negr = true;
  }
  if (frac == 0) {
    *r = 0.0f;
    *rl = 0.0f;
    return q;
  }
  int lz = hd_clz64(frac);
  frac <<= lz;
  // The fraction as a + b (two exact floats), times 2^-lz; then times pi/2.
  float a = (float)(uint32_t)(frac >> 40) * 0x1p-24f;
  float b = (float)(uint32_t)((frac >> 16) & 0xffffffu) * 0x1p-48f;
  const float PIO2_HI = 0x1.921fb6p+0f, PIO2_LO = -0x1.777a5cp-25f;
  float hi = a * PIO2_HI;
  float lo = fmaf(a, PIO2_HI, -hi) + (a * PIO2_LO + b * PIO2_HI);
  float s = hi + lo;
  float sl = lo - (s - hi);
  float sc = hd_pow2f(-lz);
  *r = negr ? -(s * sc) : s * sc;
  *rl = negr ? -(sl * sc) : sl * sc;
  return q;
}

HDI void hd_sincosf(float x, float* sp, float* cp) {
  if (hd_isnanf(x) || hd_isinff(x)) {
    *sp = hd_nanf();
    *cp = hd_nanf();
    return;
  }
  if (x == 0.0f) {  // keeps the sign of -0
    *sp = x;
    *cp = 1.0f;
    return;
  }
  float ax = x < 0.0f ? -x : x;
  float r, rl = 0.0f;
  int q;
  if (ax <= 0x1.921fb6p-1f) {  // pi/4
    r = x;
    q = 0;
  } else if (ax < 0x1p17f) {
    // x - k*pi/2 with pi/2 = C1 + C2 + C3.  x - k*C1 is exact here; the
    // rest is kept as r + rl, the rounding errors of the C2 step included.
    float k = hd_rintf_small(x * 0x1.45f306p-1f);
    float r1 = fmaf(-k, 0x1.921fb6p+0f, x);
    float ph = -k * -0x1.777a5cp-25f;
    float pl = fmaf(-k, -0x1.777a5cp-25f, -ph);
    float t = r1 + ph;
    float tb = t - r1;
    float te = (r1 - (t - tb)) + (ph - tb);
    float lo = (te + pl) + -k * -0x1.ee59dap-50f;
    r = t + lo;
    rl = lo - (r - t);
    q = (int)k & 3;
  } else {
    q = hd_reduce_large(ax, &r, &rl);
    if (x < 0.0f) {
      r = -r;
      rl = -rl;
      q = (4 - q) & 3;
    }
  }
  float z = r * r;
  // sin(r + rl) = r + r^3*P(r^2) + rl*(1 - r^2/2)
  float ps = fmaf(z, 0x1.71de3ap-19f, -0x1.a01a02p-13f);  // 1/9!, -1/7!
  ps = fmaf(ps, z, 0x1.111112p-7f);                        // 1/5!
  ps = fmaf(ps, z, -0x1.555556p-3f);                       // -1/3!
  float s = r + fmaf(r * z, ps, rl * (1.0f - 0.5f * z));
  // cos(r + rl) = 1 - r^2/2 + r^4*P(r^2) - r*rl; the rounding of 1 - r^2/2
  // is recovered and added back.
  float pc = fmaf(z, -0x1.27e4fcp-22f, 0x1.a01a02p-16f);  // -1/10!, 1/8!
  pc = fmaf(pc, z, -0x1.6c16c2p-10f);                       // -1/6!
  pc = fmaf(pc, z, 0x1.555556p-5f);                         // 1/4!
  float hz = 0.5f * z;
  float w = 1.0f - hz;
  float c = w + ((((1.0f - w) - hz) + z * (z * pc)) - r * rl);
  switch (q) {
    case 0: *sp = s; *cp = c; break;
    case 1: *sp = c; *cp = -s; break;
    case 2: *sp = -s; *cp = -c; break;
    default: *sp = -c; *cp = s; break;
  }
}

HDI float hd_sinf(float x) {
  float s, c;
  hd_sincosf(x, &s, &c);
  return s;
}
HDI float hd_cosf(float x) {
  float s, c;
  hd_sincosf(x, &s, &c);
  return c;
}

// ---------------------------------------------------------------------------
// Arc tangent and arc sine in double.  |x| > 1 goes through pi/2 - atan(1/x);
// above tan(pi/12) the argument is moved by pi/6, so the series runs on
// |u| <= 0.268, where 16 terms leave a remainder below 1e-19.

HDI double hd_atan(double x) {
  if (hd_isnan(x)) return hd_nan();
  const double PIO2 = 0x1.921fb54442d18p+0, PIO6 = 0x1.0c152382d7366p-1, SQRT3 = 0x1.bb67ae8584caap+0;
  const double ax = x < 0.0 ? -x : x;
  const bool inv = ax > 1.0;
  double t = inv ? 1.0 / ax : ax;
  double off = 0.0;
  if (t > 0x1.126145e9ecd56p-2) {  // tan(pi/12)
    t = (t * SQRT3 - 1.0) / (t + SQRT3);
    off = PIO6;
  }
  const double z = t * t;
  // sum over k of (-1)^k z^k / (2k + 1), k = 15 down to 0.
  double p = -1.0 / 31.0;
  for (int k = 14; k >= 0; --k) p = fma(p, z, ((k & 1) ? -1.0 : 1.0) / (double)(2 * k + 1));
  double r = off + t * p;
  if (inv) r = PIO2 - r;
  return x < 0.0 ? -r : r;
}

// asin for |x| <= 1; NaN beyond.
HDI double hd_asin(double x) {
  if (hd_isnan(x) || x > 1.0 || x < -1.0) return hd_nan();
  if (x == 1.0) return 0x1.921fb54442d18p+0;
  if (x == -1.0) return -0x1.921fb54442d18p+0;
  return hd_atan(x / sqrt((1.0 - x) * (1.0 + x)));
}
