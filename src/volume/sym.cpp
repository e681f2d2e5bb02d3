#include "volume/sym.h"

#include <strings.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
// The largest n of a Cn or Dn text: a larger one is a typing error, not a
// symmetry, and would ask for an absurd list.
constexpr int kMaxSymOrder = 1000;

double rad(double deg) { return kPi * deg / 180.0; }

R_Mat3D rows(double a11, double a12, double a13, double a21, double a22, double a23, double a31, double a32,
             double a33) {
  R_Mat3D m;
  m.r11 = a11, m.r12 = a12, m.r13 = a13;
  m.r21 = a21, m.r22 = a22, m.r23 = a23;
  m.r31 = a31, m.r32 = a32, m.r33 = a33;
  return m;
}

// The letter (upper case) and order of a symmetry text; a text that names
// neither Cn nor Dn with 1 <= n <= kMaxSymOrder is refused.
void parse_sym(const char* text, char* letter, int* n) {
  const char c = text ? (char)toupper((unsigned char)text[0]) : '\0';
  const int order = (c != '\0') ? zk_atoi(text + 1) : 0;
  if ((c != 'C' && c != 'D') || order < 1 || order > kMaxSymOrder) {
    const std::string msg = zk_format(
        "Unknown symmetry '%s': only Cn and Dn are accepted, n from 1 to %d (for example C1, C7, D2), letter in "
        "either case",
        text ? text : "", kMaxSymOrder);
    ZK_FATAL(msg.c_str());
  }
  *letter = c;
  *n = order;
}

void print_rows(const R_Mat3D& m) {
  printf("%15.8f%15.8f%15.8f\n%15.8f%15.8f%15.8f\n%15.8f%15.8f%15.8f\n", m.r11, m.r12, m.r13, m.r21, m.r22, m.r23,
         m.r31, m.r32, m.r33);
}

void print_header(bool with_t) {
  printf("%15s%15s%15s\n%15s%15s%15s\n%15s%15s%15s\n", "R11", "R12", "R13", "R21", "R22", "R23", "R31", "R32", "R33");
  if (with_t) printf("%15s%15s%15s\n", "Tx", "Ty", "Tz");
}

}  // namespace

R_Mat3D hd_rotx_to_rmat3d(double t) {
  const double c = cos(rad(t)), s = sin(rad(t));
  return rows(1, 0, 0, 0, c, s, 0, -s, c);
}
R_Mat3D hd_roty_to_rmat3d(double t) {
  const double c = cos(rad(t)), s = sin(rad(t));
  return rows(c, 0, s, 0, 1, 0, -s, 0, c);
}
R_Mat3D hd_rotz_to_rmat3d(double t) {
  const double c = cos(rad(t)), s = sin(rad(t));
  return rows(c, s, 0, -s, c, 0, 0, 0, 1);
}
R_Mat3D hd_rmat3d_identity() { return rows(1, 0, 0, 0, 1, 0, 0, 0, 1); }

R_Mat3D hd_rmat3d_multi(const R_Mat3D& a, const R_Mat3D& b) {
  return rows(a.r11 * b.r11 + a.r12 * b.r21 + a.r13 * b.r31, a.r11 * b.r12 + a.r12 * b.r22 + a.r13 * b.r32,
              a.r11 * b.r13 + a.r12 * b.r23 + a.r13 * b.r33, a.r21 * b.r11 + a.r22 * b.r21 + a.r23 * b.r31,
              a.r21 * b.r12 + a.r22 * b.r22 + a.r23 * b.r32, a.r21 * b.r13 + a.r22 * b.r23 + a.r23 * b.r33,
              a.r31 * b.r11 + a.r32 * b.r21 + a.r33 * b.r31, a.r31 * b.r12 + a.r32 * b.r22 + a.r33 * b.r32,
              a.r31 * b.r13 + a.r32 * b.r23 + a.r33 * b.r33);
}

T_Vec3D hd_rmat3d_x_vec(const R_Mat3D& m, const T_Vec3D& v) {
  T_Vec3D r;
  r.x = m.r11 * v.x + m.r12 * v.y + m.r13 * v.z;
  r.y = m.r21 * v.x + m.r22 * v.y + m.r23 * v.z;
  r.z = m.r31 * v.x + m.r32 * v.y + m.r33 * v.z;
  return r;
}

