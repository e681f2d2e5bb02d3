#include "volume/process3d_mrc.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/process1d_raw.h"
#include "formats/safe_output.h"
#include "imagefile/mrc_device.h"
#include "imagefile/mrc_whole.h"
#include "volume/process3d_raw.h"
#include "volume/sym.h"

namespace {

float centre(int n) { return (float)(n - 1) / 2.0f; }

double now_seconds() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1000000.0;
}

// A host array on the device.
ZkDeviceArray<float> to_device(const std::vector<float>& h) {
  ZkDeviceArray<float> d(h.size());
  ZK_CHECK(memcpy_H2D(d.get(), h.data(), h.size() * sizeof(float)));
  return d;
}

// The map transformed on the device; the host array is reused for the result,
// so one host and two device copies of the map are held at once.
int transform_file(const char* in, const char* out, RT_Mat3D rt, int dir, bool per_voxel) {
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(in, &head, v);
  ZkDeviceArray<float> d_in = to_device(v), d_out(v.size());
  const float cx = centre(head.nx), cy = centre(head.ny), cz = centre(head.nz);
  if (per_voxel)
    hcuda_3d_transform3(d_out.get(), d_in.get(), head.nx, head.ny, head.nz, cx, cy, cz, rt, dir);
  else
    hcuda_3d_transform(d_out.get(), d_in.get(), head.nx, head.ny, head.nz, cx, cy, cz, rt, dir);
  d_in.reset();
  ZK_CHECK(memcpy_D2H(v.data(), d_out.get(), v.size() * sizeof(float)));
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &head, head.nx, head.ny, head.nz);
  mrcf_write_head_data(out, &ho, v.data());
  return 0;
}

// Projections of the map at the orientations into a stack written as it is
// made; with d_rec, each is also back-projected into it by the reverse dir.
void project_to_stack(const char* out, const MRC_HEAD& head, const float* d_map, const EM_Trans_Orient* o, int n,
                      int dir, float* d_rec) {
  const float cx = centre(head.nx), cy = centre(head.ny), cz = centre(head.nz);
  const size_t plane = (size_t)head.nx * head.ny;
  ZkDeviceArray<float> d_img(plane);
  std::vector<float> img(plane);
  MRC_HEAD hs;
  mrc_head_for_output(&hs, &head, head.nx, head.ny, n);
  ZkMrcStackWriter stack(out, hs);
  // The projections (with their copies and writes) and the back-projections
  // are timed apart.
  double t_proj = 0.0, t_back = 0.0;
  for (int k = 0; k < n; ++k) {
    const double t0 = now_seconds();
    hcuda_3d_project(d_img.get(), d_map, head.nx, head.ny, head.nz, cx, cy, cz, (float)o[k].rot, (float)o[k].tilt,
                     (float)o[k].psi, dir);
    ZK_CHECK(memcpy_D2H(img.data(), d_img.get(), plane * sizeof(float)));
    stack.add(img.data());
    const double t1 = now_seconds();
    t_proj += t1 - t0;
    if (!d_rec) continue;
    hcuda_3d_backproject(d_rec, d_img.get(), head.nx, head.ny, head.nz, cx, cy, cz, (float)o[k].rot, (float)o[k].tilt,
                         (float)o[k].psi, zk_reverse_dir(dir));
    t_back += now_seconds() - t1;
  }
  if (d_rec) printf("\n");
  printf(">>>>>>TIME<<<<<<%32s: %fs\n", "cuda_3d_project_many", t_proj);
  if (d_rec) printf(">>>>>>TIME<<<<<<%32s: %fs\n", "cuda_3d_backproject_many", t_back);
  stack.finish();
}

int project_random(const char* in, const char* out_proj, const char* out_rec, int n, int dir, unsigned seed) {
  if (n < 1) ZK_FATAL("The number of projections must be at least 1");
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(in, &head, v);
  mrc_require_cube(in, &head, "projection at random orientations");
  std::vector<EM_Trans_Orient> o((size_t)n);
  random_polar_angles_many(o.data(), n, seed);
  for (const EM_Trans_Orient& e : o) printf("rot %f tilt %f psi %f \n", e.rot, e.tilt, e.psi);
  ZkDeviceArray<float> d_map = to_device(v), d_rec;
  if (out_rec) {
    d_rec.allocate(v.size());
    hcuda_empty_float(d_rec.get(), v.size());
  }
  project_to_stack(out_proj, head, d_map.get(), o.data(), n, dir, out_rec ? d_rec.get() : nullptr);
  if (out_rec) {
    MRC_HEAD hr;
    mrc_head_for_output(&hr, &head, head.nx, head.ny, head.nz);
    mrcf_write_head_ddata(out_rec, &hr, d_rec.get());
  }
  return 0;
}

