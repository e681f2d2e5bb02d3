#include "movie/pre_shiny6_run.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/report.h"
#include "device/cuda_fft.h"
#include "device/launch.h"

void lombar_check_first_parameters(LOMBAR_PARA* para, int i) {
  (void)i;
  const char* first = para->first_movie[0] ? para->first_movie : para->movies.at(0);
  MRC_HEAD head;
  mrcf_read_head(first, &head);
  if (!is_mrc_square(&head)) ZK_FATAL("MRC file must be square! Clip your micrographs if they are not square.");
}

void lombar_set_current_parameters(LOMBAR_PARA* para, int i) {
  strlcpy(para->movie, para->movies.at((size_t)i));
  mrcf_read_head(para->movie, &para->head);
  set_outname_by_suffix(para->out_name, para->movie, "_wave.mrc");
  set_outname_by_suffix(para->name_a, para->movie, para->suffix_a);
  set_outname_by_suffix(para->name_b, para->movie, para->suffix_b);
  set_outname_by_suffix(para->name_c, para->movie, para->suffix_c);
  set_outname_by_suffix(para->particles_name, para->movie, "_particles.mrcs");
}

namespace {

using HostBlock = std::unique_ptr<float, decltype(&free)>;

// Where the frames of the particles come from: a stack in host memory,
// particle p's frame f at (p * F + f) * nx * ny, or the cut-outs of a movie in
// device memory.
struct ParticleFrames {
  const float* stack = nullptr;
  const LombarCut* cut = nullptr;
  int nx = 0, ny = 0, F = 0;
  mutable std::vector<float> host;
  mutable ZkDeviceArray<float> d_one;

  size_t image() const { return (size_t)nx * ny; }
  // Frames first .. first + nf - 1 of particles p0 .. p0 + np - 1 into device
  // memory, particle after particle.
  void to_device(int p0, int np, int first, int nf, float* d) const {
    if (cut) {
      lombar_cut_to_device(*cut, p0, np, first, nf, d);
      return;
    }
    for (int k = 0; k < np; ++k)
      ZK_CHECK(memcpy_H2D(d + (size_t)k * nf * image(), stack + ((size_t)(p0 + k) * F + first) * image(),
                          (size_t)nf * image() * sizeof(float)));
  }
  // The same frames of one particle in host memory.
  const float* on_host(int p, int first, int nf) const {
    if (!cut) return stack + ((size_t)p * F + first) * image();
    const size_t n = (size_t)nf * image();
    if (d_one.size() != n) d_one.allocate(n);
    host.resize(n);
    lombar_cut_to_device(*cut, p, 1, first, nf, d_one.get());
    ZK_CHECK(memcpy_D2H(host.data(), d_one.get(), n * sizeof(float)));
    return host.data();
  }
};

// The geometry of one movie's run.
struct WaveJob {
  int nx, ny, nxh, P, first, last, nf;
  size_t image() const { return (size_t)nx * ny; }
  size_t plane() const { return (size_t)nxh * ny; }
};

// The divisor of the normalised transforms, as the FFT layer forms it.
float fft_norm(int nx, int ny) { return (float)sqrt((double)nx * (double)ny); }

// The text that the staged device weighting prints for each particle: the
// same for every particle of a movie, so it is made once.
std::string device_wave_text(const LOMBAR_PARA* para, const WaveJob& job) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* fp = open_memstream(&buf, &len);
  if (!fp) ZK_FATAL("Host memory allocation failed");
  fprintf(fp, "fft ... \n.weighting ...\n");
  fprint_dose_drif_ctfw(fp, para->dose.data() + job.first, para->drift.data() + job.first, job.nf, para->ctfw.data(),
                        job.nxh);
  fprint_wave_sizes(fp, para->apix, job.nxh, job.ny, job.nf);
  fprintf_psp(fp, para->gps);
  fprintf(fp, "invert fft ...\n");
  fclose(fp);
  std::string text(buf, len);
  free(buf);
  return text;
}

// Particles per batch within the memory budget: each takes its frames, their
// spectra, the average and the image.  The rows of a batch's launches stay
// within the grid's limits.
int batch_size(const LombarRunOptions& opt, const WaveJob& job) {
  size_t budget = opt.batch_bytes;
  if (budget == 0) budget = zk_on_gpu() ? ((size_t)1 << 30) : ((size_t)256 << 20);
  const size_t per = (size_t)job.nf * (job.image() * sizeof(float) + job.plane() * sizeof(float2)) +
                     job.plane() * sizeof(float2) + job.image() * sizeof(float);
  size_t b = budget / per;
  const size_t rows = (size_t)65535 * 32 / ((size_t)job.nf * job.ny);
  if (b > rows) b = rows;
  if (b > (size_t)job.P) b = (size_t)job.P;
  return b < 1 ? 1 : (int)b;
}