double hd_rmat3d_det(const R_Mat3D& m) {
  return m.r11 * (m.r22 * m.r33 - m.r23 * m.r32) - m.r12 * (m.r21 * m.r33 - m.r23 * m.r31) +
         m.r13 * (m.r21 * m.r32 - m.r22 * m.r31);
}

R_Mat3D hd_rmat3d_inverse(const R_Mat3D& m, double* det) {
  const double d = hd_rmat3d_det(m);
  if (det) *det = d;
  // The transposed cofactors over the determinant.
  return rows(
      (m.r22 * m.r33 - m.r23 * m.r32) / d, (m.r13 * m.r32 - m.r12 * m.r33) / d, (m.r12 * m.r23 - m.r13 * m.r22) / d,
      (m.r23 * m.r31 - m.r21 * m.r33) / d, (m.r11 * m.r33 - m.r13 * m.r31) / d, (m.r13 * m.r21 - m.r11 * m.r23) / d,
      (m.r21 * m.r32 - m.r22 * m.r31) / d, (m.r12 * m.r31 - m.r11 * m.r32) / d, (m.r11 * m.r22 - m.r12 * m.r21) / d);
}

R_Mat3D hd_euler_to_rmat3d_zyz(double a, double b, double c) {
  return hd_rmat3d_multi(hd_rmat3d_multi(hd_rotz_to_rmat3d(c), hd_roty_to_rmat3d(b)), hd_rotz_to_rmat3d(a));
}
R_Mat3D hd_euler_to_rmat3d_zyz_inverse(double a, double b, double c) {
  return hd_rmat3d_multi(hd_rmat3d_multi(hd_rotz_to_rmat3d(-a), hd_roty_to_rmat3d(-b)), hd_rotz_to_rmat3d(-c));
}
RT_Mat3D hd_euler_to_rtmat3d_zyz(double a, double b, double c) {
  return RT_Mat3D{hd_euler_to_rmat3d_zyz(a, b, c), T_Vec3D{0, 0, 0}};
}
RT_Mat3D hd_euler_to_rtmat3d_zyz_inverse(double a, double b, double c) {
  return RT_Mat3D{hd_euler_to_rmat3d_zyz_inverse(a, b, c), T_Vec3D{0, 0, 0}};
}
RT_Mat3D hd_rottrans_to_rtmat3d(double a, double b, double c, double tx, double ty, double tz) {
  return RT_Mat3D{hd_euler_to_rmat3d_zyz(a, b, c), T_Vec3D{tx, ty, tz}};
}
RT_Mat3D hd_transrot_to_rtmat3d(double tx, double ty, double tz, double a, double b, double c) {
  const R_Mat3D r = hd_euler_to_rmat3d_zyz(a, b, c);
  return RT_Mat3D{r, hd_rmat3d_x_vec(r, T_Vec3D{tx, ty, tz})};
}

R_Mat3D hd_euler_kernel_rmat3d(double rot, double tilt, double psi, int dir) {
  if (dir == -1) return hd_euler_to_rmat3d_zyz(psi, tilt, rot);
  return hd_euler_to_rmat3d_zyz_inverse(psi, tilt, rot);
}

R_Mat3D hd_rmat3d_sym_C(int n, char axis) {
  const double t = 360.0 / n;
  switch (axis) {
    case 'x':
    case 'X':
      return hd_rotx_to_rmat3d(t);
    case 'y':
    case 'Y':
      return hd_roty_to_rmat3d(t);
    case 'z':
    case 'Z':
      return hd_rotz_to_rmat3d(t);
    default:
      return hd_rmat3d_identity();
  }
}

R_Mat3D hd_rmat3d_sym_Cn_i(int n, int i) { return hd_rotz_to_rmat3d(360.0 * i / n); }

R_Mat3D hd_rmat3d_sym_Dn_i(int n, int i) {
  return hd_rmat3d_multi(hd_rotx_to_rmat3d(180.0 * (i / n)), hd_rotz_to_rmat3d(360.0 * i / n));
}