// The report of the split commands for a file that does not open.
[[noreturn]] void split_open_failed(const std::string& name) {
  zk_fail_plain(
      zk_format("\nError: in function 'mrc_split()'! Cannot open file '%s' strike any key exit!\n", name.c_str()));
}

int split_file(const char* in, const char* prefix, bool as_float) {
  FILE* raw = fopen(in, "rb");
  if (!raw) split_open_failed(in);
  ZkFilePtr fp(raw);
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  const int bytes = mrc_mode_bytes(head.mode);
  if (mrc_head_samples(&head) == 0 || bytes == 0 || (as_float && !mrc_mode_readable(head.mode))) {
    const std::string msg = zk_format("%s: mode %d, %d x %d x %d cannot be split", in, (int)head.mode, (int)head.nx,
                                      (int)head.ny, (int)head.nz);
    ZK_FATAL(msg.c_str());
  }
  const size_t plane = (size_t)head.nx * head.ny;
  std::vector<float> f(as_float ? plane : 0);
  std::vector<char> b(as_float ? 0 : plane * bytes);
  MRC_HEAD ho = head;
  ho.nz = 1;
  ho.mz = 1;
  if (head.mz > 0) ho.zlen = head.zlen / (float)head.mz;
  if (as_float) mrc_head_for_output(&ho, &head, head.nx, head.ny, 1);
  for (int z = 0; z < head.nz; ++z) {
    const std::string name = zk_format("%s%06d.mrc", prefix, z);
    ZkOutFile out;
    FILE* fo = nullptr;
    try {
      fo = zk_out_open(out, name.c_str());
    } catch (const ZkError&) {
      split_open_failed(name);
    }
    mrc_write_head(fo, &ho);
    if (as_float) {
      mrc_read_slice(fp.get(), &head, z, 'z', f.data());
      mrc_add_slice(fo, &ho, f.data());
    } else {
      // The samples as they lie in the file, in the input's byte order.
      fseek(fp.get(), 1024 + (long)(plane * bytes) * z, SEEK_SET);
      const size_t got = fread(b.data(), 1, b.size(), fp.get());
      if (got < b.size()) memset(b.data() + got, 0, b.size() - got);
      fwrite(b.data(), 1, b.size(), fo);
    }
    zk_out_commit(out);
    mrcf_update_head(name.c_str());
  }
  return 0;
}

}  // namespace

int mrcf_3d_rot_trans(const char* in, const char* out, float a, float b, float c, float tx, float ty, float tz,
                      int dir) {
  return transform_file(in, out, hd_rottrans_to_rtmat3d(a, b, c, tx, ty, tz), dir, false);
}

int mrcf_3d_rot_trans3(const char* in, const char* out, float a, float b, float c, float tx, float ty, float tz,
                       int dir) {
  return transform_file(in, out, hd_rottrans_to_rtmat3d(a, b, c, tx, ty, tz), dir, true);
}

int mrcf_3d_trans_rot(const char* in, const char* out, float tx, float ty, float tz, float a, float b, float c,
                      int dir) {
  return transform_file(in, out, hd_transrot_to_rtmat3d(tx, ty, tz, a, b, c), dir, false);
}

int mrcf_3d_project(const char* in, const char* out, float rot, float tilt, float psi, int dir) {
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(in, &head, v);
  ZkDeviceArray<float> d_map = to_device(v), d_img((size_t)head.nx * head.ny);
  v.clear();
  v.shrink_to_fit();
  hcuda_3d_project(d_img.get(), d_map.get(), head.nx, head.ny, head.nz, centre(head.nx), centre(head.ny),
                   centre(head.nz), rot, tilt, psi, dir);
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &head, head.nx, head.ny, 1);
  mrcf_write_head_ddata(out, &ho, d_img.get());
  return 0;
}

