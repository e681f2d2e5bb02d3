// File commands on density maps: each reads the whole map, works on the
// device and writes a float MRC file (mode 2) that keeps the map's pixel
// size.  The centre of every rotation is ((n - 1)/2, ...) unless given.
// Outputs appear under their names only when complete.  Return 0.
#pragma once

// Euler angles a, b, c (hd_rottrans_to_rtmat3d) with the translation as
// given, then the transform of gpu_3d_transform with dir; the 3 form with one
// thread a voxel.
int mrcf_3d_rot_trans(const char* in, const char* out, float a, float b, float c, float tx, float ty, float tz,
                      int dir);
int mrcf_3d_rot_trans3(const char* in, const char* out, float a, float b, float c, float tx, float ty, float tz,
                       int dir);
// The translation turned by the rotation first (hd_transrot_to_rtmat3d).
int mrcf_3d_trans_rot(const char* in, const char* out, float tx, float ty, float tz, float a, float b, float c,
                      int dir);
// One projection, written with nz 1.
int mrcf_3d_project(const char* in, const char* out, float rot, float tilt, float psi, int dir);
// A stack of n projections at random orientations of a cubic map, each
// orientation printed; the stack is written as it is made, so n is not
// limited by memory.  seed as random_polar_angles_many.
int mrcf_3d_project_randN(const char* in, const char* out, int n, int dir, unsigned seed = 0);
// The same, and the back-projection of the projections (each by the reverse
// dir) into out_rec.
int mrcf_3d_project_rec_randN(const char* in, const char* out_proj, const char* out_rec, int n, int dir,
                              unsigned seed = 0);
// The first slice of in back-projected into a cleared volume of nz sections.
int mrcf_3d_backproject(const char* in, const char* out, int nz, float rot, float tilt, float psi, int dir);
// The operators of the file operators (get_syms_from_ofile), the map and its
// mask (same sizes) with their origin at (ox, oy, oz): the expansion into a
// cleared volume of nx by ny by nz about (cx, cy, cz).
int mrcf_3d_sym_expansion(const char* out, int nx, int ny, int nz, float cx, float cy, float cz, const char* map,
                          float ox, float oy, float oz, const char* mask, const char* operators);
// A volume in which each element holds its own index: made on the device
// for type 2, else on the host.
int mrcf_3d_0123(const char* name, int nx, int ny, int nz, int type);
// One file per section, "%s%06d.mrc" with prefix and the section from 0; the
// heads' extremes and mean set by mrcf_update_head.  mrc_split keeps the
// samples as they are stored, mrcf_split writes floats (mode 2).
int mrc_split(const char* in, const char* prefix);
int mrcf_split(const char* in, const char* prefix);
// The centre of mass (get_mass_center_3d), and its print form.
int mrcf_get_mass_center(const char* name, double& x, double& y, double& z);
int mrcf_print_mass_center(const char* name);
