// The deterministic elementary functions: error against the C library in
// double (or long double) over dense sweeps, the special values, and the same
// bits from the GPU as from the host.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "device/hd_math.h"
#include "device/math_utils.h"

namespace {

uint32_t bits(float x) {
  uint32_t u;
  memcpy(&u, &x, 4);
  return u;
}
float from_bits(uint32_t u) {
  float x;
  memcpy(&x, &u, 4);
  return x;
}

// Error of a float result in units of the last place of the exact value ref
// (ref in double, which is far more precise than a float).
double ulp_err(float got, double ref) {
  if (std::isnan(ref)) return std::isnan(got) ? 0.0 : 1e30;
  if (std::isnan(got)) return 1e30;
  if (std::isinf(ref) || std::fabs(ref) > FLT_MAX) {
    // Beyond the largest float: the rounded value is inf (or FLT_MAX just below the midpoint).
    if (std::isinf(got) && std::signbit(got) == std::signbit(ref)) return 0.0;
    if (std::isinf(ref)) return 1e30;
  }
  if (std::isinf(got)) {
    // A finite value overflowed: fine only when ref is past the midpoint above FLT_MAX.
    double mid = std::ldexp(2.0 - std::ldexp(1.0, -24), 127);
    return (std::fabs(ref) >= mid && std::signbit(got) == std::signbit(ref)) ? 0.0 : 1e30;
  }
  int e;
  std::frexp(ref, &e);
  double ulp = std::ldexp(1.0, std::max(e - 24, -149));
  return std::fabs((double)got - ref) / ulp;
}

// The same for a double result against a long double reference.
double ulp_err_d(double got, long double ref) {
  if (std::isnan((double)ref)) return std::isnan(got) ? 0.0 : 1e30;
  if (std::isinf((double)ref)) return (std::isinf(got) && std::signbit(got) == std::signbit((double)ref)) ? 0.0 : 1e30;
  int e;
  std::frexp((double)ref, &e);
  long double ulp = std::ldexp(1.0L, std::max(e - 53, -1074));
  return (double)(std::fabs((long double)got - ref) / ulp);
}

// The worst error of a sweep, reported and held to two ulp.
struct MaxErr {
  const char* name;
  double worst = 0.0;
  double at = 0.0, at2 = 0.0;
  explicit MaxErr(const char* n) : name(n) {}
  void add(double e, double x, double y = 0.0) {
    if (e > worst) {
      worst = e;
      at = x;
      at2 = y;
    }
  }
  ~MaxErr() {
    printf("%s: max error %.3f ulp at %.9g, %.9g\n", name, worst, at, at2);
    ::testing::Test::RecordProperty(std::string(name) + "_max_ulp", std::to_string(worst));
    EXPECT_LE(worst, 2.0) << name << " at " << at << ", " << at2;
  }
};

// Every stride-th float between two bit patterns of one sign.
template <class F>
void sweep_bits(uint32_t from, uint32_t to, uint32_t stride, F f) {
  for (uint64_t u = from; u <= to; u += stride) f(from_bits((uint32_t)u));
}

}  // namespace

// Every function over every order of magnitude and densely where arguments
// usually lie: exp and the sines of both signs, the logarithms also next to
// 1, where they are small; sine and cosine also next to the multiples of
// pi/2, where the reduced argument is smallest, and at large arguments.
TEST(HdMath, FloatFunctionsWithinTwoUlp) {
  enum Kind { kExp, kLog, kTrig };
  const struct {
    const char* name;
    float (*f)(float);
    double (*ref)(double);
    Kind kind;
  } fns[] = {{"hd_expf", hd_expf, [](double x) { return std::exp(x); }, kExp},
             {"hd_logf", hd_logf, [](double x) { return std::log(x); }, kLog},
             {"hd_log2f", hd_log2f, [](double x) { return std::log2(x); }, kLog},
             {"hd_log10f", hd_log10f, [](double x) { return std::log10(x); }, kLog},
             {"hd_sinf", hd_sinf, [](double x) { return std::sin(x); }, kTrig},
             {"hd_cosf", hd_cosf, [](double x) { return std::cos(x); }, kTrig}};
  for (const auto& fn : fns) {
    MaxErr m(fn.name);
    auto check = [&](float x) { m.add(ulp_err(fn.f(x), fn.ref((double)x)), x); };
    const uint32_t stride = fn.kind == kTrig ? 2039 : 1021;
    sweep_bits(0x00000001u, 0x7f7fffffu, stride, check);
    if (fn.kind == kLog) {
      for (float x = 0.5f; x <= 2.0f; x += 1.0f / (1 << 18)) check(x);
      continue;
    }
    sweep_bits(0x80000001u, 0xff7fffffu, stride, check);
    for (float x = -64.0f; x <= 64.0f; x += 1.0f / 4096) check(x);
    if (fn.kind != kTrig) continue;
    for (int k = 1; k < 2000000; k += 13) {
      uint32_t u = bits((float)(k * (M_PI / 2)));
      for (uint32_t d = u - 2; d <= u + 2; ++d) check(from_bits(d));
    }
    for (float x = 1e5f; x < 3e38f; x *= 1.37f) {
      uint32_t u = bits(x);
      for (uint32_t d = u - 3; d <= u + 3; ++d) check(from_bits(d));
    }
  }
}

