// Operations on density maps in memory: transforms, projection,
// back-projection and symmetry expansion, on device arrays (hcuda_) and
// staged through the device from host arrays (gpu_).
//
// A volume is nx by ny by nz floats, element (x, y, z) at (z*ny + y)*nx + x.
// Sampling is trilinear at a position inside [0, n - 1] on every axis (the
// limits included; a neighbour is taken only where the position has a
// fraction on that axis) and 0 outside.  Positions are worked out in double
// and sampled in single precision.  Matrices are made on the host, so both
// back ends give the same bits.
//
// The projection with a given dir and the back-projection with the other dir
// (zk_reverse_dir) are the adjoint pair: the back-projection of a projection
// smears each image back along the lines it was summed over.
#pragma once
#include <cstdint>

#include "volume/sym.h"

// On the host the kernels take their work in an order of their own (tiles
// of columns, voxels in memory order) that gives the GPU's bits; with on,
// the host runs the GPU's column kernels instead, so that their results can
// be checked without a GPU.
void zk_volume_columns_on_host(bool on);

// -1 for any dir but -1, 0 for -1.
inline int zk_reverse_dir(int dir) { return dir == -1 ? 0 : -1; }

// Output voxel v samples the input at c + M*(v - c) + u: with dir -1, M and u
// are R and T of rt; with any other dir M is the inverse of R and u = -M*T, so
// that rt maps the input onto the output.  A singular R throws the fatal
// report.  One thread a column (x, y) walking z; prints the timer line and
// the block sizes.
void hcuda_3d_transform(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                        float cz, RT_Mat3D rt, int dir);
// The same result with one thread a voxel in blocks of 16 x 16 x 4.
void hcuda_3d_transform3(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                         float cz, RT_Mat3D rt, int dir);
// hcuda_3d_transform about ((nx - 1)*0.5, (ny - 1)*0.5, (nz - 1)*0.5) in
// single precision, without the printed lines.
void cuda_3d_transform_auto_center(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, RT_Mat3D rt,
                                   int dir);
// A transform by the Euler matrix of the projection kernels, no translation.
void hcuda_3d_rotate(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                     float rot, float tilt, float psi, int dir);

// out (nx by ny) = the sum over z = 0 .. nz - 1 of the volume sampled at
// c + M*((x, y, z) - c), M = hd_euler_kernel_rmat3d(rot, tilt, psi, dir).
void hcuda_3d_project(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                      float rot, float tilt, float psi, int dir);
// Adds to each voxel v of out the bilinear value of the image in (nx by ny)
// at the x and y of c + M*(v - c), where they lie on the image; out is not
// cleared.  Prints one ".".
void hcuda_3d_backproject(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                          float cz, float rot, float tilt, float psi, int dir);

// Paints the small map (mx by my by mz, its origin at (ox, oy, oz) in the
// volume) into out at every operator's place, in list order.  For voxel v and
// operator (R, T), M = R^-1: p = c + M*(v - c) - M*T - o; where p lies in the
// small map, w = mask(p), d = map(p): w >= 0.999999 sets out = d, w > 0 mixes
// out = w*d + (1 - w)*out.  ops is a host array.
void hcuda_3d_sym_expansion(float* out, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                            const float* map, uint32_t mx, uint32_t my, uint32_t mz, float ox, float oy, float oz,
                            const float* mask, const RT_Mat3D* ops, int nops);

// ---------------------------------------------------------------------------
// Staged forms on host arrays.
void gpu_3d_transform(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                      RT_Mat3D rt, int dir);
void gpu_3d_transform3(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                       RT_Mat3D rt, int dir);
void gpu_3d_project(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                    float rot, float tilt, float psi, int dir);
// out is the host volume added to.
void gpu_3d_backproject(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                        float cz, float rot, float tilt, float psi, int dir);
// n projections (image k at k*nx*ny of out) at the given orientations; prints
// the timer line "cuda_3d_project_many".
void gpu_3d_project_many(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                         float cz, const EM_Trans_Orient* orients, int n, int dir);
// n random orientations into orients (printed as "rot %f tilt %f psi %f"),
// then their projections.  seed as random_polar_angles_many.
void gpu_3d_project_randN(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                          float cz, EM_Trans_Orient* orients, int n, int dir, unsigned seed = 0);
// A cleared volume plus every image of the stack by its orientation; prints
// the timer line "cuda_3d_backproject_many".
void gpu_3d_backproject_many(float* out, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy,
                             float cz, const EM_Trans_Orient* orients, int n, int dir);
// gpu_3d_project_randN, then the back-projection of the projections into rec,
// each by the reverse dir of its projection.
void gpu_3d_project_rec_randN(float* proj, float* rec, const float* in, uint32_t nx, uint32_t ny, uint32_t nz, float cx,
                              float cy, float cz, EM_Trans_Orient* orients, int n, int dir, unsigned seed = 0);
// out is the host volume painted into.
void gpu_3d_sym_expansion(float* out, uint32_t nx, uint32_t ny, uint32_t nz, float cx, float cy, float cz,
                          const float* map, uint32_t mx, uint32_t my, uint32_t mz, float ox, float oy, float oz,
                          const float* mask, const RT_Mat3D* ops, int nops);

// Sum of v*x over the sum of v on each axis, in double.  The sum of v must
// not be 0.
void get_mass_center_3d(const float* v, uint32_t nx, uint32_t ny, uint32_t nz, double& x, double& y, double& z);
