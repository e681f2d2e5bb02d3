// Rotation matrices against rotations built independently (Rodrigues), the
// C and D operator lists as groups, operator files and orientation grids.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"
#include "volume/sym.h"

namespace {

using V3 = std::array<double, 3>;

// Active rotation of v by deg degrees about the unit axis a.
V3 rodrigues(V3 a, double deg, V3 v) {
  const double t = deg * M_PI / 180.0, c = cos(t), s = sin(t);
  const double d = a[0] * v[0] + a[1] * v[1] + a[2] * v[2];
  const V3 x = {a[1] * v[2] - a[2] * v[1], a[2] * v[0] - a[0] * v[2], a[0] * v[1] - a[1] * v[0]};
  V3 r;
  for (int k = 0; k < 3; ++k) r[k] = v[k] * c + x[k] * s + a[k] * d * (1 - c);
  return r;
}

V3 turn(const R_Mat3D& m, V3 v) {
  T_Vec3D r = hd_rmat3d_x_vec(m, T_Vec3D{v[0], v[1], v[2]});
  return {r.x, r.y, r.z};
}

double max_diff(const R_Mat3D& a, const R_Mat3D& b) {
  const double* p = &a.r11;
  const double* q = &b.r11;
  double d = 0;
  for (int k = 0; k < 9; ++k) d = std::max(d, std::fabs(p[k] - q[k]));
  return d;
}

void expect_near_v(V3 a, V3 b, const std::string& what) {
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(a[k], b[k], 1e-12) << what << " component " << k;
}

const V3 kX = {1, 0, 0}, kY = {0, 1, 0}, kZ = {0, 0, 1};

}  // namespace

// Rz and Rx turn vectors by -t, Ry by +t (the rows as the library defines
// them); the Euler forms are the products in the stated order.
TEST(VolumeSym, ElementaryAndEulerRotationsAgainstRodrigues) {
  const V3 probe = {0.3, -0.7, 0.55};
  for (double t : {0.0, 17.0, 90.0, -133.5, 300.0}) {
    expect_near_v(turn(hd_rotz_to_rmat3d(t), probe), rodrigues(kZ, -t, probe), "Rz");
    expect_near_v(turn(hd_roty_to_rmat3d(t), probe), rodrigues(kY, t, probe), "Ry");
    expect_near_v(turn(hd_rotx_to_rmat3d(t), probe), rodrigues(kX, -t, probe), "Rx");
  }
  // Rz(90) takes x to -y.
  expect_near_v(turn(hd_rotz_to_rmat3d(90), kX), {0, -1, 0}, "Rz(90) x");
  const double a = 25, b = 70, c = -40;
  // zyz(a, b, c) = Rz(c) Ry(b) Rz(a): Rz(a) acts first.
  V3 ref = rodrigues(kZ, -c, rodrigues(kY, b, rodrigues(kZ, -a, probe)));
  expect_near_v(turn(hd_euler_to_rmat3d_zyz(a, b, c), probe), ref, "zyz");
  EXPECT_LT(max_diff(hd_rmat3d_multi(hd_euler_to_rmat3d_zyz_inverse(a, b, c), hd_euler_to_rmat3d_zyz(a, b, c)),
                     hd_rmat3d_identity()),
            1e-14);
  // The kernels' matrix: Rz(rot) Ry(tilt) Rz(psi) for dir -1, its inverse otherwise.
  const double rot = 12, tilt = 48, psi = 200;
  ref = rodrigues(kZ, -rot, rodrigues(kY, tilt, rodrigues(kZ, -psi, probe)));
  expect_near_v(turn(hd_euler_kernel_rmat3d(rot, tilt, psi, -1), probe), ref, "kernel -1");
  for (int dir : {0, 1})
    EXPECT_LT(max_diff(hd_rmat3d_multi(hd_euler_kernel_rmat3d(rot, tilt, psi, dir),
                                       hd_euler_kernel_rmat3d(rot, tilt, psi, -1)),
                       hd_rmat3d_identity()),
              1e-14);
  // Translations: as given, or turned by R.
  RT_Mat3D rt = hd_rottrans_to_rtmat3d(a, b, c, 1, 2, 3);
  EXPECT_EQ(rt.T.x, 1);
  EXPECT_EQ(rt.T.z, 3);
  RT_Mat3D tr = hd_transrot_to_rtmat3d(1, 2, 3, a, b, c);
  expect_near_v({tr.T.x, tr.T.y, tr.T.z}, turn(hd_euler_to_rmat3d_zyz(a, b, c), {1, 2, 3}), "transrot");
  // The inverse by cofactors of a matrix that is not a rotation.
  R_Mat3D m = {2, 1, 0, 0, 3, 1, 1, 0, 4};
  double det = 0;
  R_Mat3D inv = hd_rmat3d_inverse(m, &det);
  EXPECT_DOUBLE_EQ(det, 25);
  EXPECT_LT(max_diff(hd_rmat3d_multi(m, inv), hd_rmat3d_identity()), 1e-15);
  // One n-th of a turn about each named axis.
  EXPECT_LT(max_diff(hd_rmat3d_sym_C(4, 'X'), hd_rotx_to_rmat3d(90)), 1e-15);
  EXPECT_LT(max_diff(hd_rmat3d_sym_C(3, 'y'), hd_roty_to_rmat3d(120)), 1e-15);
  EXPECT_LT(max_diff(hd_rmat3d_sym_C(6, 'z'), hd_rotz_to_rmat3d(60)), 1e-15);
}