TEST(HdMath, SpecialValues) {
  const float inf = INFINITY, nan = NAN;
  const struct {
    float (*f)(float);
    const char* name;
    float x, want;  // want NaN: any NaN
  } cases[] = {
      {hd_expf, "expf", 0.0f, 1.0f},     {hd_expf, "expf", -0.0f, 1.0f},    {hd_expf, "expf", inf, inf},
      {hd_expf, "expf", -inf, 0.0f},     {hd_expf, "expf", nan, nan},       {hd_expf, "expf", 88.8f, inf},
      {hd_expf, "expf", -104.0f, 0.0f},  {hd_expf, "expf", 1e-45f, 1.0f},   {hd_expf, "expf", -1e-45f, 1.0f},
      // The largest argument that stays finite.
      {hd_expf, "expf", 88.7228317f, (float)std::exp(88.7228317)},
      {hd_logf, "logf", 1.0f, 0.0f},     {hd_logf, "logf", 0.0f, -inf},     {hd_logf, "logf", -0.0f, -inf},
      {hd_logf, "logf", inf, inf},       {hd_logf, "logf", -1.0f, nan},     {hd_logf, "logf", -1e-45f, nan},
      {hd_logf, "logf", -inf, nan},      {hd_logf, "logf", nan, nan},       {hd_sinf, "sinf", 0.0f, 0.0f},
      {hd_sinf, "sinf", -0.0f, -0.0f},   {hd_sinf, "sinf", 1e-45f, 1e-45f}, {hd_sinf, "sinf", -1e-40f, -1e-40f},
      {hd_sinf, "sinf", inf, nan},       {hd_sinf, "sinf", -inf, nan},      {hd_sinf, "sinf", nan, nan},
      {hd_cosf, "cosf", 0.0f, 1.0f},     {hd_cosf, "cosf", -0.0f, 1.0f},    {hd_cosf, "cosf", 1e-40f, 1.0f},
      {hd_cosf, "cosf", inf, nan},       {hd_cosf, "cosf", -inf, nan},      {hd_cosf, "cosf", nan, nan},
      {hd_log2f, "log2f", 0.0f, -inf},   {hd_log2f, "log2f", inf, inf},     {hd_log2f, "log2f", -1.0f, nan},
      {hd_log10f, "log10f", -0.0f, -inf}, {hd_log10f, "log10f", -1.0f, nan}, {hd_log10f, "log10f", nan, nan},
  };
  for (const auto& c : cases) {
    const float got = c.f(c.x);
    if (std::isnan(c.want)) {
      EXPECT_TRUE(std::isnan(got)) << c.name << "(" << c.x << ") = " << got;
    } else {
      EXPECT_EQ(got, c.want) << c.name << "(" << c.x << ")";
      EXPECT_EQ(std::signbit(got), std::signbit(c.want)) << c.name << "(" << c.x << ")";
    }
  }
  // A subnormal result, and the one NaN of the system.
  float sub = hd_expf(-100.0f);
  EXPECT_TRUE(sub > 0.0f && sub < FLT_MIN);
  EXPECT_LE(ulp_err(sub, std::exp(-100.0)), 1.0);
  EXPECT_EQ(bits(hd_expf(from_bits(0xffc00001u))), 0x7fffffffu);
  EXPECT_EQ(bits(hd_logf(-2.0f)), 0x7fffffffu);
  // Odd and even.
  EXPECT_EQ(hd_sinf(-1.0f), -hd_sinf(1.0f));
  EXPECT_EQ(hd_cosf(-1000.0f), hd_cosf(1000.0f));
  EXPECT_EQ(hd_sinf(-1e30f), -hd_sinf(1e30f));
  float2 c = hd_p2c(0.5f);
  EXPECT_TRUE(c.x == hd_cosf(0.5f) && c.y == hd_sinf(0.5f));
  // Exact powers.
  for (int k = -149; k < 128; ++k) EXPECT_EQ(hd_log2f(std::ldexp(1.0f, k)), (float)k);
  for (int k = -30; k <= 38; ++k) {
    const float p = std::pow(10.0f, (float)k);
    EXPECT_EQ(hd_log10f(p), (float)std::log10((double)p)) << k;
  }
}

