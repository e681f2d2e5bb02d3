#include "volume/process3d_raw.h"

#include <sys/time.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"

// The map of output voxels to sample positions: s = c + M*(v - c) + u.
struct ZkAffine3 {
  R_Mat3D M;
  T_Vec3D u;
  double cx, cy, cz;
};

// One operator of the expansion as the kernel uses it: M = R^-1 and w = M*T.
struct ZkSymOp {
  R_Mat3D M;
  T_Vec3D w;
};

namespace {

bool g_columns_on_host = false;

// The host's own order of the work, unless the GPU's columns are asked for.
bool host_order() { return !zk_on_gpu() && !g_columns_on_host; }

size_t nvox(uint32_t nx, uint32_t ny, uint32_t nz) { return (size_t)nx * ny * nz; }

double now_seconds() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1000000.0;
}

void print_timer(const char* name, double start) {
  printf(">>>>>>TIME<<<<<<%32s: %fs\n", name, now_seconds() - start);
  fflush(stdout);
}

ZkAffine3 affine_of(RT_Mat3D rt, int dir, double cx, double cy, double cz) {
  ZkAffine3 a;
  a.cx = cx, a.cy = cy, a.cz = cz;
  if (dir == -1) {
    a.M = rt.R;
    a.u = rt.T;
    return a;
  }
  double det = 0.0;
  a.M = hd_rmat3d_inverse(rt.R, &det);
  if (det == 0.0) ZK_FATAL("Singular transform matrix");
  const T_Vec3D mt = hd_rmat3d_x_vec(a.M, rt.T);
  a.u = T_Vec3D{-mt.x, -mt.y, -mt.z};
  return a;
}

ZkAffine3 euler_affine(float rot, float tilt, float psi, int dir, float cx, float cy, float cz) {
  ZkAffine3 a;
  a.M = hd_euler_kernel_rmat3d(rot, tilt, psi, dir);
  a.u = T_Vec3D{0.0, 0.0, 0.0};
  a.cx = cx, a.cy = cy, a.cz = cz;
  return a;
}

// Host copies of small records for the device.
template <class T>
struct ZkStaged {
  ZkDeviceArray<T> d;
  ZkStaged(const T* h, size_t n) : d(n > 0 ? n : 1) {
    if (n > 0) ZK_CHECK(memcpy_H2D(d.get(), h, n * sizeof(T)));
  }
};

}  // namespace

// Sample position of v under a, in double.
HDI void zk_3d_position(const ZkAffine3& a, int x, int y, int z, double* s) {
  const double dx = x - a.cx, dy = y - a.cy, dz = z - a.cz;
  const R_Mat3D& m = a.M;
  s[0] = (a.cx + (m.r11 * dx + m.r12 * dy + m.r13 * dz)) + a.u.x;
  s[1] = (a.cy + (m.r21 * dx + m.r22 * dy + m.r23 * dz)) + a.u.y;
  s[2] = (a.cz + (m.r31 * dx + m.r32 * dy + m.r33 * dz)) + a.u.z;
}

// The trilinear value at the single-precision position s, 0 outside.
HDI bool zk_3d_inside(const float* s, int nx, int ny, int nz) {
  return s[0] >= 0.0f && s[0] <= (float)(nx - 1) && s[1] >= 0.0f && s[1] <= (float)(ny - 1) && s[2] >= 0.0f &&
         s[2] <= (float)(nz - 1);
}
HDI float zk_3d_sample_or_zero(const float* in, int nx, int ny, int nz, const double* sd) {
  const float s[3] = {(float)sd[0], (float)sd[1], (float)sd[2]};
  if (!zk_3d_inside(s, nx, ny, nz)) return 0.0f;
  return hd_3d_frac_value(in, nx, ny, s[0], s[1], s[2]);
}

HDI void cuda_3d_transform_voxel(int x, int y, int z, float* out, const float* in, int nx, int ny, int nz,
                                 const ZkAffine3& a) {
  double s[3];
  zk_3d_position(a, x, y, z, s);
  out[((size_t)z * ny + y) * nx + x] = zk_3d_sample_or_zero(in, nx, ny, nz, s);
}

