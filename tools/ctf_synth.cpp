// ctf_synth: micrographs with a known contrast transfer function.
//
// The specimen is a random phase object (white, as many small particles in
// ice are) with a low-resolution ice texture on top; its spectrum is
// multiplied by the CTF and a B-factor envelope, and the image gets a smooth
// illumination background and white noise at a chosen level.  Movies hold the
// same specimen in every frame with independent noise, so that their sum has
// the noise level asked for.
//
//   ctf_synth --out mic.mrc [--nx 3838] [--ny 3710] [--apix 1.0] [--kv 300]
//             [--cs 2.7] [--ac 0.1] [--defu 15000] [--defv 15000] [--angle 0]
//             [--ps 0] [--bfactor 80] [--noise 3] [--ice 2] [--frames 1]
//             [--seed 1] [--truth truth.star]
//             [--tilt 0] [--tilt_axis 0] [--tilt_step 20] [--drift 0]
//             [--particles 0] [--pbox 256] [--boxes p.box] [--ptruth p.star]
//             [--ftruth frames.txt]
//
// Defocus in A, positive for underfocus; --angle in degrees: defocus U holds
// along the frequency direction at that angle, counter-clockwise from the
// image's x axis towards increasing row numbers, V across it (RELION's
// convention).  --ps in degrees; --noise is the deviation of the white noise
// in units of the deviation of the specimen image.  --truth appends the
// values as a line of the CTF engine's summary STAR file (its head first when
// the file is new; the phase-shift column when --ps is given), with the
// angle in [0, 90) and the phase shift in [-20, 160) as the engine writes
// them.
//
// --tilt tilts the specimen about an axis through the image centre at
// --tilt_axis degrees from x: the defocus grows by tan(tilt) times the
// distance from the axis, towards the side at tilt_axis + 90 degrees.  The
// image is made at defocus levels --tilt_step A apart and each pixel takes
// the two levels around its own defocus, linearly.  --drift adds that much
// defocus (A) per frame, from 0 at the first.  --particles places that many
// particle boxes of --pbox pixels at random, wholly inside, and writes them
// to --boxes (a box file) and their defocus at the centre (the frames' mean)
// to --ptruth (a STAR file); --ftruth writes "frame U V" per frame.
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

struct Para {
  std::string out, truth, boxes, ptruth, ftruth;
  double tilt = 0, tilt_axis = 0, tilt_step = 20, drift = 0;
  int particles = 0, pbox = 256;
  int nx = 3838, ny = 3710, frames = 1;
  unsigned seed = 1;
  double apix = 1.0, kv = 300, cs = 2.7, ac = 0.1, defu = 15000, defv = 15000, angle = 0, ps = 0, bfactor = 80;
  double noise = 3.0, ice = 2.0;
  bool ps_given = false;
};

[[noreturn]] void usage(const char* why) {
  fprintf(stderr, "ctf_synth: %s\n", why);
  fprintf(stderr,
          "usage: ctf_synth --out mic.mrc [--nx N] [--ny N] [--apix A] [--kv kV] [--cs mm] [--ac f]\n"
          "       [--defu A] [--defv A] [--angle deg] [--ps deg] [--bfactor A2] [--noise s] [--ice a]\n"
          "       [--frames N] [--seed N] [--truth file.star] [--tilt deg] [--tilt_axis deg]\n"
          "       [--tilt_step A] [--drift A] [--particles N] [--pbox N] [--boxes f.box] [--ptruth f.star]\n"
          "       [--ftruth f.txt]\n");
  exit(1);
}