// Each list is closed under products, holds distinct proper rotations, and
// its elements have the orders of the cyclic or dihedral group.
TEST(VolumeSym, OperatorListsFormGroups) {
  for (std::string sym : {"C1", "C2", "c3", "C5", "C6", "D1", "D2", "d3", "D4", "D5"}) {
    Rsym_List g = create_Rsym_List(sym.c_str());
    const int n = std::stoi(sym.substr(1));
    const bool dihedral = sym[0] == 'D' || sym[0] == 'd';
    ASSERT_EQ(g.n, dihedral ? 2 * n : n) << sym;
    auto find = [&](const R_Mat3D& m) {
      for (int k = 0; k < g.n; ++k)
        if (max_diff(m, g.rmat[k]) < 1e-9) return k;
      return -1;
    };
    int order2 = 0;
    for (int i = 0; i < g.n; ++i) {
      EXPECT_NEAR(hd_rmat3d_det(g.rmat[i]), 1.0, 1e-12) << sym;
      EXPECT_EQ(find(g.rmat[i]), i) << sym << ": element " << i << " repeated";
      for (int j = 0; j < g.n; ++j)
        EXPECT_GE(find(hd_rmat3d_multi(g.rmat[i], g.rmat[j])), 0) << sym << ": " << i << "*" << j;
      // Order: the least k with g^k = identity.
      R_Mat3D p = g.rmat[i];
      int order = 1;
      while (max_diff(p, hd_rmat3d_identity()) > 1e-9 && order <= 2 * n) {
        p = hd_rmat3d_multi(p, g.rmat[i]);
        ++order;
      }
      const int expect = (dihedral && i >= n) ? 2 : n / std::gcd(i % n, n);
      EXPECT_EQ(order, expect) << sym << ": element " << i;
      order2 += order == 2;
    }
    // Cn has one half turn when n is even; Dn adds n more about axes in the xy plane.
    EXPECT_EQ(order2, (n % 2 == 0 ? 1 : 0) + (dihedral ? n : 0)) << sym;
    free_Rsym_List(g);
  }
}

TEST(VolumeSym, OtherSymmetryTextsAreRefusedByName) {
  for (const char* text : {"T", "O", "I", "x7", "C0", "D-2", "C", ""})
    EXPECT_FAILS("Unknown symmetry '" + std::string(text) + "': only Cn and Dn are accepted",
                 Rsym_List l = create_Rsym_List(text);
                 free_Rsym_List(l));
}

TEST(VolumeSym, OperatorFiles) {
  ZkTmpDir dir;
  const std::string good = dir / "ops.txt";
  zk_put(good, "# two operators\nsome other line\n.ncs_symmetry_operators\n1 0 0\n0 1 0\n0 0 1\n0 0 0\n\n"
               ".NCS_SYMMETRY_OPERATORS  \n  -1  0 0\n0 -1 0\n0\t0\t1\n10.5 -2 3\ntrailing words here\n");
  std::vector<RT_Mat3D> ops(3);
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_syms_from_ofile(ops, good.c_str()), 2);
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_EQ(ops.size(), 2u);
  EXPECT_EQ(max_diff(ops[0].R, hd_rmat3d_identity()), 0.0);
  EXPECT_EQ(ops[1].R.r11, -1.0);
  EXPECT_EQ(ops[1].R.r22, -1.0);
  EXPECT_EQ(ops[1].R.r33, 1.0);
  EXPECT_EQ(ops[1].T.x, 10.5);
  EXPECT_EQ(ops[1].T.y, -2.0);
  // The list is printed, each matrix under its header, the translation last.
  EXPECT_NE(printed.find("    -1.00000000     0.00000000     0.00000000\n"
                         "     0.00000000    -1.00000000     0.00000000\n"
                         "     0.00000000     0.00000000     1.00000000\n"
                         "    10.50000000    -2.00000000     3.00000000\n\n"),
            std::string::npos)
      << printed;
  RT_Mat3D arr[2];
  EXPECT_EQ(sym_vector_to_syms(arr, ops), 2);
  EXPECT_EQ(arr[1].T.z, 3.0);

  // No block: an empty list and no failure.
  const std::string none = dir / "none.txt";
  zk_put(none, "1 0 0\n0 1 0\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_syms_from_ofile(ops, none.c_str()), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(ops.empty());

  // A row of two numbers, or a block cut short by the end of the file.
  for (const char* body : {".ncs_symmetry_operators\n1 0 0\n0 1\n0 0 1\n0 0 0\n", ".ncs_symmetry_operators\n1 0 0\n"}) {
    const std::string bad = dir / "bad.txt";
    zk_put(bad, body);
    EXPECT_FAILS(
        "Error in function get_syms_from_ofile\\(\\), file sym.cpp on line [0-9]+: Unknown symmetry file "
        "format! Exit now!",
        get_syms_from_ofile(ops, bad.c_str()));
  }
  EXPECT_FAILS("Cannot open file .*missing.txt. Permission denied",
               get_syms_from_ofile(ops, (dir / "missing.txt").c_str()));
}

