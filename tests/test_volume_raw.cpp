// Transforms, projection, back-projection and symmetry expansion of volumes,
// on each back end, against positions and sums worked out here in double.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "test_util.h"
#include "volume/process3d_raw.h"

namespace {

size_t at(int nx, int ny, int x, int y, int z) { return ((size_t)z * ny + y) * nx + x; }

// A sum of Gaussian blobs (centre x, y, z, sigma, height), in voxels.
struct Blob {
  double x, y, z, s, h;
};
std::vector<float> blob_volume(int n, const std::vector<Blob>& blobs) {
  std::vector<float> v((size_t)n * n * n);
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        double s = 0;
        for (const Blob& b : blobs)
          s += b.h * exp(-((x - b.x) * (x - b.x) + (y - b.y) * (y - b.y) + (z - b.z) * (z - b.z)) / (2 * b.s * b.s));
        v[at(n, n, x, y, z)] = (float)s;
      }
  return v;
}

double correlation(const std::vector<float>& a, const std::vector<float>& b) {
  double ma = 0, mb = 0;
  for (size_t i = 0; i < a.size(); ++i) ma += a[i], mb += b[i];
  ma /= a.size(), mb /= b.size();
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / sqrt(aa * bb);
}

RT_Mat3D identity_rt() { return RT_Mat3D{hd_rmat3d_identity(), T_Vec3D{0, 0, 0}}; }

std::vector<float> quiet_transform(const std::vector<float>& in, int nx, int ny, int nz, float cx, float cy, float cz,
                                   RT_Mat3D rt, int dir, bool per_voxel) {
  std::vector<float> out(in.size());
  testing::internal::CaptureStdout();
  if (per_voxel)
    gpu_3d_transform3(out.data(), in.data(), nx, ny, nz, cx, cy, cz, rt, dir);
  else
    gpu_3d_transform(out.data(), in.data(), nx, ny, nz, cx, cy, cz, rt, dir);
  testing::internal::GetCapturedStdout();
  return out;
}

}  // namespace

class Volume3d : public BackendTest {};

TEST_P(Volume3d, IdentityTransformKeepsEveryVoxelWithTheLastPlanes) {
  const int nx = 5, ny = 6, nz = 7;
  const std::vector<float> a = zk_uniform((size_t)nx * ny * nz, 1);
  for (int dir : {-1, 0, 1})
    for (bool per_voxel : {false, true})
      EXPECT_TRUE(same_bits(quiet_transform(a, nx, ny, nz, 2.0f, 2.5f, 3.0f, identity_rt(), dir, per_voxel), a))
          << "dir " << dir << " per voxel " << per_voxel;
  Dev d;
  float* d_out = d.f(a.size());
  cuda_3d_transform_auto_center(d_out, d.put(a), nx, ny, nz, identity_rt(), 0);
  EXPECT_TRUE(same_bits(from_dev(d_out, a.size()), a));
  // The timer line and the block sizes of each form.
  testing::internal::CaptureStdout();
  std::vector<float> o(a.size());
  gpu_3d_transform(o.data(), a.data(), nx, ny, nz, 0, 0, 0, identity_rt(), -1);
  gpu_3d_transform3(o.data(), a.data(), nx, ny, nz, 0, 0, 0, identity_rt(), -1);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(text.find(">>>>>>TIME<<<<<<               cuda_3d_transform: ") != std::string::npos) << text;
  EXPECT_TRUE(text.find("DIMX_max DIMY_max : 32 32\n") != std::string::npos) << text;
  EXPECT_TRUE(text.find(">>>>>>TIME<<<<<<              cuda_3d_transform3: ") != std::string::npos) << text;
  EXPECT_TRUE(text.find("DIMX_max DIMY_max DIMZ_max: 16 16 4\n") != std::string::npos) << text;
}

