#include "picking/zavik56_templates.h"

#include <cstdio>
#include <cstdlib>

#include "core/report.h"
#include "core/str_utils.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"
#include "formats/mrcfile.h"

namespace {

float* alloc_stack(size_t n) {
  float* p = (float*)malloc(n ? n * sizeof(float) : 1);
  if (!p) ZK_FATAL("host memory allocation failed");
  return p;
}

}  // namespace

float* create_template_data(int& Tx, int& Ty, int& Nt, float T_radius, float center1_ratio) {
  Tx = Ty = 4 * (int)T_radius;
  Nt = 1;
  float* T = alloc_stack((size_t)Tx * Ty);
  cpu_2d_generate_rmask_soft(T, Tx, Ty, (float)(Tx - 1) / 2.0f, (float)(Ty - 1) / 2.0f, T_radius * center1_ratio,
                             (1.0f - center1_ratio) * T_radius);
  return T;
}

float* get_template_data(int& Tx, int& Ty, int& Nt, const char* T) {
  ZkFilePtr fp(ZK_FOPEN_READ(T, "rb"));
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  if (head.nx < 1 || head.ny < 1 || head.nz < 1 || !mrc_mode_readable(head.mode))
    ZK_FATAL_AFTER(zk_format("Template file %s has no usable size or mode in its head: Nx %d, Ny %d, Nz %d, mode %d.\n",
                             T, head.nx, head.ny, head.nz, head.mode),
                   "unusable template file");
  // The file must hold what its head promises before the stack is allocated:
  // a short or truncated stack is refused rather than read as zeros, and an
  // absurd head does not ask for gigabytes.
  fseek(fp.get(), 0, SEEK_END);
  const long long size = ftell(fp.get());
  const long long need =
      mrc_data_offset(&head) + (long long)head.nx * head.ny * head.nz * mrc_mode_bytes(head.mode);
  if (head.next < 0 || size < need)
    ZK_FATAL_AFTER(zk_format("Template file %s is shorter than its head promises: %lld bytes, at least %lld needed.\n",
                             T, size, need),
                   "unusable template file");
  Tx = head.nx;
  Ty = head.ny;
  Nt = head.nz;
  const size_t section = (size_t)Tx * Ty;
  float* data = alloc_stack(section * Nt);
  for (int i = 0; i < Nt; ++i) mrc_read_slice(fp.get(), &head, i, 'z', data + section * i);
  return data;
}

void destroy_template_data(float* T) { free(T); }

float* get_or_create_template_data(int& Tx, int& Ty, int& Nt, const char* T, float T_radius, float apixT,
                                   float apixM, int shrink, float center1_ratio) {
  // The same test as the one that sets auto_T, so that a run searching one
  // orientation always has the generated disc.
  if (is_str_null(T)) return create_template_data(Tx, Ty, Nt, T_radius, center1_ratio);

  float* data = get_template_data(Tx, Ty, Nt, T);
  const float scale = apixT / apixM;
  if (!(scale > 0.0f)) {
    free(data);
    ZK_FATAL("The pixel sizes of templates and micrographs must be greater than 0");
  }
  const int nx2 = (int)((float)Tx * scale), ny2 = (int)((float)Ty * scale);
  // At exactly 1 the samples stay untouched: no interpolation at all.
  if (scale != 1.0f) {
    float* scaled = alloc_stack((size_t)Nt * nx2 * ny2);
    gpu_2ds_scale(scaled, data, Tx, Ty, Nt, scale);
    free(data);
    data = scaled;
    Tx = nx2;
    Ty = ny2;
  }
  if (shrink != 1) {
    const int sx = Tx / shrink, sy = Ty / shrink;
    float* shrunk = alloc_stack((size_t)Nt * sx * sy);
    cpu_2ds_meanshrink(shrunk, data, Tx, Ty, Nt, shrink);
    free(data);
    data = shrunk;
    Tx = sx;
    Ty = sy;
  }
  return data;
}

void rmask_subtract_background(float* T, float R, int nx, int ny) {
  const float cx = (float)(nx - 1) / 2.0f, cy = (float)(ny - 1) / 2.0f;
  double sum = 0.0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const float dx = (float)x - cx, dy = (float)y - cy;
      float& v = T[(size_t)y * nx + x];
      if (dx * dx + dy * dy > R * R)
        v = 0.0f;
      else
        sum += v;
    }
  // Divided by the whole box, not by the disc's area.
  const float mean = (float)(sum / ((double)nx * ny));
  for (size_t i = 0; i < (size_t)nx * ny; ++i) T[i] -= mean;
}

void normalize_template_by_type(float* T, int Tx, int Ty, int type, float T_radius, float center1_ratio) {
  switch (type) {
    case 1:
      hm_submean_inplace(T, (size_t)Tx * Ty);
      break;
    case 2:
      rmask_subtract_background(T, T_radius, Tx, Ty);
      break;
    case 3:
      // Flat over most of the disc with a narrow edge: the shares of the
      // generated template the other way round.
      cpu_2d_normz_withRmask_applymask_inplace(T, Tx, Ty, (float)(Tx - 1) / 2.0f, (float)(Ty - 1) / 2.0f,
                                               T_radius * (1.0f - center1_ratio), T_radius * center1_ratio);
      break;
    default:
      break;
  }
}