Para parse(int argc, char** argv) {
  Para p;
  for (int i = 1; i < argc; ++i) {
    std::string k = argv[i];
    if (i + 1 >= argc) usage(("no value after " + k).c_str());
    const char* v = argv[++i];
    if (k == "--out")
      p.out = v;
    else if (k == "--truth")
      p.truth = v;
    else if (k == "--nx")
      p.nx = atoi(v);
    else if (k == "--ny")
      p.ny = atoi(v);
    else if (k == "--frames")
      p.frames = atoi(v);
    else if (k == "--seed")
      p.seed = (unsigned)strtoul(v, nullptr, 10);
    else if (k == "--apix")
      p.apix = atof(v);
    else if (k == "--kv")
      p.kv = atof(v);
    else if (k == "--cs")
      p.cs = atof(v);
    else if (k == "--ac")
      p.ac = atof(v);
    else if (k == "--defu")
      p.defu = atof(v);
    else if (k == "--defv")
      p.defv = atof(v);
    else if (k == "--angle")
      p.angle = atof(v);
    else if (k == "--ps")
      p.ps = atof(v), p.ps_given = true;
    else if (k == "--bfactor")
      p.bfactor = atof(v);
    else if (k == "--noise")
      p.noise = atof(v);
    else if (k == "--ice")
      p.ice = atof(v);
    else if (k == "--tilt")
      p.tilt = atof(v);
    else if (k == "--tilt_axis")
      p.tilt_axis = atof(v);
    else if (k == "--tilt_step")
      p.tilt_step = atof(v);
    else if (k == "--drift")
      p.drift = atof(v);
    else if (k == "--particles")
      p.particles = atoi(v);
    else if (k == "--pbox")
      p.pbox = atoi(v);
    else if (k == "--boxes")
      p.boxes = v;
    else if (k == "--ptruth")
      p.ptruth = v;
    else if (k == "--ftruth")
      p.ftruth = v;
    else
      usage(("unknown option " + k).c_str());
  }
  if (p.out.empty()) usage("--out is required");
  if (p.nx < 16 || p.ny < 16 || p.nx % 2 || p.ny % 2) usage("sizes must be even and at least 16");
  if (p.apix <= 0 || p.frames < 1) usage("--apix must be positive and --frames at least 1");
  if (!(p.tilt_step > 0) || fabs(p.tilt) >= 80) usage("--tilt_step must be positive and --tilt within 80 degrees");
  if (p.particles < 0 || p.pbox < 2 || p.pbox > p.nx || p.pbox > p.ny) usage("--pbox must fit the image");
  return p;
}

double wavelength(double kv) {
  const double v = kv * 1000.0;
  return 12.2643247 / sqrt(v * (1.0 + 0.978466e-6 * v));
}

// The specimen: white complex Gaussian samples of the half spectrum.
std::vector<double> specimen_spectrum(const Para& p, std::mt19937_64& rng) {
  const int nxh = p.nx / 2 + 1;
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<double> g((size_t)nxh * p.ny * 2);
  for (double& v : g) v = gauss(rng);
  return g;
}

// Per sample of the half spectrum the parts of the CTF that do not change
// with an added defocus: the phase at dz 0, its growth per A of defocus, the
// B-factor envelope and the ice amplitude.
struct CtfParts {
  std::vector<double> gamma0, per_A, env, amp;
};

CtfParts ctf_parts(const Para& p) {
  const int nx = p.nx, ny = p.ny, nxh = nx / 2 + 1;
  const size_t n = (size_t)nxh * ny;
  CtfParts c{std::vector<double>(n), std::vector<double>(n), std::vector<double>(n), std::vector<double>(n)};
  const double lambda = wavelength(p.kv), ccs = 0.5 * M_PI * p.cs * 1e7 * lambda * lambda * lambda;
  const double arad = p.angle * M_PI / 180.0, prad = p.ps * M_PI / 180.0;
  for (int ky = 0; ky < ny; ++ky) {
    const double fy = (ky < ny / 2 ? ky : ky - ny) / (ny * p.apix);
    for (int kx = 0; kx < nxh; ++kx) {
      const double fx = kx / (nx * p.apix), s2 = fx * fx + fy * fy;
      const double t = atan2(fy, fx) - arad;
      const double z = p.defu * cos(t) * cos(t) + p.defv * sin(t) * sin(t);
      const size_t i = (size_t)ky * nxh + kx;
      c.gamma0[i] = M_PI * lambda * z * s2 - ccs * s2 * s2 + prad;
      c.per_A[i] = M_PI * lambda * s2;
      c.env[i] = exp(-p.bfactor * s2 / 4.0);
      // Ice: strong below about 60 A, nothing at high resolution.
      c.amp[i] = 1.0 + p.ice * exp(-s2 / (2.0 * 0.012 * 0.012));
    }
  }
  return c;
}

// The specimen through the CTF with dz added to both defoci, mean 0,
// deviation 1.
std::vector<float> specimen_image(const Para& p, const std::vector<double>& g, const CtfParts& c, double dz) {
  const int nx = p.nx, ny = p.ny, nxh = nx / 2 + 1;
  const size_t n = (size_t)nxh * ny;
  fftwf_complex* f = fftwf_alloc_complex(n);
  float* img = fftwf_alloc_real((size_t)nx * ny);
  const double w = sqrt(1.0 - p.ac * p.ac);
  for (size_t i = 0; i < n; ++i) {
    const double gm = dz == 0 ? c.gamma0[i] : c.gamma0[i] + c.per_A[i] * dz;
    const double ctf = -(w * sin(gm) + p.ac * cos(gm)) * c.env[i] * c.amp[i];
    f[i][0] = (float)(ctf * g[2 * i]);
    f[i][1] = (float)(ctf * g[2 * i + 1]);
  }
  f[0][0] = f[0][1] = 0.0f;
  fftwf_plan inv = fftwf_plan_dft_c2r_2d(ny, nx, f, img, FFTW_ESTIMATE);
  fftwf_execute(inv);
  std::vector<float> out(img, img + (size_t)nx * ny);
  fftwf_destroy_plan(inv);
  fftwf_free(f);
  fftwf_free(img);
  double sum = 0, ss = 0;
  for (float v : out) sum += v;
  const double mean = sum / out.size();
  for (float v : out) ss += (v - mean) * (v - mean);
  const double sd = sqrt(ss / out.size());
  for (float& v : out) v = (float)((v - mean) / sd);
  return out;
}

