// movie_synth: movies of particles with known per-frame drift and radiation
// damage, with the dose/drift log and the box file that lombar reads.
//
// One particle (a random cluster of Gaussian atoms inside the diameter, dark
// on a zero background as in cryo-EM) is placed on a grid of box-sized cells,
// every copy in the same orientation at a whole-pixel centre.  Frame f is the
// clean image seen through:
//   the damage of its exposure: amplitudes times exp(-a D_f s^b), with D_f the
//     dose accumulated at the middle of the frame, (f + 0.5) * --dose;
//   its drift (dx, dy): the specimen moves uniformly from -(dx, dy) to
//     +(dx, dy) about its place during the frame, a blur of
//     sin(K)/K, K = 2 pi (kx dx + ky dy) / size, which leaves the frame
//     aligned with the others;
//   and, with --defocus, a round CTF (the project's CTF model, no envelope);
// plus white noise of --noise times the deviation of the clean particle
// image.  The particle's atoms come from --particle_seed, drift and noise
// from --seed, so movies of one particle differ in everything else.  The
// drift of frame f is --drift0 (frame 0) to --drift1 (last
// frame) pixels, linear, along --drift_angle degrees turned by a random
// wobble of up to 30 degrees a frame.
//
//   movie_synth --out mov.mrc [--size 1024] [--frames 40] [--apix 1.0]
//               [--box 256] [--count N] [--diameter 150] [--dose 1.0]
//               [--damage_a 0.5] [--damage_b 1.3] [--drift0 1.5] [--drift1 0.3]
//               [--drift_angle 30] [--noise 3] [--atom 1.5] [--defocus 0] [--kv 300]
//               [--cs 2.7] [--ac 0.1] [--ctfw 0|1] [--box_suffix _zavik.box]
//               [--dd_suffix _dose_drift.txt] [--truth particle.mrc] [--seed 1]
//               [--particle_seed 1]
//
// Writes the movie (mode 2), "<movie><dd_suffix>" (frame, dose at the middle
// of the frame, drift x, drift y), "<movie><box_suffix>" (EMAN boxes of side
// --box around the particle centres) and with --ctfw 1 "<movie>_ctfw.txt"
// (radius, frequency, |CTF| of the particle boxes' radii; 1 without defocus).
// --truth writes the mean of the clean cut-outs (with the CTF, without
// damage, drift and noise): the image a perfect weighting approaches.
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "core/str_utils.h"
#include "ctf/ctf_core.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "movie/pre_shiny6_logs.h"