int mrcf_3d_project_randN(const char* in, const char* out, int n, int dir, unsigned seed) {
  return project_random(in, out, nullptr, n, dir, seed);
}

int mrcf_3d_project_rec_randN(const char* in, const char* out_proj, const char* out_rec, int n, int dir,
                              unsigned seed) {
  return project_random(in, out_proj, out_rec, n, dir, seed);
}

int mrcf_3d_backproject(const char* in, const char* out, int nz, float rot, float tilt, float psi, int dir) {
  if (nz < 1) ZK_FATAL("The volume needs at least one section");
  MRC_HEAD head;
  std::vector<float> img;
  mrcf_read_first_slice(in, &head, img);
  ZkDeviceArray<float> d_img = to_device(img), d_vol((size_t)head.nx * head.ny * nz);
  hcuda_empty_float(d_vol.get(), d_vol.size());
  hcuda_3d_backproject(d_vol.get(), d_img.get(), head.nx, head.ny, nz, centre(head.nx), centre(head.ny), centre(nz),
                       rot, tilt, psi, dir);
  printf("\n");
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &head, head.nx, head.ny, nz);
  mrcf_write_head_ddata(out, &ho, d_vol.get());
  return 0;
}

int mrcf_3d_sym_expansion(const char* out, int nx, int ny, int nz, float cx, float cy, float cz, const char* map,
                          float ox, float oy, float oz, const char* mask, const char* operators) {
  if (nx < 1 || ny < 1 || nz < 1) ZK_FATAL("The sizes of the expanded volume must be positive");
  std::vector<RT_Mat3D> ops;
  get_syms_from_ofile(ops, operators);
  MRC_HEAD hm, hk;
  std::vector<float> vm, vk;
  mrcf_read_whole(map, &hm, vm);
  mrcf_read_whole(mask, &hk, vk);
  if (hm.nx != hk.nx || hm.ny != hk.ny || hm.nz != hk.nz) {
    const std::string msg = zk_format("The mask %s is %d x %d x %d and the map %s %d x %d x %d: they must be equal",
                                      mask, hk.nx, hk.ny, hk.nz, map, hm.nx, hm.ny, hm.nz);
    ZK_FATAL(msg.c_str());
  }
  ZkDeviceArray<float> d_map = to_device(vm), d_mask = to_device(vk), d_out((size_t)nx * ny * nz);
  hcuda_empty_float(d_out.get(), d_out.size());
  hcuda_3d_sym_expansion(d_out.get(), nx, ny, nz, cx, cy, cz, d_map.get(), hm.nx, hm.ny, hm.nz, ox, oy, oz,
                         d_mask.get(), ops.data(), (int)ops.size());
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &hm, nx, ny, nz);
  mrcf_write_head_ddata(out, &ho, d_out.get());
  return 0;
}

int mrcf_3d_0123(const char* name, int nx, int ny, int nz, int type) {
  if (nx < 1 || ny < 1 || nz < 1) ZK_FATAL("The sizes of the volume must be positive");
  const size_t n = (size_t)nx * ny * nz;
  if (type == 2) {
    ZkDeviceArray<float> d(n);
    hcuda_1d_auto0123(d.get(), n);
    mrcf_write_xyz_ddata(name, d.get(), nx, ny, nz);
    return 0;
  }
  std::vector<float> h(n);
  cpu_1d_auto0123(h.data(), n);
  mrcf_write_xyz_data(name, h.data(), nx, ny, nz);
  return 0;
}

int mrc_split(const char* in, const char* prefix) { return split_file(in, prefix, false); }

int mrcf_split(const char* in, const char* prefix) { return split_file(in, prefix, true); }

int mrcf_get_mass_center(const char* name, double& x, double& y, double& z) {
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(name, &head, v);
  get_mass_center_3d(v.data(), head.nx, head.ny, head.nz, x, y, z);
  return 0;
}

int mrcf_print_mass_center(const char* name) {
  double x, y, z;
  mrcf_get_mass_center(name, x, y, z);
  printf("mass center (x,y,z) : (%.2f \t%.2f \t%.2f)\n", x, y, z);
  return 0;
}