HDI void cuda_3d_transform(int x, int y, float* out, const float* in, int nx, int ny, int nz, const ZkAffine3& a) {
  for (int z = 0; z < nz; ++z) cuda_3d_transform_voxel(x, y, z, out, in, nx, ny, nz, a);
}

// The part of the sample position of (x, y, z) that does not change with z,
// and the range of z that can put the sample inside the first naxes axes of
// an n[0] by n[1] by n[2] volume.  Along axis i the position is about
// A_i + m_i3 * z; the range found from that is widened by one step on each
// side, so that rounding never leaves out a z whose sample lies inside: the
// test at each z still decides, and skipping the others only leaves out
// additions of 0.
struct ZkColumn {
  double q[3];
  int z0, z1;
};
HDI ZkColumn zk_3d_column(const ZkAffine3& a, int x, int y, int nz, const int* n, int naxes) {
  ZkColumn col;
  const double dx = x - a.cx, dy = y - a.cy;
  const R_Mat3D& m = a.M;
  col.q[0] = m.r11 * dx + m.r12 * dy;
  col.q[1] = m.r21 * dx + m.r22 * dy;
  col.q[2] = m.r31 * dx + m.r32 * dy;
  const double c[3] = {a.cx, a.cy, a.cz}, u[3] = {a.u.x, a.u.y, a.u.z}, mz[3] = {m.r13, m.r23, m.r33};
  double lo = 0.0, hi = nz - 1.0;
  for (int i = 0; i < naxes; ++i) {
    const double base = c[i] + col.q[i] - mz[i] * a.cz + u[i];
    const double top = n[i] - 1.0;
    if (mz[i] > 1e-9 || mz[i] < -1e-9) {
      double z_a = (0.0 - base) / mz[i], z_b = (top - base) / mz[i];
      if (z_a > z_b) {
        const double t = z_a;
        z_a = z_b;
        z_b = t;
      }
      lo = lo > z_a - 1.0 ? lo : z_a - 1.0;
      hi = hi < z_b + 1.0 ? hi : z_b + 1.0;
    } else if (base < -1e-5 || base > top + 1e-5) {
      // Along this axis the sample moves by less than 1e-9 a step: never inside.
      hi = -1.0;
    }
  }
  col.z0 = lo > hi ? 0 : (int)floor(lo);
  col.z1 = lo > hi ? -1 : (int)ceil(hi);
  return col;
}

// The sample position at z, with the sums in the order of zk_3d_position.
HDI void zk_3d_column_position(const ZkAffine3& a, const ZkColumn& col, int z, double* s) {
  const double dz = z - a.cz;
  const R_Mat3D& m = a.M;
  s[0] = (a.cx + (col.q[0] + m.r13 * dz)) + a.u.x;
  s[1] = (a.cy + (col.q[1] + m.r23 * dz)) + a.u.y;
  s[2] = (a.cz + (col.q[2] + m.r33 * dz)) + a.u.z;
}

// One step of a projection column: the sample at z added to the pixel's sum.
HDI float cuda_3d_project_step(const ZkAffine3& a, const ZkColumn& col, int z, const float* in, int nx, int ny, int nz,
                               float sum) {
  double s[3];
  zk_3d_column_position(a, col, z, s);
  return sum + zk_3d_sample_or_zero(in, nx, ny, nz, s);
}

// One step of a back-projection column: the image's value at the x and y of
// the voxel's position added to the voxel, where they lie on the image.
HDI void cuda_3d_backproject_step(const ZkAffine3& a, const ZkColumn& col, int x, int y, int z, float* out,
                                  const float* in, int nx, int ny) {
  double s[3];
  zk_3d_column_position(a, col, z, s);
  const float sx = (float)s[0], sy = (float)s[1];
  if (sx < 0.0f || sx > (float)(nx - 1) || sy < 0.0f || sy > (float)(ny - 1)) return;
  const size_t k = ((size_t)z * ny + y) * nx + x;
  out[k] = out[k] + hd_2d_frac_value(in, nx, sx, sy);
}