// The defocus added by the tilt at pixel (x, y).
double tilt_dz(const Para& p, double x, double y) {
  const double a = p.tilt_axis * M_PI / 180.0;
  const double d = (-(x - 0.5 * (p.nx - 1)) * sin(a) + (y - 0.5 * (p.ny - 1)) * cos(a)) * p.apix;
  return tan(p.tilt * M_PI / 180.0) * d;
}

// The specimen image of one frame (defocus offset dz0): without tilt one
// transform; with it the two levels around each pixel's defocus.
std::vector<float> frame_image(const Para& p, const std::vector<double>& g, const CtfParts& c, double dz0) {
  if (p.tilt == 0) return specimen_image(p, g, c, dz0);
  const int nx = p.nx, ny = p.ny;
  double lo = 1e30, hi = -1e30;
  for (int cy : {0, ny - 1})
    for (int cx : {0, nx - 1}) {
      lo = std::min(lo, tilt_dz(p, cx, cy));
      hi = std::max(hi, tilt_dz(p, cx, cy));
    }
  const int levels = (int)ceil((hi - lo) / p.tilt_step) + 1;
  // Pixel i lies between levels j[i] and j[i] + 1, at the fraction f[i].
  std::vector<float> out((size_t)nx * ny, 0.0f), f((size_t)nx * ny);
  std::vector<int> j((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const double t = (tilt_dz(p, x, y) - lo) / p.tilt_step;
      const size_t i = (size_t)y * nx + x;
      j[i] = (int)floor(t);
      f[i] = (float)(t - j[i]);
    }
  for (int k = 0; k <= levels; ++k) {
    const std::vector<float> img = specimen_image(p, g, c, dz0 + lo + k * p.tilt_step);
    for (size_t i = 0; i < out.size(); ++i) {
      if (j[i] == k) out[i] += (1.0f - f[i]) * img[i];
      if (j[i] + 1 == k) out[i] += f[i] * img[i];
    }
  }
  return out;
}

void write_mrc(const std::string& name, const std::vector<float>& v, int nx, int ny, int nz) {
  FILE* fp = fopen(name.c_str(), "wb");
  if (!fp) usage(("cannot write " + name).c_str());
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  mrc_set_head_mmm_from_data(&head, v.data(), (uint32_t)std::min(v.size(), (size_t)UINT32_MAX));
  mrc_write_head(fp, &head);
  if (fwrite(v.data(), sizeof(float), v.size(), fp) != v.size() || fclose(fp) != 0)
    usage(("writing failed: " + name).c_str());
}

// The engine's normal forms: angle in [0, 90), phase shift in [-20, 160).
void normal_forms(double& u, double& v, double& a, double& ps) {
  a = a - 180.0 * floor((a + 90.0) / 180.0);
  if (a < 0) {
    a += 90.0;
    std::swap(u, v);
  }
  ps = ps - 180.0 * floor((ps + 20.0) / 180.0);
}

void append_truth(const Para& p) {
  FILE* check = fopen(p.truth.c_str(), "r");
  bool fresh = true;
  if (check) {
    fresh = fgetc(check) == EOF;
    fclose(check);
  }
  FILE* fp = fopen(p.truth.c_str(), "a");
  if (!fp) usage("cannot write the truth file");
  if (fresh) {
    fprintf(fp, "\ndata_\n\nloop_\n");
    const char* labels[] = {"_rlnMicrographName",
                            "_rlnCtfImage",
                            "_rlnDefocusU",
                            "_rlnDefocusV",
                            "_rlnDefocusAngle",
                            "_rlnVoltage",
                            "_rlnSphericalAberration",
                            "_rlnAmplitudeContrast",
                            "_rlnMagnification",
                            "_rlnDetectorPixelSize",
                            "_rlnCtfFigureOfMerit"};
    for (int i = 0; i < 11; ++i) fprintf(fp, "%s #%d\n", labels[i], i + 1);
    if (p.ps_given)
      fprintf(fp, "_rlnCtfMaxResolution #12\n_rlnPhaseShift #13\n");
    else
      fprintf(fp, "_rlnFinalResolution #12\n");
  }
  double u = p.defu, v = p.defv, a = p.angle, ps = p.ps;
  normal_forms(u, v, a, ps);
  std::string ctf = p.out;
  if (ctf.size() > 4 && ctf.compare(ctf.size() - 4, 4, ".mrc") == 0) ctf.resize(ctf.size() - 4);
  ctf += ".ctf";
  const double dstep = 14.0, mag = dstep * 10000.0 / p.apix;
  fprintf(fp, "%s %s:mrc %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f", p.out.c_str(),
          ctf.c_str(), u, v, a, p.kv, p.cs, p.ac, mag, dstep, 1.0, 2.0 * p.apix);
  if (p.ps_given) fprintf(fp, " %12.6f", ps);
  fprintf(fp, "\n");
  fclose(fp);
}

// Random particle boxes wholly inside the image, their box file and the
// defocus at each centre, the mean over the frames.
void write_particles(const Para& p, std::mt19937_64& rng) {
  std::uniform_int_distribution<int> ux(0, p.nx - p.pbox), uy(0, p.ny - p.pbox);
  FILE* fb = fopen(p.boxes.c_str(), "w");
  FILE* ft = p.ptruth.empty() ? nullptr : fopen(p.ptruth.c_str(), "w");
  if (!fb || (!p.ptruth.empty() && !ft)) usage("cannot write the particle files");
  if (ft)
    fprintf(ft,
            "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n_rlnDefocusU #3\n_rlnDefocusV #4\n"
            "_rlnDefocusAngle #5\n");
  const double mean_drift = p.drift * (p.frames - 1) / 2.0;
  for (int i = 0; i < p.particles; ++i) {
    const int x = ux(rng), y = uy(rng), cx = x + p.pbox / 2, cy = y + p.pbox / 2;
    fprintf(fb, "%d\t%d\t%d\t%d\t%f\t%d\t%f\n", x, y, p.pbox, p.pbox, 1.0, 0, 0.0);
    if (ft) {
      const double dz = tilt_dz(p, cx, cy) + mean_drift;
      double u = p.defu + dz, v = p.defv + dz, a = p.angle, ps = p.ps;
      normal_forms(u, v, a, ps);
      fprintf(ft, "%d %d %12.6f %12.6f %12.6f\n", cx, cy, u, v, a);
    }
  }
  fclose(fb);
  if (ft) fclose(ft);
}

}  // namespace

