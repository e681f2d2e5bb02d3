#include "imagefile/process2d_mrcs.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/ptcl_box.h"
#include "core/report.h"
#include "core/str_utils.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/process2d_raw.h"
#include "formats/boxfile.h"
#include "formats/safe_output.h"
#include "imagefile/mrc_whole.h"

namespace {

// Slices per opening of a long stack.
constexpr int kRun = 1000;

// A stack read slice by slice.
struct SliceReader {
  ZkFilePtr fp;
  MRC_HEAD head;
  std::vector<float> slice;
  explicit SliceReader(const char* name) {
    mrcf_open_checked(name, fp, &head);
    slice.resize(plane());
  }
  size_t plane() const { return (size_t)head.nx * head.ny; }
  const float* read(int z) {
    mrc_read_slice(fp.get(), &head, z, 'z', slice.data());
    return slice.data();
  }
};

// A stack opened anew for each run of kRun slices: "." as a run begins, "-"
// after its last slice.
struct RunReader {
  const char* name;
  ZkFilePtr fp;
  MRC_HEAD head;
  explicit RunReader(const char* n) : name(n) { mrcf_open_checked(name, fp, &head); }
  void read(int z, float* dst) {
    if (z % kRun == 0) {
      if (!fp) mrcf_open_checked(name, fp, &head);
      printf(".");
      fflush(stdout);
    }
    mrc_read_slice(fp.get(), &head, z, 'z', dst);
    if (z % kRun == kRun - 1) {
      fp.reset();
      printf("-");
      fflush(stdout);
    }
  }
};

MRC_HEAD stack_head(const MRC_HEAD& in, int nx, int ny, float apix_scale = 1.0f) {
  MRC_HEAD h;
  mrc_head_for_output(&h, &in, nx, ny, 1);
  const float apix = mrc_head_apix(&in);
  if (apix > 0.0f) mrc_set_head_xyz_apix(&h, nx, ny, 1, apix * apix_scale);
  return h;
}

// The device sum of slices, then the division: the order of gpu_2ds_average.
struct SliceMean {
  int nx, ny, n = 0;
  ZkDeviceArray<float> sum, in;
  SliceMean(int x, int y) : nx(x), ny(y), sum((size_t)x * y), in((size_t)x * y) { hcuda_2d_empty(sum.get(), nx, ny); }
  void add(const float* h) {
    ZK_CHECK(memcpy_H2D(in.get(), h, in.size() * sizeof(float)));
    hcuda_x2d_add_inplace(sum.get(), in.get(), nx, ny);
    ++n;
  }
  std::vector<float> mean() {
    hcuda_2d_divide_inplace(sum.get(), nx, ny, (float)n);
    std::vector<float> h(sum.size());
    ZK_CHECK(memcpy_D2H(h.data(), sum.get(), h.size() * sizeof(float)));
    return h;
  }
};

}  // namespace

int mrcf_cuda_2ds_scale(const char* in, const char* out, float f) {
  SliceReader r(in);
  const int ox = get_2d_scaled_size(r.head.nx, f), oy = get_2d_scaled_size(r.head.ny, f);
  if (!(f > 0.0f) || ox < 1 || oy < 1) {
    const std::string msg = zk_format("The scale %f leaves no pixel of %s", f, in);
    ZK_FATAL(msg.c_str());
  }
  printf("Begin scaling %f:\n", f);
  ZkMrcStackWriter w(out, stack_head(r.head, ox, oy, 1.0f / f));
  std::vector<float> o((size_t)ox * oy);
  for (int z = 0; z < r.head.nz; ++z) {
    gpu_2d_scale(o.data(), r.read(z), r.head.nx, r.head.ny, f);
    w.add(o.data());
  }
  w.finish();
  printf("Scaling finished!\n");
  return 0;
}

int mrcf_2ds_fourier_shift(const char* in, const char* out_stack, const char* out_ave, const float2* shifts, int n,
                           int write_stack) {
  SliceReader r(in);
  if (n < 1) n = r.head.nz;
  if (n > r.head.nz) ZK_FATAL("file size smaller than frames of drifts");
  if (mrc_check_even_size(&r.head) != 0) ZK_FATAL("file size not even number");
  const int nx = r.head.nx, ny = r.head.ny;
  std::unique_ptr<ZkMrcStackWriter> w;
  if (write_stack != 0) w.reset(new ZkMrcStackWriter(out_stack, stack_head(r.head, nx, ny)));
  SliceMean mean(nx, ny);
  std::vector<float> o(r.plane());
  for (int z = 0; z < n; ++z) {
    gpu_2d_shift(r.read(z), o.data(), nx, ny, shifts[z].x, shifts[z].y);
    mean.add(o.data());
    if (w) w->add(o.data());
    printf(".");
    fflush(stdout);
  }
  printf("\n");
  const std::vector<float> ave = mean.mean();
  MRC_HEAD ha = stack_head(r.head, nx, ny);
  mrcf_write_head_data(out_ave, &ha, ave.data());
  if (w) w->finish();
  return 0;
}