TEST(HdMath, PowfWithinTwoUlpAndC99Cases) {
  {
    MaxErr m("hd_powf");
    std::mt19937 rng(12345);
    std::uniform_real_distribution<float> l(-40.0f, 40.0f), u(0.0f, 1.0f);
    auto check = [&](float x, float y) { m.add(ulp_err(hd_powf(x, y), std::pow((double)x, (double)y)), x, y); };
    for (int i = 0; i < 2700000; ++i) {
      float x, y;
      if (i < 2000000) {
        x = std::exp2(l(rng)) * (1.0f + u(rng));
        y = l(rng) * u(rng);
      } else if (i < 2500000) {  // close to 1 with large powers: log2(x) must be very precise
        x = 1.0f + (u(rng) - 0.5f) * 0.01f;
        y = (u(rng) - 0.5f) * 20000.0f;
      } else {  // negative bases with integer powers, results into the subnormal range
        x = -std::exp2(l(rng) * 0.5f);
        y = std::round(l(rng) * 3.0f);
      }
      check(x, y);
    }
  }
  // The C99 cases, checked against the C library itself.
  const float v[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, -0.5f, 2.0f, -2.0f, 3.0f, -3.0f, 1e-45f, -1e-45f, 1e38f,
                     -1e38f, INFINITY, -INFINITY, NAN, 2.5f, -2.5f, 16777216.0f, -16777217.0f};
  for (float x : v)
    for (float y : v) {
      float got = hd_powf(x, y), want = std::pow(x, y);
      if (std::isnan(want)) {
        EXPECT_TRUE(std::isnan(got)) << x << "^" << y;
      } else {
        EXPECT_EQ(got, want) << x << "^" << y;
        EXPECT_EQ(std::signbit(got), std::signbit(want)) << x << "^" << y;
      }
    }
  EXPECT_EQ(hd_powf(4.0f, 0.5f), 2.0f);
  EXPECT_EQ(hd_powf(2.0f, -149.0f), 1e-45f);
  EXPECT_EQ(hd_powf(2.0f, 128.0f), INFINITY);
}

TEST(HdMath, DoubleExpLogWithinTwoUlp) {
  {
    MaxErr me("hd_exp"), ml("hd_log"), m2("hd_log2"), mx("hd_exp2");
    std::mt19937_64 rng(777);
    std::uniform_real_distribution<double> ue(-745.0, 709.0), ul(-1070.0, 1020.0), u01(0.0, 1.0);
    auto exp_at = [&](double x) { me.add(ulp_err_d(hd_exp(x), std::exp((long double)x)), x); };
    auto log_at = [&](double y) { ml.add(ulp_err_d(hd_log(y), std::log((long double)y)), y); };
    for (int i = 0; i < 400000; ++i) {
      exp_at(ue(rng));
      double w = ul(rng);
      mx.add(ulp_err_d(hd_exp2(w), std::exp2((long double)w)), w);
      double y = std::ldexp(1.0 + u01(rng), (int)(ul(rng)));
      log_at(y);
      m2.add(ulp_err_d(hd_log2(y), std::log2((long double)y)), y);
    }
    for (double x = 0.5; x < 2.0; x += 1.0 / 65536) {
      log_at(x);
      exp_at(x - 1.25);
    }
  }
  EXPECT_EQ(hd_exp(0.0), 1.0);
  EXPECT_EQ(hd_exp(-1e-320), 1.0);
  EXPECT_EQ(hd_exp(710.0), INFINITY);
  EXPECT_EQ(hd_exp(-746.0), 0.0);
  EXPECT_GT(hd_exp(-740.0), 0.0);  // subnormal result
  EXPECT_EQ(hd_log(1.0), 0.0);
  EXPECT_EQ(hd_log(0.0), -INFINITY);
  EXPECT_TRUE(std::isnan(hd_log(-1.0)));
  EXPECT_EQ(hd_exp2(-1074.0), 4.9406564584124654e-324);
}