// Random directions are uniform on the sphere and repeat for a given seed.
TEST(VolumeSym, RandomOrientations) {
  const int n = 20000;
  std::vector<EM_Trans_Orient> a(n), b(n);
  random_polar_angles_many(a.data(), n, 7);
  random_polar_angles_many(b.data(), n, 7);
  double mean_cos = 0, mean_rot = 0;
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(a[i].tilt, b[i].tilt);
    ASSERT_TRUE(a[i].rot >= 0 && a[i].rot <= 360 && a[i].psi >= 0 && a[i].psi <= 360);
    ASSERT_TRUE(a[i].tilt >= 0 && a[i].tilt <= 180);
    EXPECT_EQ(a[i].sx, 0.0);
    mean_cos += cos(a[i].tilt * M_PI / 180) / n;
    mean_rot += a[i].rot / n;
  }
  // Uniform on the sphere: cos(tilt) uniform in [-1, 1], so its mean is 0 (not
  // the 2/pi*... of a tilt uniform in degrees), and rot averages 180.
  EXPECT_NEAR(mean_cos, 0.0, 0.02);
  EXPECT_NEAR(mean_rot, 180.0, 3.0);
}

// Every direction of the sphere lies within about one step of a grid
// direction after some operator of the group: the grid covers the
// asymmetric unit, and it holds no more than it needs.
TEST(VolumeSym, AsymmetricUnitGridCoversTheSphere) {
  EXPECT_EQ(asym_unit_orientations("C1", 30).size(), 46u);
  std::mt19937 rng(3);
  std::normal_distribution<double> g;
  for (std::string sym : {"C1", "C3", "D2", "D5"}) {
    const double step = 10;
    std::vector<EM_Trans_Orient> grid = asym_unit_orientations(sym.c_str(), step);
    Rsym_List ops = create_Rsym_List(sym.c_str());
    const bool dihedral = sym[0] == 'D';
    const int n = std::stoi(sym.substr(1));
    std::vector<V3> dirs;
    for (const EM_Trans_Orient& o : grid) {
      EXPECT_LT(o.rot, 360.0 / n) << sym;
      EXPECT_LE(o.tilt, dihedral ? 90.0 : 180.0) << sym;
      EXPECT_EQ(o.psi, 0.0);
      dirs.push_back(turn(hd_euler_kernel_rmat3d(o.rot, o.tilt, 0, -1), kZ));
    }
    // About 41253/(n*step^2) square degrees per direction of the sphere.
    const double expect = 41253.0 / (step * step) / (dihedral ? 2 * n : n);
    EXPECT_NEAR(grid.size(), expect, 0.25 * expect + 2) << sym;
    double worst = 0;
    for (int t = 0; t < 2000; ++t) {
      V3 v = {g(rng), g(rng), g(rng)};
      const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      for (double& c : v) c /= len;
      double best = 180;
      for (int k = 0; k < ops.n; ++k) {
        const V3 w = turn(ops.rmat[k], v);
        for (const V3& d : dirs) {
          const double dot = std::min(1.0, w[0] * d[0] + w[1] * d[1] + w[2] * d[2]);
          best = std::min(best, acos(dot) * 180 / M_PI);
        }
      }
      worst = std::max(worst, best);
    }
    EXPECT_LT(worst, step) << sym;
    free_Rsym_List(ops);
  }
  EXPECT_FAILS("angular step must lie in", asym_unit_orientations("C1", 0));
  EXPECT_FAILS("only Cn and Dn", asym_unit_orientations("O", 10));
}