// Trilinear sampling is exact on a linear function, so each output voxel
// must equal the function at its source position, worked out here: c +
// R(v - c) + T for dir -1, and c + R^T(v - c - T) (R^T = R^-1) otherwise.
TEST_P(Volume3d, TransformSamplesTheLinearFunctionAtTheSourcePosition) {
  const int nx = 9, ny = 8, nz = 10;
  auto f = [](double x, double y, double z) { return 1.0 + 0.5 * x - 0.25 * y + 0.125 * z; };
  std::vector<float> a((size_t)nx * ny * nz);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) a[at(nx, ny, x, y, z)] = (float)f(x, y, z);
  const RT_Mat3D rt = hd_rottrans_to_rtmat3d(30, 40, 50, 0.6, -0.3, 0.2);
  const double c[3] = {4.0, 3.5, 4.5};
  const double* R = &rt.R.r11;
  const double T[3] = {rt.T.x, rt.T.y, rt.T.z};
  for (int dir : {-1, 0})
    for (bool per_voxel : {false, true}) {
      const std::vector<float> o = quiet_transform(a, nx, ny, nz, 4.0f, 3.5f, 4.5f, rt, dir, per_voxel);
      int inside = 0;
      for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
          for (int x = 0; x < nx; ++x) {
            const double v[3] = {x - c[0], y - c[1], z - c[2]};
            double s[3];
            for (int i = 0; i < 3; ++i) {
              if (dir == -1) {
                s[i] = c[i] + R[3 * i] * v[0] + R[3 * i + 1] * v[1] + R[3 * i + 2] * v[2] + T[i];
              } else {
                s[i] = c[i] + R[i] * (v[0] - T[0]) + R[3 + i] * (v[1] - T[1]) + R[6 + i] * (v[2] - T[2]);
              }
            }
            const double lim[3] = {nx - 1.0, ny - 1.0, nz - 1.0};
            bool in = true, clear = false;
            for (int i = 0; i < 3; ++i) {
              in = in && s[i] >= 1e-6 && s[i] <= lim[i] - 1e-6;
              clear = clear || s[i] < -1e-6 || s[i] > lim[i] + 1e-6;
            }
            const float got = o[at(nx, ny, x, y, z)];
            if (in) {
              ++inside;
              EXPECT_NEAR(got, f(s[0], s[1], s[2]), 2e-5) << dir << " at " << x << "," << y << "," << z;
            } else if (clear) {
              EXPECT_EQ(got, 0.0f) << dir << " at " << x << "," << y << "," << z;
            }
          }
      EXPECT_GT(inside, nx * ny * nz / 3);
    }
  // A singular matrix is refused.
  RT_Mat3D flat = identity_rt();
  flat.R.r33 = 0;
  std::vector<float> o(a.size());
  EXPECT_FAILS("Singular transform matrix", gpu_3d_transform(o.data(), a.data(), nx, ny, nz, 0, 0, 0, flat, 0));
}

// An off-centre blob lands where the projection line through it meets the
// image: at the x and y of c + M^-1 (p - c).
TEST_P(Volume3d, ProjectedBlobLandsOnItsLine) {
  const int n = 32;
  const Blob b{20, 12, 17, 1.5, 1.0};
  const std::vector<float> a = blob_volume(n, {b});
  const float c = 15.5f;
  for (const auto& e : std::vector<std::array<float, 3>>{{0, 90, 0}, {30, 45, 10}, {200, 120, 70}})
    for (int dir : {-1, 0}) {
      std::vector<float> p((size_t)n * n);
      gpu_3d_project(p.data(), a.data(), n, n, n, c, c, c, e[0], e[1], e[2], dir);
      const R_Mat3D m = hd_euler_kernel_rmat3d(e[0], e[1], e[2], zk_reverse_dir(dir));
      const T_Vec3D q = hd_rmat3d_x_vec(m, T_Vec3D{b.x - c, b.y - c, b.z - c});
      double s = 0, sx = 0, sy = 0;
      for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
          s += p[(size_t)y * n + x];
          sx += x * (double)p[(size_t)y * n + x];
          sy += y * (double)p[(size_t)y * n + x];
        }
      EXPECT_NEAR(sx / s, c + q.x, 0.05) << e[0] << " " << e[1] << " " << e[2] << " dir " << dir;
      EXPECT_NEAR(sy / s, c + q.y, 0.05) << e[0] << " " << e[1] << " " << e[2] << " dir " << dir;
      // The line integral of the blob: h * (sigma * sqrt(2 pi))^3 in all.
      EXPECT_NEAR(s, pow(1.5 * sqrt(2 * M_PI), 3), 0.02 * s);
    }
}