// The batched transforms of one movie's run, for the batch size in use.  They
// are not taken from the plan cache: the batch follows the particle count of
// each movie, and on the GPU every cached size would keep its cuFFT plan and
// work area in device memory until the run ends.
struct BatchPlans {
  ZkFftPlan r2c = nullptr, c2r = nullptr;
  int np = 0;
  BatchPlans() = default;
  BatchPlans(const BatchPlans&) = delete;
  BatchPlans& operator=(const BatchPlans&) = delete;
  ~BatchPlans() { release(); }
  void release() {
    zk_fft_plan_destroy(r2c);
    zk_fft_plan_destroy(c2r);
    r2c = c2r = nullptr;
    np = 0;
  }
  // Plans for np particles of nf frames each.
  void fit(int nx, int ny, int nf, int n) {
    if (n == np) return;
    release();
    r2c = zk_fft_plan_r2c(nx, ny, n * nf);
    c2r = zk_fft_plan_c2r(nx, ny, n);
    np = n;
  }
};

// Device weighting of the whole stack, a batch of particles at a time: one
// weight table for the movie, batched transforms, and per particle the text
// of the staged operations.
void wave_batched(const LOMBAR_PARA* para, const ParticleFrames& src, const WaveJob& job, float* result) {
  const int nxh = job.nxh, ny = job.ny, nf = job.nf;
  const size_t plane = job.plane(), image = job.image();
  ZkDeviceArray<float> d_dose(nf), d_ctfw(nxh), d_W(plane * nf), d_norm(plane), d_cw(plane);
  ZkDeviceArray<float2> d_drift(nf);
  ZK_CHECK(memcpy_H2D(d_dose.get(), para->dose.data() + job.first, nf * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_drift.get(), para->drift.data() + job.first, nf * sizeof(float2)));
  ZK_CHECK(memcpy_H2D(d_ctfw.get(), para->ctfw.data(), nxh * sizeof(float)));
  hcuda_2ds_fft_dose_dft_wtable(d_W.get(), d_norm.get(), d_cw.get(), nxh, ny, nf, para->apix, d_dose.get(),
                                d_drift.get(), d_ctfw.get(), para->gps);

  const int B = batch_size(para->options, job);
  ZkDeviceArray<float> d_frames((size_t)B * nf * image), d_out((size_t)B * image);
  ZkDeviceArray<float2> d_spec((size_t)B * nf * plane), d_ave((size_t)B * plane);
  const float f = fft_norm(job.nx, job.ny);
  const std::string text = device_wave_text(para, job);
  BatchPlans plans;
  for (int p0 = 0; p0 < job.P; p0 += B) {
    const int np = job.P - p0 < B ? job.P - p0 : B;
    src.to_device(p0, np, job.first, nf, d_frames.get());
    float2* spectra = d_spec.get();
    plans.fit(job.nx, ny, nf, np);
    zk_fft_exec_r2c(plans.r2c, d_frames.get(), spectra);
    launch_1d((size_t)np * nf * plane, [=] HD(unsigned int k) { spectra[k] = make_f2(spectra[k].x / f, spectra[k].y / f); });
    hcuda_2ds_fft_wtable_wave_many(spectra, d_ave.get(), nxh, ny, nf, np, d_W.get(), d_norm.get(), d_cw.get());
    float* out = d_out.get();
    zk_fft_exec_c2r(plans.c2r, d_ave.get(), out);
    launch_1d((size_t)np * image, [=] HD(unsigned int k) { out[k] = out[k] / f; });
    ZK_CHECK(memcpy_D2H(result + (size_t)p0 * image, out, (size_t)np * image * sizeof(float)));
    for (int p = p0; p < p0 + np; ++p) {
      fwrite(text.data(), 1, text.size(), stdout);
      printf("Particle %d \n", p);
    }
  }
  fflush(stdout);
}