// The same step for a single voxel, its position worked out in full (the
// same bits as the column's).
HDI void cuda_3d_backproject_voxel(int x, int y, int z, float* out, const float* in, int nx, int ny,
                                   const ZkAffine3& a) {
  double s[3];
  zk_3d_position(a, x, y, z, s);
  const float sx = (float)s[0], sy = (float)s[1];
  if (sx < 0.0f || sx > (float)(nx - 1) || sy < 0.0f || sy > (float)(ny - 1)) return;
  const size_t k = ((size_t)z * ny + y) * nx + x;
  out[k] = out[k] + hd_2d_frac_value(in, nx, sx, sy);
}

HDI void cuda_3d_project(int x, int y, float* out, const float* in, int nx, int ny, int nz, const ZkAffine3& a) {
  const int n[3] = {nx, ny, nz};
  const ZkColumn col = zk_3d_column(a, x, y, nz, n, 3);
  float sum = 0.0f;
  for (int z = col.z0; z <= col.z1; ++z) sum = cuda_3d_project_step(a, col, z, in, nx, ny, nz, sum);
  out[(size_t)y * nx + x] = sum;
}

HDI void cuda_3d_backproject(int x, int y, float* out, const float* in, int nx, int ny, int nz, const ZkAffine3& a) {
  const int n[3] = {nx, ny, nz};
  const ZkColumn col = zk_3d_column(a, x, y, nz, n, 2);
  for (int z = col.z0; z <= col.z1; ++z) cuda_3d_backproject_step(a, col, x, y, z, out, in, nx, ny);
}

namespace {

// The host walks tiles of columns through z together: one column alone jumps
// a plane of the volume at every step, a tile's samples of one step lie close
// together.  Each column still takes its steps in z order, so every sum is
// the GPU's.
constexpr int kTile = 16;

template <class Step, class Done>
void host_column_tiles(int nx, int ny, int nz, const ZkAffine3& a, int naxes, Step step, Done done) {
  const int tx = (nx + kTile - 1) / kTile, ty = (ny + kTile - 1) / kTile;
  const int n[3] = {nx, ny, nz};
#pragma omp parallel for schedule(dynamic)
  for (int t = 0; t < tx * ty; ++t) {
    const int x0 = (t % tx) * kTile, y0 = (t / tx) * kTile;
    const int w = nx - x0 < kTile ? nx - x0 : kTile, h = ny - y0 < kTile ? ny - y0 : kTile;
    ZkColumn col[kTile * kTile];
    float sum[kTile * kTile];
    int z0 = nz, z1 = -1;
    for (int j = 0; j < h; ++j)
      for (int i = 0; i < w; ++i) {
        ZkColumn& c = col[j * kTile + i];
        c = zk_3d_column(a, x0 + i, y0 + j, nz, n, naxes);
        sum[j * kTile + i] = 0.0f;
        if (c.z0 < z0) z0 = c.z0;
        if (c.z1 > z1) z1 = c.z1;
      }
    for (int z = z0; z <= z1; ++z)
      for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
          const ZkColumn& c = col[j * kTile + i];
          if (z >= c.z0 && z <= c.z1) step(c, x0 + i, y0 + j, z, sum[j * kTile + i]);
        }
    for (int j = 0; j < h; ++j)
      for (int i = 0; i < w; ++i) done(x0 + i, y0 + j, sum[j * kTile + i]);
  }
}

}  // namespace

// Every operator in list order for one voxel.
HDI void cuda_3d_sym_expansion_voxel(int x, int y, int z, float* out, int nx, int ny, double cx, double cy, double cz,
                                     const float* map, int mx, int my, int mz, double ox, double oy, double oz,
                                     const float* mask, const ZkSymOp* ops, int nops) {
  // The mask value from which the map replaces what is there.
  const float kFull = 0.999999f;
  const size_t k = ((size_t)z * ny + y) * nx + x;
  float v = out[k];
  const double dx = x - cx, dy = y - cy, dz = z - cz;
  for (int i = 0; i < nops; ++i) {
    const R_Mat3D& m = ops[i].M;
    const float p[3] = {(float)((((cx + (m.r11 * dx + m.r12 * dy + m.r13 * dz)) - ops[i].w.x) - ox)),
                        (float)((((cy + (m.r21 * dx + m.r22 * dy + m.r23 * dz)) - ops[i].w.y) - oy)),
                        (float)((((cz + (m.r31 * dx + m.r32 * dy + m.r33 * dz)) - ops[i].w.z) - oz))};
    if (!zk_3d_inside(p, mx, my, mz)) continue;
    const float w = hd_3d_frac_value(mask, mx, my, p[0], p[1], p[2]);
    const float d = hd_3d_frac_value(map, mx, my, p[0], p[1], p[2]);
    if (w >= kFull) {
      v = d;
    } else if (w > 0.0f) {
      v = w * d + (1.0f - w) * v;
    }
  }
  out[k] = v;
}