int mrcf_2ds_average(const char* in, const char* out) {
  SliceReader r(in);
  SliceMean mean(r.head.nx, r.head.ny);
  for (int z = 0; z < r.head.nz; ++z) mean.add(r.read(z));
  const std::vector<float> ave = mean.mean();
  MRC_HEAD ha = stack_head(r.head, r.head.nx, r.head.ny);
  mrcf_write_head_data(out, &ha, ave.data());
  return 0;
}

int mrcf_2ds_find_single_peaks(const char* in) {
  char name[ZK_TXT_LEN];
  set_outname_by_suffix(name, in, "_local_center.txt");
  RunReader r(in);
  const int nx = r.head.nx, ny = r.head.ny, nz = r.head.nz;
  ZkOutFile out;
  FILE* fo = zk_out_open(out, name);
  printf("searching and writing all peaks (frame,   x,     y,     value) to %s :\n", name);
  std::vector<float> slice((size_t)nx * ny);
  for (int z = 0; z < nz; ++z) {
    r.read(z, slice.data());
    const Pixel p = cpu_2d_get_unique_peak(slice.data(), nx, ny);
    fprintf(fo, "%8d %8d %8d %15.6f \n", z, p.x, p.y, p.value);
    fflush(fo);
  }
  zk_out_commit(out);
  printf("\n peak search finished\n");
  return 0;
}

int mrcsf_2ds_extract_local_ptcls(const char* in, const char* boxes, int newsize) {
  RunReader r(in);
  const int nx = r.head.nx, ny = r.head.ny, nz = r.head.nz;
  // One more record than slices tells whether the file holds more.
  std::vector<PTCL_BOX> b((size_t)nz + 1);
  int n = read_all_ptcl_boxes(b.data(), nz + 1, boxes);
  if (n < nz) {
    printf("Particle number in mrcs stack more than that in the box file!\n Extra particles have been ignored! \n");
  } else if (n > nz) {
    printf("Particle number in mrcs stack smaller than that in the box file!\n Extra particles have been ignored! \n");
    n = nz;
  }
  if (n > 0 && newsize != 0) resize_ptcl_boxes(b.data(), n, newsize);
  const int w = n > 0 ? b[0].w : 0, h = n > 0 ? b[0].h : 0;
  if (n > 0 && (w < 1 || h < 1)) {
    const std::string msg = zk_format("The boxes of %s are %d x %d; give a new box size", boxes, w, h);
    ZK_FATAL(msg.c_str());
  }
  char name[ZK_TXT_LEN];
  set_outname_by_suffix(name, in, "_local_particles.mrcs");
  ZkMrcStackWriter out(name, stack_head(r.head, w > 0 ? w : 1, h > 0 ? h : 1));
  std::vector<float> slice((size_t)nx * ny), cut((size_t)(w > 0 ? w : 1) * (h > 0 ? h : 1));
  for (int z = 0; z < n; ++z) {
    r.read(z, slice.data());
    // The slice pasted into the cut-out with the box's corner at its origin:
    // dst(i, j) = slice(x0 + i, y0 + j), 0 where that lies off the slice.
    cpu_2d_empty(cut.data(), w, h);
    cpu_x2d_cp_small_to_large(cut.data(), slice.data(), w, h, nx, ny, -b[z].x, -b[z].y);
    out.add(cut.data());
  }
  out.finish();
  printf("\n particle extraction finished\n");
  return 0;
}

int mrcsf_2ds_rm_hotpixels(const char* in, const char* out, float k) {
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(in, &head, v);
  hcuda_2ds_rm_hotpixels_inplace(v.data(), head.nx, head.ny, head.nz, k);
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &head, head.nx, head.ny, head.nz);
  mrcf_write_head_data(out, &ho, v.data());
  return 0;
}

int mrcsf_upsidedown(const char* in, const char* out) {
  FILE* fp = fopen(in, "rb");
  if (!fp) zk_fail_plain("\nCannot open file strike any key exit!\n");
  fclose(fp);
  SliceReader r(in);
  ZkMrcStackWriter w(out, stack_head(r.head, r.head.nx, r.head.ny));
  for (int z = r.head.nz - 1; z >= 0; --z) w.add(r.read(z));
  w.finish();
  return 0;
}

int mrcsf_split(const char* in, const char* prefix) {
  SliceReader r(in);
  MRC_HEAD h = stack_head(r.head, r.head.nx, r.head.ny);
  for (int z = 0; z < r.head.nz; ++z) {
    const std::string name = zk_format("%s%06d.mrc", prefix, z);
    mrcf_write_head_data(name.c_str(), &h, r.read(z));
    printf(".");
    fflush(stdout);
  }
  printf("\n");
  return 0;
}