Rsym_List create_Rsym_List(const char* text) {
  char letter;
  int n;
  parse_sym(text, &letter, &n);
  Rsym_List list;
  list.n = letter == 'C' ? n : 2 * n;
  list.rmat = (R_Mat3D*)malloc(sizeof(R_Mat3D) * (size_t)list.n);
  if (!list.rmat) ZK_FATAL("Memory allocation failed");
  for (int i = 0; i < list.n; ++i) list.rmat[i] = letter == 'C' ? hd_rmat3d_sym_Cn_i(n, i) : hd_rmat3d_sym_Dn_i(n, i);
  return list;
}

void free_Rsym_List(Rsym_List& list) {
  free(list.rmat);
  list.rmat = nullptr;
  list.n = 0;
}

int get_syms_from_ofile(std::vector<RT_Mat3D>& list, const char* name) {
  list.clear();
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  char line[ZK_TXT_LEN];
  char* words[4];
  while (true) {
    empty_txt_line(line);
    if (!fgets(line, ZK_TXT_LEN, fp.get())) break;
    if (strnsplit_inplace_byspace(line, words, 3) < 1 || strcasecmp(words[0], ".ncs_symmetry_operators") != 0) continue;
    double v[4][3];
    for (int r = 0; r < 4; ++r) {
      empty_txt_line(line);
      read_one_line(line, fp.get());
      // A fourth word means the line holds more than three numbers.
      if (strnsplit_inplace_byspace(line, words, 4) != 3) ZK_FATAL("Unknown symmetry file format");
      for (int k = 0; k < 3; ++k) v[r][k] = atof(words[k]);
    }
    list.push_back(RT_Mat3D{rows(v[0][0], v[0][1], v[0][2], v[1][0], v[1][1], v[1][2], v[2][0], v[2][1], v[2][2]),
                            T_Vec3D{v[3][0], v[3][1], v[3][2]}});
  }
  print_transmat3d_vector(list);
  return (int)list.size();
}

int sym_vector_to_syms(RT_Mat3D* array, const std::vector<RT_Mat3D>& list) {
  if (!list.empty()) memcpy(array, list.data(), list.size() * sizeof(RT_Mat3D));
  return (int)list.size();
}

void print_rotmat3d(const R_Mat3D& m) {
  print_header(false);
  print_rows(m);
  printf("\n");
}

void print_transmat3d(const RT_Mat3D& m) {
  print_header(true);
  print_rows(m.R);
  printf("%15.8f%15.8f%15.8f\n\n", m.T.x, m.T.y, m.T.z);
}

void print_transmat3d_vector(const std::vector<RT_Mat3D>& list) {
  for (const RT_Mat3D& m : list) print_transmat3d(m);
}

void print_Rsym_List(const Rsym_List& list) {
  for (int i = 0; i < list.n; ++i) print_rotmat3d(list.rmat[i]);
}

void random_polar_angles_many(EM_Trans_Orient* orients, int n, unsigned seed) {
  srand(seed != 0 ? seed : (unsigned)time(0));
  for (int i = 0; i < n; ++i) {
    EM_Trans_Orient& o = orients[i];
    o.sx = o.sy = 0.0;
    o.rot = rand() * 360.0 / 2147483647.0;
    o.tilt = acos(1.0 - 2.0 * rand() / 2147483647.0) * 57.29577951308232;
    o.psi = rand() * 360.0 / 2147483647.0;
  }
}

std::vector<EM_Trans_Orient> asym_unit_orientations(const char* sym, double step) {
  char letter;
  int n;
  parse_sym(sym, &letter, &n);
  if (!(step > 0.0 && step <= 180.0)) ZK_FATAL("The angular step must lie in (0, 180] degrees");
  const double tilt_max = letter == 'C' ? 180.0 : 90.0;
  const double rot_max = 360.0 / n;
  std::vector<EM_Trans_Orient> out;
  for (int k = 0; k * step <= tilt_max + 1e-9; ++k) {
    const double tilt = k * step;
    const long ring = lround(360.0 * sin(rad(tilt)) / step);
    const double rstep = 360.0 / (ring > 1 ? (double)ring : 1.0);
    for (long j = 0; j * rstep < rot_max - 1e-9; ++j) out.push_back(EM_Trans_Orient{0.0, 0.0, j * rstep, tilt, 0.0});
  }
  return out;
}