HDI void cuda_3d_sym_expansion(int x, int y, float* out, int nx, int ny, int nz, double cx, double cy, double cz,
                               const float* map, int mx, int my, int mz, double ox, double oy, double oz,
                               const float* mask, const ZkSymOp* ops, int nops) {
  for (int z = 0; z < nz; ++z)
    cuda_3d_sym_expansion_voxel(x, y, z, out, nx, ny, cx, cy, cz, map, mx, my, mz, ox, oy, oz, mask, ops, nops);
}

namespace {

// A transform by one thread a column walking z on the GPU.  The host takes
// the voxels in memory order instead (each voxel's value does not depend on
// the order), so that the writes run along the rows.
void launch_3d_columns(uint32_t nx, uint32_t ny, uint32_t nz, float* out, const float* in, const ZkAffine3& a) {
  const int inx = nx, iny = ny, inz = nz;
  if (host_order()) {
    launch_3d(inx, iny, inz,
              [=] HD(int x, int y, int z) { cuda_3d_transform_voxel(x, y, z, out, in, inx, iny, inz, a); });
    return;
  }
  launch_2d(inx, iny, [=] HD(int x, int y) { cuda_3d_transform(x, y, out, in, inx, iny, inz, a); });
}

}  // namespace

void zk_volume_columns_on_host(bool on) { g_columns_on_host = on; }

// ===========================================================================
// Device arrays

void hcuda_3d_transform(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                        float cz, RT_Mat3D rt, int dir) {
  const ZkAffine3 a = affine_of(rt, dir, cx, cy, cz);
  const double t0 = now_seconds();
  launch_3d_columns(nx, ny, nz, out, in, a);
  print_timer("cuda_3d_transform", t0);
  printf("DIMX_max DIMY_max : %d %d\n", 32, 32);
}

void hcuda_3d_transform3(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                         float cz, RT_Mat3D rt, int dir) {
  const ZkAffine3 a = affine_of(rt, dir, cx, cy, cz);
  const double t0 = now_seconds();
  launch_3d((int)nx, (int)ny, (int)nz,
            [=] HD(int x, int y, int z) { cuda_3d_transform_voxel(x, y, z, out, in, (int)nx, (int)ny, (int)nz, a); });
  print_timer("cuda_3d_transform3", t0);
  printf("DIMX_max DIMY_max DIMZ_max: %d %d %d\n", 16, 16, 4);
}

void cuda_3d_transform_auto_center(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, RT_Mat3D rt,
                                   int dir) {
  const float cx = (float)(nx - 1) * 0.5f, cy = (float)(ny - 1) * 0.5f, cz = (float)(nz - 1) * 0.5f;
  const ZkAffine3 a = affine_of(rt, dir, cx, cy, cz);
  launch_3d_columns(nx, ny, nz, out, in, a);
}

void hcuda_3d_rotate(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                     float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  launch_3d_columns(nx, ny, nz, out, in, a);
}

void hcuda_3d_project(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                      float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  const int inx = nx, iny = ny, inz = nz;
  if (host_order()) {
    host_column_tiles(
        inx, iny, inz, a, 3,
        [&](const ZkColumn& c, int, int, int z, float& sum) {
          sum = cuda_3d_project_step(a, c, z, in, inx, iny, inz, sum);
        },
        [&](int x, int y, float sum) { out[(size_t)y * inx + x] = sum; });
    return;
  }
  launch_2d(inx, iny, [=] HD(int x, int y) { cuda_3d_project(x, y, out, in, inx, iny, inz, a); });
}

