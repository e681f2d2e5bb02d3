#include "volume/process3d_raw.h"

#include <sys/time.h>

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

HDI void cuda_3d_project(int x, int y, float* out, const float* in, int nx, int ny, int nz, const ZkAffine3& a) {
  float sum = 0.0f;
  for (int z = 0; z < nz; ++z) {
    double s[3];
    zk_3d_position(a, x, y, z, s);
    sum = sum + zk_3d_sample_or_zero(in, nx, ny, nz, s);
  }
  out[(size_t)y * nx + x] = sum;
}

HDI void cuda_3d_backproject(int x, int y, float* out, const float* in, int nx, int ny, int nz, const ZkAffine3& a) {
  for (int z = 0; z < nz; ++z) {
    double s[3];
    zk_3d_position(a, x, y, z, s);
    const float sx = (float)s[0], sy = (float)s[1];
    if (sx < 0.0f || sx > (float)(nx - 1) || sy < 0.0f || sy > (float)(ny - 1)) continue;
    const size_t k = ((size_t)z * ny + y) * nx + x;
    out[k] = out[k] + hd_2d_frac_value(in, nx, sx, sy);
  }
}

HDI void cuda_3d_sym_expansion(int x, int y, float* out, int nx, int ny, int nz, double cx, double cy, double cz,
                               const float* map, int mx, int my, int mz, double ox, double oy, double oz,
                               const float* mask, const ZkSymOp* ops, int nops) {
  // The mask value from which the map replaces what is there.
  const float kFull = 0.999999f;
  for (int z = 0; z < nz; ++z) {
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
}

// ===========================================================================
// Device arrays

void hcuda_3d_transform(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                        float cz, RT_Mat3D rt, int dir) {
  const ZkAffine3 a = affine_of(rt, dir, cx, cy, cz);
  const double t0 = now_seconds();
  const int inz = (int)nz;
  launch_2d((int)nx, (int)ny, [=] HD(int x, int y) { cuda_3d_transform(x, y, out, in, (int)nx, (int)ny, inz, a); });
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
  launch_2d((int)nx, (int)ny, [=] HD(int x, int y) { cuda_3d_transform(x, y, out, in, (int)nx, (int)ny, (int)nz, a); });
}

void hcuda_3d_rotate(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                     float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  launch_2d((int)nx, (int)ny, [=] HD(int x, int y) { cuda_3d_transform(x, y, out, in, (int)nx, (int)ny, (int)nz, a); });
}

void hcuda_3d_project(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                      float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  launch_2d((int)nx, (int)ny, [=] HD(int x, int y) { cuda_3d_project(x, y, out, in, (int)nx, (int)ny, (int)nz, a); });
}

void hcuda_3d_backproject(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                          float cz, float rot, float tilt, float psi, int dir) {
  const ZkAffine3 a = euler_affine(rot, tilt, psi, dir, cx, cy, cz);
  launch_2d((int)nx, (int)ny,
            [=] HD(int x, int y) { cuda_3d_backproject(x, y, out, in, (int)nx, (int)ny, (int)nz, a); });
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
  launch_2d((int)nx, (int)ny, [=] HD(int x, int y) {
    cuda_3d_sym_expansion(x, y, out, (int)nx, (int)ny, (int)nz, dcx, dcy, dcz, map, (int)mx, (int)my, (int)mz, dox, doy,
                          doz, mask, p, nops);
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