namespace {

struct Para {
  std::string out, truth, box_suffix = "_zavik.box", dd_suffix = "_dose_drift.txt";
  int size = 1024, frames = 40, box = 256, count = -1, ctfw = 0;
  unsigned seed = 1, particle_seed = 1;
  double apix = 1.0, diameter = 150, dose = 1.0, damage_a = 0.5, damage_b = 1.3;
  double drift0 = 1.5, drift1 = 0.3, drift_angle = 30, noise = 3.0, atom = 1.5;
  double defocus = 0, kv = 300, cs = 2.7, ac = 0.1;
};

[[noreturn]] void usage(const std::string& why) {
  fprintf(stderr, "movie_synth: %s\n", why.c_str());
  fprintf(stderr,
          "usage: movie_synth --out mov.mrc [--size N] [--frames N] [--apix A] [--box N] [--count N]\n"
          "       [--diameter A] [--dose e/A2] [--damage_a a] [--damage_b b] [--drift0 px] [--drift1 px]\n"
          "       [--drift_angle deg] [--noise s] [--atom A] [--defocus um] [--kv kV] [--cs mm] [--ac f] [--ctfw 0|1]\n"
          "       [--box_suffix s] [--dd_suffix s] [--truth particle.mrc] [--seed N] [--particle_seed N]\n");
  exit(1);
}

Para parse(int argc, char** argv) {
  Para p;
  for (int i = 1; i < argc; ++i) {
    const std::string k = argv[i];
    if (i + 1 >= argc) usage("no value after " + k);
    const char* v = argv[++i];
    if (k == "--out") p.out = v;
    else if (k == "--truth") p.truth = v;
    else if (k == "--box_suffix") p.box_suffix = v;
    else if (k == "--dd_suffix") p.dd_suffix = v;
    else if (k == "--size") p.size = atoi(v);
    else if (k == "--frames") p.frames = atoi(v);
    else if (k == "--box") p.box = atoi(v);
    else if (k == "--count") p.count = atoi(v);
    else if (k == "--ctfw") p.ctfw = atoi(v);
    else if (k == "--seed") p.seed = (unsigned)strtoul(v, nullptr, 10);
    else if (k == "--particle_seed") p.particle_seed = (unsigned)strtoul(v, nullptr, 10);
    else if (k == "--apix") p.apix = atof(v);
    else if (k == "--diameter") p.diameter = atof(v);
    else if (k == "--dose") p.dose = atof(v);
    else if (k == "--damage_a") p.damage_a = atof(v);
    else if (k == "--damage_b") p.damage_b = atof(v);
    else if (k == "--drift0") p.drift0 = atof(v);
    else if (k == "--drift1") p.drift1 = atof(v);
    else if (k == "--drift_angle") p.drift_angle = atof(v);
    else if (k == "--noise") p.noise = atof(v);
    else if (k == "--atom") p.atom = atof(v);
    else if (k == "--defocus") p.defocus = atof(v);
    else if (k == "--kv") p.kv = atof(v);
    else if (k == "--cs") p.cs = atof(v);
    else if (k == "--ac") p.ac = atof(v);
    else usage("unknown option " + k);
  }
  if (p.out.empty()) usage("--out is required");
  if (p.size < 16 || p.size % 2) usage("--size must be even and at least 16");
  if (p.box < 8 || p.box % 2 || p.box > p.size) usage("--box must be even, at least 8 and at most --size");
  if (p.frames < 1 || p.apix <= 0 || p.diameter <= 0 || p.atom <= 0)
    usage("--frames, --apix, --diameter and --atom must be positive");
  return p;
}

// The particle's projected density on a box x box grid, centre at (box/2,
// box/2), peak about 1: 600 atoms of --atom A deviation in a ball of the
// diameter.
std::vector<double> particle(const Para& p, std::mt19937_64& rng) {
  const int b = p.box;
  std::vector<double> img((size_t)b * b, 0.0);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const double r = 0.5 * p.diameter / p.apix, sigma = p.atom / p.apix;
  const int atoms = 600, reach = (int)ceil(4 * sigma);
  for (int a = 0; a < atoms; ++a) {
    double x, y, z;
    do {
      x = u(rng), y = u(rng), z = u(rng);
    } while (x * x + y * y + z * z > 1.0);
    const double cx = b / 2 + r * x, cy = b / 2 + r * y;
    for (int j = (int)cy - reach; j <= (int)cy + reach; ++j)
      for (int i = (int)cx - reach; i <= (int)cx + reach; ++i) {
        if (i < 0 || j < 0 || i >= b || j >= b) continue;
        const double dx = i - cx, dy = j - cy;
        img[(size_t)j * b + i] += exp(-(dx * dx + dy * dy) / (2 * sigma * sigma));
      }
  }
  double peak = 0;
  for (double v : img) peak = std::max(peak, v);
  for (double& v : img) v /= peak;
  return img;
}

// In-place transforms of a size x size image through a half spectrum.
struct Fft {
  int n;
  float* real;
  fftwf_complex* half;
  fftwf_plan fwd, inv;
  explicit Fft(int size) : n(size) {
    real = fftwf_alloc_real((size_t)n * n);
    half = fftwf_alloc_complex((size_t)(n / 2 + 1) * n);
    fwd = fftwf_plan_dft_r2c_2d(n, n, real, half, FFTW_ESTIMATE);
    inv = fftwf_plan_dft_c2r_2d(n, n, half, real, FFTW_ESTIMATE);
  }
  ~Fft() {
    fftwf_destroy_plan(fwd);
    fftwf_destroy_plan(inv);
    fftwf_free(real);
    fftwf_free(half);
  }
};

double sinc(double K) { return K == 0 ? 1.0 : sin(K) / K; }

}  // namespace

