// Rotation matrices, Euler angles and symmetry operators of density maps.
//
// Matrices are made on the host in double precision and handed to the kernels
// as values, so that both back ends use the same bits.  An elementary rotation
// by t degrees has the rows (c, s) and (-s, c) in its plane: Rz(t) turns the
// frame, not the object, by t about z.
#pragma once
#include <cstdio>
#include <vector>

// Nine doubles, row by row.
struct R_Mat3D {
  double r11, r12, r13;
  double r21, r22, r23;
  double r31, r32, r33;
};
struct T_Vec3D {
  double x, y, z;
};
// A rotation followed by a translation.
struct RT_Mat3D {
  R_Mat3D R;
  T_Vec3D T;
};
// A list of rotations; rmat is allocated with malloc and freed by the caller
// (free_Rsym_List).
struct Rsym_List {
  R_Mat3D* rmat;
  int n;
};
// One orientation: shifts in pixels, Euler angles in degrees.
struct EM_Trans_Orient {
  double sx, sy, rot, tilt, psi;
};

// ---------------------------------------------------------------------------
// Elementary rotations and products.
R_Mat3D hd_rotx_to_rmat3d(double t);
R_Mat3D hd_roty_to_rmat3d(double t);
R_Mat3D hd_rotz_to_rmat3d(double t);
R_Mat3D hd_rmat3d_identity();
// a*b.
R_Mat3D hd_rmat3d_multi(const R_Mat3D& a, const R_Mat3D& b);
T_Vec3D hd_rmat3d_x_vec(const R_Mat3D& m, const T_Vec3D& v);
double hd_rmat3d_det(const R_Mat3D& m);
// The inverse by cofactors over the determinant; the determinant is returned
// in det, and a zero determinant leaves the result undefined (caller checks).
R_Mat3D hd_rmat3d_inverse(const R_Mat3D& m, double* det);

// Euler angles, zyz: Rz(c)*Ry(b)*Rz(a), and its inverse Rz(-a)*Ry(-b)*Rz(-c).
R_Mat3D hd_euler_to_rmat3d_zyz(double a, double b, double c);
R_Mat3D hd_euler_to_rmat3d_zyz_inverse(double a, double b, double c);
RT_Mat3D hd_euler_to_rtmat3d_zyz(double a, double b, double c);
RT_Mat3D hd_euler_to_rtmat3d_zyz_inverse(double a, double b, double c);
// R from the Euler angles with the translation t as given, or with R*t.
RT_Mat3D hd_rottrans_to_rtmat3d(double a, double b, double c, double tx, double ty, double tz);
RT_Mat3D hd_transrot_to_rtmat3d(double tx, double ty, double tz, double a, double b, double c);
// The matrix of the projection kernels: Rz(rot)*Ry(tilt)*Rz(psi) for dir -1,
// its inverse Rz(-psi)*Ry(-tilt)*Rz(-rot) for any other dir.
R_Mat3D hd_euler_kernel_rmat3d(double rot, double tilt, double psi, int dir);

// ---------------------------------------------------------------------------
// Symmetry.
// Rotation by a full turn over n about axis 'x', 'y' or 'z' (either case);
// the identity for any other axis.
R_Mat3D hd_rmat3d_sym_C(int n, char axis);
// Rotation about z by i/n of a full turn.
R_Mat3D hd_rmat3d_sym_Cn_i(int n, int i);
// i from 0 to 2n - 1: Rx(180*(i/n)) * Rz(360*i/n); the second n add the half
// turn about x.
R_Mat3D hd_rmat3d_sym_Dn_i(int n, int i);
// "C7", "d4": the letter C or D in either case and a number n >= 1.  Cn gives
// n matrices, Dn 2n.  Any other text throws a report naming the accepted forms.
Rsym_List create_Rsym_List(const char* text);
void free_Rsym_List(Rsym_List& list);

// The operators of the ".ncs_symmetry_operators" blocks of a text file, in
// file order: after each block line, three lines with the rows of R and one
// with the translation, three numbers each.  The list is cleared first and
// printed at the end.  A block line that is not followed by four lines of
// three words throws "Unknown symmetry file format".
int get_syms_from_ofile(std::vector<RT_Mat3D>& list, const char* name);
// Copies the list into array (room for list.size()); returns the count.
int sym_vector_to_syms(RT_Mat3D* array, const std::vector<RT_Mat3D>& list);

void print_rotmat3d(const R_Mat3D& m);
void print_transmat3d(const RT_Mat3D& m);
void print_transmat3d_vector(const std::vector<RT_Mat3D>& list);
void print_Rsym_List(const Rsym_List& list);

// ---------------------------------------------------------------------------
// Orientations.
// n orientations uniform over the sphere (rot and psi uniform in [0, 360],
// tilt = acos(1 - 2u)), shifts 0, from rand() after srand(seed), or
// srand(time(0)) when seed is 0.
void random_polar_angles_many(EM_Trans_Orient* orients, int n, unsigned seed = 0);
// Projection directions about step degrees apart over the asymmetric unit of
// the symmetry text (Cn: rot in [0, 360/n), tilt in [0, 180]; Dn: tilt up to
// 90), psi 0.  Each ring of constant tilt holds about 360*sin(tilt)/step
// directions around the full circle, of which those below 360/n are kept.
std::vector<EM_Trans_Orient> asym_unit_orientations(const char* sym, double step);