// The back-projection of projections at many orientations, each by the
// reverse dir, correlates with the map; by the same dir it does not.
TEST_P(Volume3d, BackprojectionOfProjectionsCorrelatesWithTheMap) {
  const int n = 32;
  const float c = 15.5f;
  const std::vector<float> a = blob_volume(n, {{22, 14, 16, 2.0, 1.0}, {12, 21, 18, 2.0, 0.8}, {16, 10, 8, 1.5, 0.8}});
  const int k = 150;
  std::vector<float> proj((size_t)k * n * n), rec(a.size()), wrong(a.size()), many((size_t)k * n * n);
  std::vector<EM_Trans_Orient> o(k);
  testing::internal::CaptureStdout();
  gpu_3d_project_rec_randN(proj.data(), rec.data(), a.data(), n, n, n, c, c, c, o.data(), k, -1, 11);
  gpu_3d_project_many(many.data(), a.data(), n, n, n, c, c, c, o.data(), k, -1);
  gpu_3d_backproject_many(wrong.data(), proj.data(), n, n, n, c, c, c, o.data(), k, -1);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(same_bits(proj, many));
  const double good = correlation(rec, a), bad = correlation(wrong, a);
  EXPECT_GT(good, 0.8);
  EXPECT_LT(bad, good - 0.2);
  // Each orientation printed, and both timer lines.
  char line[128];
  snprintf(line, sizeof line, "rot %f tilt %f psi %f \n", o[7].rot, o[7].tilt, o[7].psi);
  EXPECT_NE(text.find(line), std::string::npos);
  EXPECT_NE(text.find("cuda_3d_project_many: "), std::string::npos);
  EXPECT_NE(text.find("cuda_3d_backproject_many: "), std::string::npos);
}

// The small map is painted at each operator's place; later operators paint
// over earlier ones, and the mask mixes below 0.999999.
TEST_P(Volume3d, SymmetryExpansionPaintsTheMapAtEachOperator) {
  const int nx = 10, ny = 9, nz = 8, m = 3;
  std::vector<float> map(m * m * m), mask(m * m * m, 1.0f);
  for (size_t i = 0; i < map.size(); ++i) map[i] = 1.0f + (float)i;
  const float ox = 1, oy = 2, oz = 0;
  const float cx = 4.5f, cy = 4.0f, cz = 3.5f;
  // The identity, then the half turn about z through the centre: R = diag(-1, -1, 1).
  RT_Mat3D ops[2] = {identity_rt(), identity_rt()};
  ops[1].R.r11 = ops[1].R.r22 = -1;
  std::vector<float> out((size_t)nx * ny * nz, -5.0f);
  gpu_3d_sym_expansion(out.data(), nx, ny, nz, cx, cy, cz, map.data(), m, m, m, ox, oy, oz, mask.data(), ops, 2);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        float want = -5.0f;
        // The first operator: p = v - o.
        int px = x - (int)ox, py = y - (int)oy, pz = z - (int)oz;
        if (px >= 0 && px < m && py >= 0 && py < m && pz >= 0 && pz < m) want = map[at(m, m, px, py, pz)];
        // The second: p = (2c - v) - o on x and y.
        px = (int)(2 * cx) - x - (int)ox, py = (int)(2 * cy) - y - (int)oy;
        if (px >= 0 && px < m && py >= 0 && py < m && pz >= 0 && pz < m) want = map[at(m, m, px, py, pz)];
        ASSERT_EQ(out[at(nx, ny, x, y, z)], want) << x << "," << y << "," << z;
      }
  // The threshold: 0.999999 replaces, the next float below mixes.
  for (float w : {0.999999f, std::nextafter(0.999999f, 0.0f), 0.25f, 0.0f}) {
    std::fill(mask.begin(), mask.end(), w);
    std::vector<float> o1((size_t)nx * ny * nz, 2.0f);
    gpu_3d_sym_expansion(o1.data(), nx, ny, nz, cx, cy, cz, map.data(), m, m, m, ox, oy, oz, mask.data(), ops, 1);
    const float d = map[at(m, m, 1, 1, 1)];
    const float want = w >= 0.999999f ? d : w > 0 ? w * d + (1.0f - w) * 2.0f : 2.0f;
    EXPECT_EQ(o1[at(nx, ny, 1 + (int)ox, 1 + (int)oy, 1 + (int)oz)], want) << w;
    EXPECT_EQ(o1[at(nx, ny, 9, 8, 7)], 2.0f);
  }
}

