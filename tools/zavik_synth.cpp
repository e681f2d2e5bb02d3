// zavik_synth: synthetic micrographs with particles at known positions.
//
// The image is a weak-phase picture of particle-like densities (three soft
// Gaussian lobes each, turned by a random in-plane angle) seen through a simple
// contrast transfer function, on a sloped background, with a few dark
// contamination discs and white noise.  It writes the micrograph in any MRC
// mode the picker reads, the true particle centres as an EMAN box file, and on
// request a stack of templates (projections of the same particle at evenly
// spaced angles, white on black, as users usually provide them).
//
//   zavik_synth --out mic.mrc [--nx 3838] [--ny 3710] [--apix 1.34]
//               [--diameter 200] [--count N] [--defocus 1.5] [--noise 1.0]
//               [--slope 0.3] [--contamination 2] [--mode 2] [--seed 1]
//               [--truth mic_truth.box] [--templates T.mrcs --ntemplates 6]
//               [--next 0]
//
// --next puts an extended header of that many bytes before the samples of the
// micrograph and the templates, as microscope software does.  --carbon covers
// that fraction of the micrograph with carbon film (a darker, textured side
// beyond a straight edge), --aggregates adds dark lumps of one to three
// particle sizes, --gradient a smooth change of ice thickness of that height;
// --features lists the contamination, aggregates and edge for scoring.
//
// Lengths in angstrom, defocus in micrometres.  --noise is the deviation of the
// white noise in units of the peak contrast of a particle: 0.5 is easy, 2 hard.
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "formats/mrcfile.h"