void hcuda_3d_backproject(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                          float cz, float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  const int inx = nx, iny = ny, inz = nz;
  // The host takes the voxels in memory order: each adds what its column
  // step would.
  if (host_order()) {
    launch_3d(inx, iny, inz, [=] HD(int x, int y, int z) { cuda_3d_backproject_voxel(x, y, z, out, in, inx, iny, a); });
  } else {
    launch_2d(inx, iny, [=] HD(int x, int y) { cuda_3d_backproject(x, y, out, in, inx, iny, inz, a); });
  }
  printf(".");
  fflush(stdout);
}

void hcuda_3d_sym_expansion(float* out, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                            const float* map, uint32_t mx, uint32_t my, uint32_t mz, float ox, float oy, float oz,
                            const float* mask, const RT_Mat3D* ops, int nops) {
  std::vector<ZkSymOp> k(nops > 0 ? nops : 0);
  for (int i = 0; i < nops; ++i) {
    double det = 0.0;
    k[i].M = hd_rmat3d_inverse(ops[i].R, &det);
    if (det == 0.0) ZK_FATAL("Singular symmetry operator");
    k[i].w = hd_rmat3d_x_vec(k[i].M, ops[i].T);
  }
  ZkStaged<ZkSymOp> d_ops(k.data(), k.size());
  const ZkSymOp* p = d_ops.d.get();
  const double dcx = cx, dcy = cy, dcz = cz, dox = ox, doy = oy, doz = oz;
  const int inx = nx, iny = ny, inz = nz, imx = mx, imy = my, imz = mz;
  if (host_order()) {
    launch_3d(inx, iny, inz, [=] HD(int x, int y, int z) {
      cuda_3d_sym_expansion_voxel(x, y, z, out, inx, iny, dcx, dcy, dcz, map, imx, imy, imz, dox, doy, doz, mask, p,
                                  nops);
    });
    return;
  }
  launch_2d(inx, iny, [=] HD(int x, int y) {
    cuda_3d_sym_expansion(x, y, out, inx, iny, inz, dcx, dcy, dcz, map, imx, imy, imz, dox, doy, doz, mask, p, nops);
  });
}

// ===========================================================================
// Host arrays

namespace {

// A host array on the device for the length of one call.
struct ZkDevCopy {
  ZkDeviceArray<float> d;
  ZkDevCopy(const float* h, size_t n) : d(n) { ZK_CHECK(memcpy_H2D(d.get(), h, n * sizeof(float))); }
  explicit ZkDevCopy(size_t n) : d(n) {}
  void to_host(float* h) const { ZK_CHECK(memcpy_D2H(h, d.get(), d.size() * sizeof(float))); }
};

}  // namespace

void gpu_3d_transform(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                      RT_Mat3D rt, int dir) {
  ZkDevCopy d_in(in, nvox(nx, ny, nz)), d_out(nvox(nx, ny, nz));
  hcuda_3d_transform(d_out.d.get(), d_in.d.get(), nx, ny, nz, cx, cy, cz, rt, dir);
  d_out.to_host(out);
}

void gpu_3d_transform3(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                       RT_Mat3D rt, int dir) {
  ZkDevCopy d_in(in, nvox(nx, ny, nz)), d_out(nvox(nx, ny, nz));
  hcuda_3d_transform3(d_out.d.get(), d_in.d.get(), nx, ny, nz, cx, cy, cz, rt, dir);
  d_out.to_host(out);
}

void gpu_3d_project(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                    float rot, float tilt, float psi, int dir) {
  ZkDevCopy d_in(in, nvox(nx, ny, nz)), d_out(nvox(nx, ny, 1));
  hcuda_3d_project(d_out.d.get(), d_in.d.get(), nx, ny, nz, cx, cy, cz, rot, tilt, psi, dir);
  d_out.to_host(out);
}