// The host's own order of the work gives the bits of the GPU's column
// kernels, run here on the host: at angles where a column lies wholly
// outside, crosses the volume's edge, or runs along an axis.
TEST_P(Volume3d, HostOrderGivesTheColumnKernelsBits) {
  if (GetParam() != ZkBackend::Host) GTEST_SKIP() << "the host's order";
  const int nx = 19, ny = 14, nz = 11;
  const std::vector<float> a = zk_uniform((size_t)nx * ny * nz, 31);
  const std::vector<float> img = zk_uniform((size_t)nx * ny, 32);
  RT_Mat3D ops[2] = {identity_rt(), hd_rottrans_to_rtmat3d(10, 20, 30, 1, 2, 3)};
  for (const auto& e : std::vector<std::array<float, 3>>{{0, 0, 0}, {0, 90, 0}, {90, 90, 90}, {33, 71, 250}}) {
    const RT_Mat3D rt = hd_rottrans_to_rtmat3d(e[0], e[1], e[2], 0.5, -1.5, 2);
    std::vector<std::vector<float>> r[2];
    for (int k = 0; k < 2; ++k) {
      zk_volume_columns_on_host(k == 1);
      std::vector<float> p((size_t)nx * ny), v(a.size(), 0.5f), s(a.size(), 0.0f);
      r[k].push_back(quiet_transform(a, nx, ny, nz, 9.0f, 6.5f, 5.0f, rt, 0, false));
      r[k].push_back(quiet_transform(a, nx, ny, nz, 9.0f, 6.5f, 5.0f, rt, -1, true));
      gpu_3d_project(p.data(), a.data(), nx, ny, nz, 9.0f, 6.5f, 5.0f, e[0], e[1], e[2], -1);
      testing::internal::CaptureStdout();
      gpu_3d_backproject(v.data(), img.data(), nx, ny, nz, 9.0f, 6.5f, 5.0f, e[0], e[1], e[2], 0);
      testing::internal::GetCapturedStdout();
      gpu_3d_sym_expansion(s.data(), nx, ny, nz, 9.0f, 6.5f, 5.0f, a.data(), 8, 8, 8, 3, 2, 1, a.data(), ops, 2);
      r[k].push_back(p);
      r[k].push_back(v);
      r[k].push_back(s);
    }
    zk_volume_columns_on_host(false);
    for (size_t k = 0; k < r[0].size(); ++k)
      EXPECT_TRUE(same_bits(r[0][k], r[1][k])) << "result " << k << " at " << e[0] << " " << e[1] << " " << e[2];
  }
}

// The GPU gives the host's bits for every kernel of the unit.
TEST_P(Volume3d, SameBitsAsTheHostBackEnd) {
  if (GetParam() != ZkBackend::Gpu) GTEST_SKIP() << "compares the GPU with the host";
  const int n = 20;
  const std::vector<float> a = zk_uniform((size_t)n * n * n, 21);
  const std::vector<float> img = zk_uniform((size_t)n * n, 22);
  const RT_Mat3D rt = hd_rottrans_to_rtmat3d(13, 77, 140, 0.3, 0.1, -0.7);
  RT_Mat3D ops[2] = {identity_rt(), rt};
  auto run = [&]() {
    std::vector<std::vector<float>> r;
    r.push_back(quiet_transform(a, n, n, n, 9.5f, 9.5f, 9.5f, rt, 0, false));
    r.push_back(quiet_transform(a, n, n, n, 9.5f, 9.5f, 9.5f, rt, -1, true));
    std::vector<float> p((size_t)n * n), v(a.size(), 0.0f), s(a.size(), 0.0f);
    gpu_3d_project(p.data(), a.data(), n, n, n, 9.5f, 9.5f, 9.5f, 33, 66, 99, -1);
    testing::internal::CaptureStdout();
    gpu_3d_backproject(v.data(), img.data(), n, n, n, 9.5f, 9.5f, 9.5f, 33, 66, 99, 0);
    testing::internal::GetCapturedStdout();
    gpu_3d_sym_expansion(s.data(), n, n, n, 9.5f, 9.5f, 9.5f, a.data(), 12, 12, 12, 4, 4, 4, a.data(), ops, 2);
    r.push_back(p);
    r.push_back(v);
    r.push_back(s);
    return r;
  };
  const auto gpu = run();
  zk_use_host();
  const auto host = run();
  for (size_t k = 0; k < gpu.size(); ++k) EXPECT_TRUE(same_bits(gpu[k], host[k])) << "result " << k;
}

ZK_BACKEND_SUITE(Volume3d);