int main(int argc, char** argv) {
  const Para p = parse(argc, argv);
  std::mt19937_64 rng(p.seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const int nx = p.nx, ny = p.ny;
  const std::vector<double> g = specimen_spectrum(p, rng);
  const CtfParts parts = ctf_parts(p);
  std::vector<float> specimen = frame_image(p, g, parts, 0.0);

  // Illumination: a slope and a broad hump, counts around 100.
  std::vector<float> base((size_t)nx * ny);
  const double cx = nx * (0.3 + 0.4 * std::uniform_real_distribution<double>(0, 1)(rng)), cy = ny * 0.55;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const double dx = (x - cx) / nx, dy = (y - cy) / ny;
      base[(size_t)y * nx + x] = (float)(100.0 + 8.0 * ((double)x / nx - 0.5) - 5.0 * ((double)y / ny - 0.5) +
                                         6.0 * exp(-(dx * dx + dy * dy) / 0.08));
    }

  // The specimen has deviation 2 counts; the noise p.noise times that.
  const int nz = p.frames;
  std::vector<float> out((size_t)nx * ny * nz);
  const double frame_noise = p.noise * sqrt((double)nz);
  for (int k = 0; k < nz; ++k) {
    if (k > 0 && p.drift != 0) specimen = frame_image(p, g, parts, k * p.drift);
    float* f = out.data() + (size_t)k * nx * ny;
    for (size_t i = 0; i < (size_t)nx * ny; ++i)
      f[i] = (float)((base[i] + 2.0 * specimen[i] + 2.0 * frame_noise * gauss(rng)) / nz);
  }
  write_mrc(p.out, out, nx, ny, nz);
  if (!p.truth.empty()) append_truth(p);
  if (p.particles > 0 && !p.boxes.empty()) write_particles(p, rng);
  if (!p.ftruth.empty()) {
    FILE* ff = fopen(p.ftruth.c_str(), "w");
    if (!ff) usage("cannot write the frame truth");
    fprintf(ff, "# frame defocus_U defocus_V (A, before the normal form of the angle)\n");
    for (int k = 0; k < nz; ++k) fprintf(ff, "%d %.2f %.2f\n", k, p.defu + k * p.drift, p.defv + k * p.drift);
    fclose(ff);
  }
  printf("ctf_synth: %s, %d x %d x %d, U %.1f V %.1f angle %.2f ps %.2f\n", p.out.c_str(), nx, ny, nz, p.defu, p.defv,
         p.angle, p.ps);
  return 0;
}