void gpu_3d_backproject(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                        float cz, float rot, float tilt, float psi, int dir) {
  ZkDevCopy d_vol(out, nvox(nx, ny, nz)), d_img(in, nvox(nx, ny, 1));
  hcuda_3d_backproject(d_vol.d.get(), d_img.d.get(), nx, ny, nz, cx, cy, cz, rot, tilt, psi, dir);
  d_vol.to_host(out);
}

void gpu_3d_project_many(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                         float cz, const EM_Trans_Orient* orients, int n, int dir) {
  const size_t plane = nvox(nx, ny, 1);
  ZkDevCopy d_in(in, nvox(nx, ny, nz)), d_img(plane);
  const double t0 = now_seconds();
  for (int k = 0; k < n; ++k) {
    const EM_Trans_Orient& o = orients[k];
    hcuda_3d_project(d_img.d.get(), d_in.d.get(), nx, ny, nz, cx, cy, cz, (float)o.rot, (float)o.tilt, (float)o.psi,
                     dir);
    d_img.to_host(out + (size_t)k * plane);
  }
  print_timer("cuda_3d_project_many", t0);
}

void gpu_3d_project_randN(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                          float cz, EM_Trans_Orient* orients, int n, int dir, unsigned seed) {
  random_polar_angles_many(orients, n, seed);
  for (int k = 0; k < n; ++k) printf("rot %f tilt %f psi %f \n", orients[k].rot, orients[k].tilt, orients[k].psi);
  gpu_3d_project_many(out, in, nx, ny, nz, cx, cy, cz, orients, n, dir);
}

void gpu_3d_backproject_many(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                             float cz, const EM_Trans_Orient* orients, int n, int dir) {
  const size_t plane = nvox(nx, ny, 1);
  ZkDevCopy d_vol(nvox(nx, ny, nz)), d_img(plane);
  hcuda_empty_float(d_vol.d.get(), d_vol.d.size());
  const double t0 = now_seconds();
  for (int k = 0; k < n; ++k) {
    const EM_Trans_Orient& o = orients[k];
    ZK_CHECK(memcpy_H2D(d_img.d.get(), in + (size_t)k * plane, plane * sizeof(float)));
    hcuda_3d_backproject(d_vol.d.get(), d_img.d.get(), nx, ny, nz, cx, cy, cz, (float)o.rot, (float)o.tilt,
                         (float)o.psi, dir);
  }
  printf("\n");
  print_timer("cuda_3d_backproject_many", t0);
  d_vol.to_host(out);
}

void gpu_3d_project_rec_randN(float* proj, float* rec, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx,
                              float cy, float cz, EM_Trans_Orient* orients, int n, int dir, unsigned seed) {
  gpu_3d_project_randN(proj, in, nx, ny, nz, cx, cy, cz, orients, n, dir, seed);
  gpu_3d_backproject_many(rec, proj, nx, ny, nz, cx, cy, cz, orients, n, zk_reverse_dir(dir));
}

void gpu_3d_sym_expansion(float* out, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                          const float* map, uint32_t mx, uint32_t my, uint32_t mz, float ox, float oy, float oz,
                          const float* mask, const RT_Mat3D* ops, int nops) {
  ZkDevCopy d_out(out, nvox(nx, ny, nz)), d_map(map, nvox(mx, my, mz)), d_mask(mask, nvox(mx, my, mz));
  hcuda_3d_sym_expansion(d_out.d.get(), nx, ny, nz, cx, cy, cz, d_map.d.get(), mx, my, mz, ox, oy, oz, d_mask.d.get(),
                         ops, nops);
  d_out.to_host(out);
}

void get_mass_center_3d(const float* v, uint32_t nx, uint32_t ny, uint32_t nz, double& x, double& y, double& z) {
  double s = 0.0, sx = 0.0, sy = 0.0, sz = 0.0;
  for (uint32_t k = 0; k < nz; ++k)
    for (uint32_t j = 0; j < ny; ++j) {
      const float* row = v + ((size_t)k * ny + j) * nx;
      for (uint32_t i = 0; i < nx; ++i) {
        const double w = row[i];
        s += w;
        sx += w * i;
        sy += w * j;
        sz += w * k;
      }
    }
  x = sx / s;
  y = sy / s;
  z = sz / s;
}