// Each particle through the staged host operations, by gps.device.
void wave_staged(const LOMBAR_PARA* para, const ParticleFrames& src, const WaveJob& job, float* result) {
  const GPS_PARA& g = para->gps;
  const size_t plane = job.plane(), image = job.image();
  std::vector<float2> spectra(plane * job.nf), ave(plane);
  const float* dose = para->dose.data() + job.first;
  const float2* drift = para->drift.data() + job.first;
  const int nw = job.last - job.first;
  std::vector<float> weights(plane * (nw > 0 ? nw : 0));
  for (int p = 0; p < job.P; ++p) {
    const float* frames = src.on_host(p, job.first, job.nf);
    float* img = result + (size_t)p * image;
    switch (g.device) {
      case 2:
        printf("fft ... \n");
        gpu_2ds_fft_r2c(frames, spectra.data(), job.nx, job.ny, job.nf);
        printf("weighting ...\n");
        gpu_2ds_fft_dose_dft_ctf_wave(para->apix, spectra.data(), ave.data(), job.nxh, job.ny, job.nf, dose, drift,
                                      para->ctfw.data(), g);
        printf("invert fft ...\n");
        gpu_2d_fft_c2r(ave.data(), img, job.nx, job.ny);
        break;
      case 1:
        printf("\n");
        gpu_2ds_fft_r2c(frames, spectra.data(), job.nx, job.ny, job.nf);
        printf("\n");
        cpu_2ds_fft_dose_dft_ctf_wave(para->apix, spectra.data(), ave.data(), job.nxh, job.ny, job.nf, dose, drift, g);
        gpu_2d_fft_c2r(ave.data(), img, job.nx, job.ny);
        break;
      case 3:
        printf("device %d first%d last %d\n", 3, job.first, job.last);
        gpu_2ds_fft_r2c(frames, spectra.data(), job.nx, job.ny, job.nf);
        cpu_2ds_fftout_r2c_ave(ave.data(), spectra.data(), job.nx, job.ny, job.nf);
        gpu_2d_fft_c2r(ave.data(), img, job.nx, job.ny);
        break;
      case 4:
        // The weights from the movie's first frame on, one plane fewer than
        // the frames used; the file is replaced for each particle.
        if (nw > 0)
          gpu_2ds_fft_dose_dft_wgen_swap(para->apix, weights.data(), job.nxh, job.ny, nw, para->dose.data(),
                                         para->drift.data(), g);
        mrcf_write_xyz_data("Weights3D.mrcs", weights.data(), job.nxh, job.ny, nw);
        break;
      default:
        break;
    }
    printf("Particle %d \n", p);
  }
  fflush(stdout);
}

}  // namespace

int mrcsf_dose_drift_ctf_wave_many(LOMBAR_PARA* para, int i) {
  (void)i;
  const int F = para->head.nz;
  const LombarCut& cut = para->cut;
  MRC_HEAD sh;
  HostBlock stack(nullptr, &free);
  if (cut.ready) {
    // The head that extraction gives its stack.
    mrc_init_head(&sh);
    mrc_set_head_xyz_mode(&sh, cut.w, cut.h, cut.n * cut.nz, MRC_MODE_FLOAT);
    if (cut.nz != F) ZK_FATAL("Movie frame number not divided by ! ");
  } else {
    mrcf_read_head(para->particles_name, &sh);
    if (F < 1 || sh.nz % F != 0) ZK_FATAL("Movie frame number not divided by ! ");
    stack.reset(get_mrcf_data_all(para->particles_name));
  }

  WaveJob job;
  job.nx = sh.nx;
  job.ny = sh.ny;
  job.nxh = sh.nx / 2 + 1;
  job.P = sh.nz / F;
  job.first = para->first < 0 ? 0 : para->first;
  job.last = para->last > F - 1 ? F - 1 : para->last;
  job.nf = job.last - job.first + 1;
  if (job.nf < 1 && job.P > 0)
    ZK_FATAL(zk_format("No frames to weight: first frame %d, last frame %d", job.first, job.last).c_str());
  if ((int)para->dose.size() < F || (int)para->drift.size() < F)
    ZK_FATAL(zk_format("Dose and drift of %d frames for a movie of %d frames", (int)para->dose.size(), F).c_str());
  if ((int)para->ctfw.size() < job.nxh)
    ZK_FATAL(zk_format("CTF weights of %d radii for spectra of %d", (int)para->ctfw.size(), job.nxh).c_str());

  ParticleFrames src;
  src.stack = stack.get();
  src.cut = cut.ready ? &cut : nullptr;
  src.nx = job.nx;
  src.ny = job.ny;
  src.F = F;
  std::vector<float> result(job.image() * job.P + 1, 0.0f);
  if (job.P > 0) {
    if (para->gps.device == 2 && para->options.batched)
      wave_batched(para, src, job, result.data());
    else
      wave_staged(para, src, job, result.data());
  }
  sh.nz = job.P;
  mrcf_write_head_data(para->out_name, &sh, result.data());
  return 0;
}