namespace {

struct SynthPara {
  std::string out, truth, templates, features;
  int nx = 3838, ny = 3710, count = -1, mode = 2, ntemplates = 6, contamination = 2, next = 0, aggregates = 0;
  unsigned seed = 1;
  double apix = 1.34, diameter = 200, defocus = 1.5, kv = 300, cs = 2.7, ac = 0.1, bfactor = 150;
  double noise = 1.0, slope = 0.3, carbon = 0.0, gradient = 0.0;
};

struct Blob {
  double x, y, psi;
};

[[noreturn]] void usage(const char* why) {
  fprintf(stderr, "zavik_synth: %s\n", why);
  fprintf(stderr,
          "usage: zavik_synth --out mic.mrc [--nx N] [--ny N] [--apix A] [--diameter A] [--count N]\n"
          "       [--defocus um] [--kv kV] [--cs mm] [--ac f] [--bfactor A2] [--noise s] [--slope s]\n"
          "       [--contamination N] [--mode 0|1|2|6|12] [--seed N] [--truth file.box]\n"
          "       [--templates T.mrcs] [--ntemplates N] [--next bytes] [--carbon fraction]\n"
          "       [--aggregates N] [--gradient g] [--features file]\n");
  exit(1);
}

SynthPara parse(int argc, char** argv) {
  SynthPara p;
  for (int i = 1; i < argc; ++i) {
    std::string k = argv[i];
    if (i + 1 >= argc) usage(("no value after " + k).c_str());
    const char* v = argv[++i];
    if (k == "--out") p.out = v;
    else if (k == "--truth") p.truth = v;
    else if (k == "--templates") p.templates = v;
    else if (k == "--features") p.features = v;
    else if (k == "--aggregates") p.aggregates = atoi(v);
    else if (k == "--carbon") p.carbon = atof(v);
    else if (k == "--gradient") p.gradient = atof(v);
    else if (k == "--nx") p.nx = atoi(v);
    else if (k == "--ny") p.ny = atoi(v);
    else if (k == "--count") p.count = atoi(v);
    else if (k == "--mode") p.mode = atoi(v);
    else if (k == "--ntemplates") p.ntemplates = atoi(v);
    else if (k == "--contamination") p.contamination = atoi(v);
    else if (k == "--next") p.next = atoi(v);
    else if (k == "--seed") p.seed = (unsigned)strtoul(v, nullptr, 10);
    else if (k == "--apix") p.apix = atof(v);
    else if (k == "--diameter") p.diameter = atof(v);
    else if (k == "--defocus") p.defocus = atof(v);
    else if (k == "--kv") p.kv = atof(v);
    else if (k == "--cs") p.cs = atof(v);
    else if (k == "--ac") p.ac = atof(v);
    else if (k == "--bfactor") p.bfactor = atof(v);
    else if (k == "--noise") p.noise = atof(v);
    else if (k == "--slope") p.slope = atof(v);
    else usage(("unknown option " + k).c_str());
  }
  if (p.out.empty()) usage("--out is required");
  if (p.nx < 16 || p.ny < 16 || p.nx % 2 || p.ny % 2) usage("sizes must be even and at least 16");
  if (p.apix <= 0 || p.diameter <= 0) usage("--apix and --diameter must be positive");
  if (p.mode != 0 && p.mode != 1 && p.mode != 2 && p.mode != 6 && p.mode != 12) usage("--mode must be 0, 1, 2, 6 or 12");
  if (p.ntemplates < 1) usage("--ntemplates must be at least 1");
  if (p.next < 0) usage("--next must not be negative");
  if (p.carbon < 0 || p.carbon > 0.9) usage("--carbon must lie between 0 and 0.9");
  if (p.aggregates < 0) usage("--aggregates must not be negative");
  return p;
}

// Projected density of one particle at offset (dx, dy) in angstrom from its
// centre, turned by psi degrees: three soft lobes inside the particle radius,
// peak near 1.  Asymmetric on purpose, so that template angles matter.
double particle_density(double dx, double dy, double psi, double radius) {
  static const double lobes[3][3] = {{-0.40, 0.00, 0.34}, {0.30, 0.22, 0.30}, {0.18, -0.32, 0.26}};
  double c = cos(psi * M_PI / 180.0), s = sin(psi * M_PI / 180.0);
  double u = (c * dx + s * dy) / radius, v = (-s * dx + c * dy) / radius;  // particle frame
  double d = 0;
  for (const auto& l : lobes) {
    double ex = u - l[0], ey = v - l[1];
    d += exp(-(ex * ex + ey * ey) / (2 * l[2] * l[2]));
  }
  return d / 1.6;
}

// Relativistic electron wavelength in angstrom.
double wavelength(double kv) {
  double v = kv * 1000.0;
  return 12.2639 / sqrt(v + 0.97845e-6 * v * v);
}

// Multiplies the half spectrum of an nx x ny image by the CTF and envelope.
void apply_ctf(fftwf_complex* f, int nx, int ny, const SynthPara& p) {
  const double lambda = wavelength(p.kv), df = p.defocus * 1e4, cs = p.cs * 1e7;
  const double w = sqrt(1.0 - p.ac * p.ac);
  const int nxh = nx / 2 + 1;
  for (int ky = 0; ky < ny; ++ky) {
    double fy = (ky < ny / 2 ? ky : ky - ny) / (ny * p.apix);
    for (int kx = 0; kx < nxh; ++kx) {
      double fx = kx / (nx * p.apix), k2 = fx * fx + fy * fy;
      double chi = M_PI * lambda * df * k2 - 0.5 * M_PI * cs * lambda * lambda * lambda * k2 * k2;
      double ctf = -(w * sin(chi) + p.ac * cos(chi)) * exp(-p.bfactor * k2 / 4.0);
      f[(size_t)ky * nxh + kx][0] *= (float)ctf;
      f[(size_t)ky * nxh + kx][1] *= (float)ctf;
    }
  }
}

// Writes floats in the asked MRC mode; integer modes are rounded and clamped.
// An extended header of next bytes ("FEI1" and filler, as microscope software
// writes one) goes between the head and the samples.
void write_mrc(const std::string& name, const std::vector<float>& v, int nx, int ny, int nz, int mode, int next) {
  FILE* fp = fopen(name.c_str(), "wb");
  if (!fp) {
    fprintf(stderr, "zavik_synth: cannot write %s\n", name.c_str());
    exit(1);
  }
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  float mn = v[0], mx = v[0];
  double sum = 0;
  for (float x : v) {
    mn = std::min(mn, x);
    mx = std::max(mx, x);
    sum += x;
  }
  head.amin = mn;
  head.amax = mx;
  head.amean = (float)(sum / v.size());
  head.next = next;
  mrc_write_head(fp, &head);
  for (int i = 0; i < next; ++i) fputc(i < 4 ? "FEI1"[i] : 0xA5, fp);
  for (float x : v) {
    switch (mode) {
      case 0: {
        uint8_t b = (uint8_t)std::min(255.0f, std::max(0.0f, nearbyintf(x)));
        fwrite(&b, 1, 1, fp);
        break;
      }
      case 1: {
        int16_t s = (int16_t)std::min(32767.0f, std::max(-32768.0f, nearbyintf(x)));
        fwrite(&s, 2, 1, fp);
        break;
      }
      case 6: {
        uint16_t s = (uint16_t)std::min(65535.0f, std::max(0.0f, nearbyintf(x)));
        fwrite(&s, 2, 1, fp);
        break;
      }
      case 12: {
        _Float16 h = (_Float16)x;
        fwrite(&h, 2, 1, fp);
        break;
      }
      default:
        fwrite(&x, 4, 1, fp);
    }
  }
  if (fclose(fp) != 0) {
    fprintf(stderr, "zavik_synth: writing %s failed\n", name.c_str());
    exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  SynthPara p = parse(argc, argv);
  std::mt19937_64 rng(p.seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  const double radius_px = 0.5 * p.diameter / p.apix;
  const int box = (int)(1.33 * p.diameter / p.apix) / 2 * 2;
  const int nx = p.nx, ny = p.ny;

  // Dark contamination discs, two to four particle diameters across.
  std::vector<Blob> contam;
  const double contam_max = 0.06 * std::min(nx, ny);
  for (int c = 0; c < p.contamination; ++c)
    contam.push_back({uni(rng) * nx, uni(rng) * ny, std::min(contam_max, (1.0 + 1.0 * uni(rng)) * 2 * radius_px)});

  // What real micrographs have besides contamination, drawn from a generator
  // of their own so that the particles and the noise of a seed stay the same
  // with and without them: a carbon edge (the film covers the side where
  // ex * x + ey * y > edge_c: darker, with a texture of its own), small dark
  // aggregates of one to three particle sizes, and a smooth ice gradient.
  std::mt19937_64 rng2((uint64_t)p.seed * 7919u + 17u);
  std::uniform_real_distribution<double> uni2(0.0, 1.0);
  double ex = 0, ey = 0, edge_c = 1e300;
  if (p.carbon > 0) {
    const double a = 2 * M_PI * uni2(rng2);
    ex = cos(a);
    ey = sin(a);
    // The offset that leaves the asked fraction of the area on the film.
    std::vector<double> proj;
    for (int y = 0; y < ny; y += 8)
      for (int x = 0; x < nx; x += 8) proj.push_back(ex * x + ey * y);
    std::sort(proj.begin(), proj.end());
    edge_c = proj[(size_t)((1.0 - p.carbon) * (proj.size() - 1))];
  }
  std::vector<Blob> aggregates;  // x, y, radius of the whole; each of two or three discs
  std::vector<std::vector<Blob>> lumps;
  for (int k = 0; k < p.aggregates; ++k) {
    const double size = (0.5 + uni2(rng2)) * radius_px;  // disc radius: half to one and a half particle radii
    Blob c{size * 2 + uni2(rng2) * (nx - 4 * size), size * 2 + uni2(rng2) * (ny - 4 * size), 0};
    std::vector<Blob> parts_of;
    const int n = 2 + (int)(2 * uni2(rng2));
    for (int j = 0; j < n; ++j) {
      const double a = 2 * M_PI * uni2(rng2), r = size * uni2(rng2);
      parts_of.push_back({c.x + r * cos(a), c.y + r * sin(a), size * (0.6 + 0.4 * uni2(rng2))});
    }
    c.psi = 2 * size;
    aggregates.push_back(c);
    lumps.push_back(parts_of);
  }
  const double ph1 = 2 * M_PI * uni2(rng2), ph2 = 2 * M_PI * uni2(rng2);

  // Particle centres: apart by 1.3 diameters, clear of the edges, the
  // contamination, the aggregates and the film, so that every true particle
  // can be picked.
  int want = p.count;
  if (want < 0) want = (int)(0.25 * nx * ny / ((2.6 * radius_px) * (2.6 * radius_px)));
  std::vector<Blob> parts;
  const double margin = box / 2 + radius_px, sep = 2.6 * radius_px;
  for (int tries = 0; (int)parts.size() < want && tries < 200 * (want + 1); ++tries) {
    Blob b{margin + uni(rng) * (nx - 2 * margin), margin + uni(rng) * (ny - 2 * margin), 360.0 * uni(rng)};
    if (nx <= 2 * margin || ny <= 2 * margin) break;
    bool ok = true;
    for (const Blob& q : parts) ok = ok && hypot(b.x - q.x, b.y - q.y) >= sep;
    for (const Blob& c : contam) ok = ok && hypot(b.x - c.x, b.y - c.y) >= c.psi + 2 * radius_px;
    for (const Blob& c : aggregates) ok = ok && hypot(b.x - c.x, b.y - c.y) >= c.psi + 2 * radius_px;
    ok = ok && ex * b.x + ey * b.y < edge_c - 2 * radius_px;
    if (ok) parts.push_back(b);
  }

  // Projected densities, then the CTF.
  const int nxh = nx / 2 + 1;
  float* img = fftwf_alloc_real((size_t)nx * ny);
  fftwf_complex* spectrum = fftwf_alloc_complex((size_t)nxh * ny);
  memset(img, 0, sizeof(float) * nx * ny);
  const int reach = (int)ceil(1.3 * radius_px);
  for (const Blob& b : parts)
    for (int y = std::max(0, (int)b.y - reach); y <= std::min(ny - 1, (int)b.y + reach); ++y)
      for (int x = std::max(0, (int)b.x - reach); x <= std::min(nx - 1, (int)b.x + reach); ++x)
        img[(size_t)y * nx + x] += (float)particle_density((x - b.x) * p.apix, (y - b.y) * p.apix, b.psi, 0.5 * p.diameter);
  fftwf_plan fwd = fftwf_plan_dft_r2c_2d(ny, nx, img, spectrum, FFTW_ESTIMATE);
  fftwf_plan inv = fftwf_plan_dft_c2r_2d(ny, nx, spectrum, img, FFTW_ESTIMATE);
  fftwf_execute(fwd);
  apply_ctf(spectrum, nx, ny, p);
  fftwf_execute(inv);
  // Peak contrast of one particle after the CTF sets the unit of the noise.
  double peak = 1e-12;
  for (size_t i = 0; i < (size_t)nx * ny; ++i) {
    img[i] /= (float)((size_t)nx * ny);
    peak = std::max(peak, (double)fabsf(img[i]));
  }

  // The aggregates, the film and the gradient at one pixel.  The film's
  // texture is smooth noise of its own: a sum of waves of a half to one
  // particle diameter, of deviation 0.4 altogether.
  std::vector<double> waves;
  for (int k = 0; k < 12 && p.carbon > 0; ++k)
    waves.insert(waves.end(), {2 * M_PI * uni2(rng2), M_PI * (1.0 + uni2(rng2)), 2 * M_PI * uni2(rng2)});
  auto features = [&](int x, int y) {
    double v = 0;
    for (const auto& lump : lumps)
      for (const Blob& c : lump) {
        const double d = hypot(x - c.x, y - c.y);
        if (d < c.psi + 12) v -= 2.0 * (d <= c.psi ? 1.0 : exp(-(d - c.psi) * (d - c.psi) / 18.0));
      }
    if (p.carbon > 0) {
      const double s = ex * x + ey * y - edge_c;  // signed distance from the edge, pixels
      if (s > -6) {
        double t = 0;
        for (size_t k = 0; k < waves.size(); k += 3)
          t += cos(waves[k + 2] + (cos(waves[k]) * x + sin(waves[k]) * y) * waves[k + 1] / radius_px);
        v += (s >= 6 ? 1.0 : (s + 6) / 12.0) * (-1.5 + 0.16 * t);
      }
    }
    if (p.gradient != 0)
      v += p.gradient * 0.5 * (cos(ph1 + 2 * M_PI * x / (1.3 * nx)) + cos(ph2 + 2 * M_PI * y / (1.1 * ny)));
    return v;
  };

  // Background, contamination, noise; counts around 100.
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<float> out((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      double v = img[(size_t)y * nx + x] / peak;  // particles: down to about -1
      v += p.slope * ((double)x / nx - 0.5) + 0.5 * p.slope * ((double)y / ny - 0.5);
      for (const Blob& c : contam) {
        double d = hypot(x - c.x, y - c.y);
        if (d < c.psi + 8) v -= 4.0 * (d <= c.psi ? 1.0 : exp(-(d - c.psi) * (d - c.psi) / 8.0));
      }
      if (!lumps.empty() || p.carbon > 0 || p.gradient != 0) v += features(x, y);
      v += p.noise * gauss(rng);
      out[(size_t)y * nx + x] = (float)(100.0 + 12.0 * v);
    }
  write_mrc(p.out, out, nx, ny, 1, p.mode, p.next);

  if (!p.truth.empty()) {
    FILE* fp = fopen(p.truth.c_str(), "w");
    if (!fp) usage("cannot write the truth file");
    for (const Blob& b : parts) fprintf(fp, "%d\t%d\t%d\t%d\n", (int)lround(b.x) - box / 2, (int)lround(b.y) - box / 2, box, box);
    fclose(fp);
  }

  if (!p.features.empty()) {
    FILE* fp = fopen(p.features.c_str(), "w");
    if (!fp) usage("cannot write the features file");
    for (const Blob& c : contam) fprintf(fp, "contamination %.1f %.1f %.1f\n", c.x, c.y, c.psi);
    for (const Blob& c : aggregates) fprintf(fp, "aggregate %.1f %.1f %.1f\n", c.x, c.y, c.psi);
    if (p.carbon > 0) fprintf(fp, "carbon %.6f %.6f %.1f\n", ex, ey, edge_c);
    fclose(fp);
  }

  if (!p.templates.empty()) {
    // Box of about 1.5 diameters, even; centre at ((n - 1)/2, (n - 1)/2).
    int tb = 2 * (int)ceil(0.75 * p.diameter / p.apix);
    std::vector<float> stack((size_t)tb * tb * p.ntemplates);
    double c = (tb - 1) / 2.0;
    for (int t = 0; t < p.ntemplates; ++t)
      for (int y = 0; y < tb; ++y)
        for (int x = 0; x < tb; ++x)
          stack[((size_t)t * tb + y) * tb + x] =
              (float)particle_density((x - c) * p.apix, (y - c) * p.apix, 360.0 * t / p.ntemplates, 0.5 * p.diameter);
    write_mrc(p.templates, stack, tb, tb, p.ntemplates, 2, p.next);
  }
  printf("zavik_synth: %s, %d x %d, mode %d, %zu particles, box %d\n", p.out.c_str(), nx, ny, p.mode, parts.size(), box);
  fftwf_destroy_plan(fwd);
  fftwf_destroy_plan(inv);
  fftwf_free(img);
  fftwf_free(spectrum);
  return 0;
}