// The same inputs through the device kernels and through host calls: the
// GPU instance must give the same bits.
class HdMathBackends : public BackendTest {};

TEST_P(HdMathBackends, KernelsGiveTheHostBits) {
  std::mt19937 rng(99);
  std::vector<float> a, b;
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int i = 0; i < 300000; ++i) {
    a.push_back(u(rng) * std::exp2(u(rng) * 60.0f));
    b.push_back(u(rng) * 30.0f);
  }
  for (int i = 0; i < 50000; ++i) {
    a.push_back(from_bits((uint32_t)rng()));
    b.push_back(from_bits((uint32_t)rng()));
  }
  for (float x : {0.0f, -0.0f, 1e-45f, -1e-45f, INFINITY, -INFINITY, NAN, FLT_MAX, -FLT_MAX, 1.0f, -1.0f})
    for (float y : {0.0f, 2.0f, -3.0f, 0.5f, INFINITY, NAN}) {
      a.push_back(x);
      b.push_back(y);
    }
  const struct {
    int fn;
    float (*f)(float, float);
  } fns[] = {{ZK_FN_EXPF, [](float x, float) { return hd_expf(x); }},
             {ZK_FN_LOGF, [](float x, float) { return hd_logf(x); }},
             {ZK_FN_SINF, [](float x, float) { return hd_sinf(x); }},
             {ZK_FN_COSF, [](float x, float) { return hd_cosf(x); }},
             {ZK_FN_POWF, hd_powf},
             {ZK_FN_LOG2F, [](float x, float) { return hd_log2f(x); }},
             {ZK_FN_LOG10F, [](float x, float) { return hd_log10f(x); }},
             {ZK_FN_GUASF, hd_guasf},
             {ZK_FN_GUASF1, hd_guasf1},
             {ZK_FN_BFAC, hd_bfac}};
  const size_t n = a.size();
  Dev d;
  float *da = d.put(a), *db = d.put(b), *dout = d.f(n);
  for (const auto& f : fns) {
    hcuda_x1d_elementary(da, db, dout, n, f.fn);
    std::vector<float> out = from_dev(dout, n);
    size_t bad = 0;
    for (size_t i = 0; i < n; ++i) {
      float want = f.f(a[i], b[i]);
      if (bits(out[i]) != bits(want) && bad++ < 5)
        ADD_FAILURE() << "function " << f.fn << " at " << a[i] << ", " << b[i] << ": " << out[i] << " vs " << want;
    }
    EXPECT_EQ(bad, 0u) << "function " << f.fn;
  }

  // The double functions.
  std::vector<double> ad;
  std::uniform_real_distribution<double> ud(-700.0, 700.0);
  for (int i = 0; i < 100000; ++i) ad.push_back(ud(rng));
  for (int i = 0; i < 100000; ++i) ad.push_back(std::exp2(ud(rng) * 1.4));
  for (double x : {0.0, -0.0, 1.0, 4.9e-324, (double)INFINITY, -(double)INFINITY, (double)NAN, -1.0}) ad.push_back(x);
  const struct {
    int fn;
    double (*f)(double);
  } dfns[] = {{ZK_FN_EXP, hd_exp}, {ZK_FN_LOG, hd_log}, {ZK_FN_LOG2, hd_log2}, {ZK_FN_LOG10, hd_log10}, {ZK_FN_EXP2, hd_exp2}};
  const size_t nd = ad.size();
  double *dd = d.put(ad), *ddo = d.put(std::vector<double>(nd));
  for (const auto& f : dfns) {
    hcuda_x1d_elementary_d(dd, ddo, nd, f.fn);
    std::vector<double> od = from_dev(ddo, nd);
    size_t bad = 0;
    for (size_t i = 0; i < nd; ++i) {
      double want = f.f(ad[i]);
      if (memcmp(&od[i], &want, sizeof(double)) != 0 && bad++ < 5)
        ADD_FAILURE() << "double function " << f.fn << " at " << ad[i] << ": " << od[i] << " vs " << want;
    }
    EXPECT_EQ(bad, 0u) << "double function " << f.fn;
  }
}
ZK_BACKEND_SUITE(HdMathBackends);