int main(int argc, char** argv) {
  const Para p = parse(argc, argv);
  std::mt19937_64 shape(p.particle_seed), rng(p.seed);
  const int n = p.size, b = p.box, nh = n / 2 + 1, F = p.frames;
  const std::vector<double> part = particle(p, shape);

  // Particle centres on a grid of box-sized cells.
  const int cells = n / b, capacity = cells * cells;
  const int count = p.count < 0 || p.count > capacity ? capacity : p.count;
  const int margin = (n - cells * b) / 2;
  std::vector<int> cx(count), cy(count);
  for (int k = 0; k < count; ++k) {
    cx[k] = margin + (k % cells) * b + b / 2;
    cy[k] = margin + (k / cells) * b + b / 2;
  }

  // The clean image: dark particles on 0, and its spectrum.
  Fft fft(n);
  std::vector<float> clean((size_t)n * n, 0.0f);
  for (int k = 0; k < count; ++k)
    for (int j = 0; j < b; ++j)
      for (int i = 0; i < b; ++i)
        clean[(size_t)(cy[k] - b / 2 + j) * n + cx[k] - b / 2 + i] -= (float)part[(size_t)j * b + i];
  std::copy(clean.begin(), clean.end(), fft.real);
  fftwf_execute(fft.fwd);
  std::vector<fftwf_complex> spectrum((size_t)nh * n);
  for (size_t k = 0; k < spectrum.size(); ++k) spectrum[k][0] = fft.half[k][0], spectrum[k][1] = fft.half[k][1];

  // The round CTF through the project's model.
  const CTF_INFO ctf((float)p.kv, (float)p.cs, (float)p.ac, 0.0f, (float)(p.defocus * 1e4), (float)(p.defocus * 1e4),
                     0.0f, 0.0f);
  auto ctf_at = [&](double s) { return p.defocus > 0 ? (double)hd_ctfinfo_s0((float)s, ctf, 'F') : 1.0; };

  // Dose and drift of every frame.
  std::vector<float> dose(F);
  std::vector<float2> drift(F);
  std::uniform_real_distribution<double> wobble(-30.0, 30.0);
  for (int f = 0; f < F; ++f) {
    const double t = F > 1 ? (double)f / (F - 1) : 0.0;
    const double len = p.drift0 + (p.drift1 - p.drift0) * t;
    const double ang = (p.drift_angle + wobble(rng)) * M_PI / 180.0;
    dose[f] = (float)(p.dose * (f + 0.5));
    drift[f] = make_f2((float)(len * cos(ang)), (float)(len * sin(ang)));
  }

  // The noise level: the deviation of the clean particle with its CTF.
  auto filtered = [&](auto&& transfer, std::vector<float>& dst) {
    for (int ky = 0; ky < n; ++ky) {
      const int fy = ky < n / 2 ? ky : ky - n;
      for (int kx = 0; kx < nh; ++kx) {
        const double t = transfer(kx, fy) / ((double)n * n);
        const size_t k = (size_t)ky * nh + kx;
        fft.half[k][0] = (float)(spectrum[k][0] * t);
        fft.half[k][1] = (float)(spectrum[k][1] * t);
      }
    }
    fftwf_execute(fft.inv);
    dst.assign(fft.real, fft.real + (size_t)n * n);
  };
  auto s_of = [&](int kx, int fy) { return sqrt((double)kx * kx + (double)fy * fy) / (n * p.apix); };
  std::vector<float> truth_img;
  filtered([&](int kx, int fy) { return ctf_at(s_of(kx, fy)); }, truth_img);
  std::vector<double> mean_cut((size_t)b * b, 0.0);
  for (int k = 0; k < count; ++k)
    for (int j = 0; j < b; ++j)
      for (int i = 0; i < b; ++i)
        mean_cut[(size_t)j * b + i] += truth_img[(size_t)(cy[k] - b / 2 + j) * n + cx[k] - b / 2 + i] / count;
  double m = 0, ss = 0;
  for (double v : mean_cut) m += v / mean_cut.size();
  for (double v : mean_cut) ss += (v - m) * (v - m) / mean_cut.size();
  const double sigma_noise = p.noise * sqrt(ss);

  std::vector<float> movie((size_t)n * n * F), frame;
  std::normal_distribution<double> gauss(0.0, 1.0);
  for (int f = 0; f < F; ++f) {
    const double dx = drift[f].x, dy = drift[f].y;
    filtered(
        [&](int kx, int fy) {
          const double s = s_of(kx, fy);
          const double damage = exp(-p.damage_a * dose[f] * pow(s, p.damage_b));
          return damage * sinc(2 * M_PI * (kx * dx + fy * dy) / n) * ctf_at(s);
        },
        frame);
    float* dst = movie.data() + (size_t)f * n * n;
    for (size_t k = 0; k < (size_t)n * n; ++k) dst[k] = (float)(frame[k] + sigma_noise * gauss(rng));
  }

  mrcf_write_xyz_data(p.out.c_str(), movie.data(), n, n, F);
  char name[ZK_TXT_LEN];
  set_outname_by_suffix(name, p.out.c_str(), p.dd_suffix.c_str());
  write_dose_drift_txt(name, dose.data(), drift.data(), F);
  set_outname_by_suffix(name, p.out.c_str(), p.box_suffix.c_str());
  FILE* fp = fopen(name, "w");
  if (!fp) usage(std::string("cannot write ") + name);
  for (int k = 0; k < count; ++k) write_zavik_box_line(fp, cx[k] - b / 2, cy[k] - b / 2, b, b, 1.0f, 0, 0.0f);
  fclose(fp);
  if (p.ctfw) {
    std::vector<float> s(b / 2 + 1), w(b / 2 + 1);
    for (int r = 0; r <= b / 2; ++r) {
      s[r] = (float)(r / (b * p.apix));
      w[r] = (float)fabs(ctf_at(s[r]));
    }
    set_outname_by_suffix(name, p.out.c_str(), "_ctfw.txt");
    write_ctfw_txt(name, s.data(), w.data(), b / 2 + 1);
  }
  if (!p.truth.empty()) {
    std::vector<float> t(mean_cut.begin(), mean_cut.end());
    mrcf_write_xyz_data(p.truth.c_str(), t.data(), b, b, 1);
  }
  printf("movie_synth: %s, %d x %d x %d, %d particles of %d px, dose %.2f/frame, drift %.2f to %.2f px\n",
         p.out.c_str(), n, n, F, count, b, p.dose, p.drift0, p.drift1);
  return 0;
}
