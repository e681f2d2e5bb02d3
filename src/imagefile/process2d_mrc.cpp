#include "imagefile/process2d_mrc.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/ptcl_box.h"
#include "core/report.h"
#include "core/str_utils.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/process1d_raw.h"
#include "device/process2d_local.h"
#include "formats/boxfile.h"
#include "formats/safe_output.h"
#include "imagefile/mrc_whole.h"

namespace {

// The most boxes the placing commands read.
constexpr int kMaxPlacedBoxes = 10240;

struct Image {
  MRC_HEAD head;
  std::vector<float> v;
  int nx() const { return head.nx; }
  int ny() const { return head.ny; }
};

Image read_image(const char* name) {
  Image im;
  mrcf_read_first_slice(name, &im.head, im.v);
  return im;
}

// The oldest commands report an input that does not open in their own words.
Image read_image_or_strike(const char* name, const char* report) {
  FILE* fp = fopen(name, "rb");
  if (!fp) zk_fail_plain(report);
  fclose(fp);
  return read_image(name);
}

// One slice of nx by ny floats under a head made from the input's; the pixel
// size is multiplied by scale.
void write_image(const char* name, const MRC_HEAD& in, int nx, int ny, const float* data, float scale = 1.0f) {
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &in, nx, ny, 1);
  const float apix = mrc_head_apix(&in);
  if (apix > 0.0f && scale != 1.0f) mrc_set_head_xyz_apix(&ho, nx, ny, 1, apix * scale);
  mrcf_write_head_data(name, &ho, data);
}

ZkDeviceArray<float> to_device(const std::vector<float>& h) {
  ZkDeviceArray<float> d(h.size());
  ZK_CHECK(memcpy_H2D(d.get(), h.data(), h.size() * sizeof(float)));
  return d;
}

std::vector<float> to_host(const ZkDeviceArray<float>& d) {
  std::vector<float> h(d.size());
  ZK_CHECK(memcpy_D2H(h.data(), d.get(), d.size() * sizeof(float)));
  return h;
}

void require_even(const MRC_HEAD& head) {
  if (mrc_check_even_size(&head) != 0) ZK_FATAL("file size not even number");
}

void require_same_xy(const char* a, const MRC_HEAD& ha, const char* b, const MRC_HEAD& hb) {
  if (ha.nx == hb.nx && ha.ny == hb.ny) return;
  const std::string msg =
      zk_format("The images %s (%d x %d) and %s (%d x %d) differ in size", a, ha.nx, ha.ny, b, hb.nx, hb.ny);
  ZK_FATAL(msg.c_str());
}

// The spectrum of the first slice of argv[1], divided by sqrt(nx*ny).  func
// names the command in its reports.
ZkDeviceArray<float2> normalised_spectrum(int argc, char** argv, const char* func, MRC_HEAD* head) {
  if (argc < 3 || !argv[1] || !argv[2]) {
    const std::string msg = zk_format("%s() takes an input and an output file", func);
    ZK_FATAL(msg.c_str());
  }
  FILE* fp = fopen(argv[1], "rb");
  if (!fp) zk_fail_plain(zk_format("Cannot open file %s strike any key exit!\n", argv[1]));
  fclose(fp);
  std::vector<float> v;
  mrcf_read_first_slice(argv[1], head, v);
  if (mrc_check_even_size(head) != 0)
    zk_fail_plain(zk_format("Error in fuction '%s()'! image size must be even in both directon!\n", func));
  ZkDeviceArray<float> d = to_device(v);
  ZkDeviceArray<float2> f((size_t)(head->nx / 2 + 1) * head->ny);
  hcuda_2d_fft_r2c_normz(d.get(), f.get(), head->nx, head->ny);
  return f;
}

// Particles of a stack pasted over a micrograph, by the plain or the fitted
// copy.
int paste_particles(const char* mic, const char* stack, const char* ref, const char* boxes) {
  Image m = read_image(mic);
  MRC_HEAD hs;
  std::vector<float> s;
  mrcf_read_whole(stack, &hs, s);
  std::vector<float> r;
  if (ref) {
    MRC_HEAD hr;
    mrcf_read_whole(ref, &hr, r);
    if (hr.nx != hs.nx || hr.ny != hs.ny || hr.nz != hs.nz) {
      const std::string msg =
          zk_format("The stack %s (%d x %d x %d) and the reference %s (%d x %d x %d) differ in size", stack, hs.nx,
                    hs.ny, hs.nz, ref, hr.nx, hr.ny, hr.nz);
      ZK_FATAL(msg.c_str());
    }
  }
  std::vector<PTCL_BOX> b(kMaxPlacedBoxes);
  const int n = read_all_ptcl_boxes(b.data(), kMaxPlacedBoxes, boxes);
  if (n != hs.nz) ZK_FATAL("Particle number in the stack file does not equal that in box file");
  if (ref)
    cpu_x2d_norm_cp_ptcls_to_micrograph(m.v.data(), m.nx(), m.ny(), s.data(), r.data(), hs.nx, hs.ny, b.data(), n);
  else
    cpu_x2d_cp_ptcls_to_micrograph(m.v.data(), m.nx(), m.ny(), s.data(), hs.nx, hs.ny, b.data(), n);
  char out[ZK_TXT_LEN];
  set_outname_by_suffix(out, mic, "_prp.mrc");
  write_image(out, m.head, m.nx(), m.ny(), m.v.data());
  return 0;
}

}  // namespace

int mrcf_cuda_2d_rotate(const char* in, const char* out, float psi) {
  Image im = read_image_or_strike(in, "Cannot open file strike any key exit!\n");
  printf("Begin Rotation %f:\n", psi);
  ZkDeviceArray<float> d = to_device(im.v), o(im.v.size());
  hcuda_2d_rotate(d.get(), o.get(), im.nx(), im.ny(), psi);
  write_image(out, im.head, im.nx(), im.ny(), to_host(o).data());
  printf("Rotation finished!\n");
  return 0;
}

int mrcf_cuda_2d_translate_rotate(const char* in, const char* out, float tx, float ty, float psi) {
  Image im = read_image_or_strike(in, "Cannot open file strike any key exit!\n");
  printf("Begin translating (%f, %f) and rotating %f:\n", tx, ty, psi);
  ZkDeviceArray<float> d = to_device(im.v), o(im.v.size());
  hcuda_2d_translate_rotate(d.get(), o.get(), im.nx(), im.ny(), tx, ty, psi);
  write_image(out, im.head, im.nx(), im.ny(), to_host(o).data());
  printf("Translation and rotation finished!\n");
  return 0;
}

int mrcf_cuda_2d_shrink(const char* in, const char* out, int s) {
  Image im = read_image(in);
  if (s < 1 || s > im.nx() || s > im.ny()) {
    const std::string msg = zk_format("The shrink factor %d must lie between 1 and the image's sides", s);
    ZK_FATAL(msg.c_str());
  }
  const int ox = im.nx() / s, oy = im.ny() / s;
  ZkDeviceArray<float> d = to_device(im.v), o((size_t)ox * oy);
  hcuda_2d_meanshrink(d.get(), o.get(), im.nx(), im.ny(), s);
  write_image(out, im.head, ox, oy, to_host(o).data(), (float)s);
  printf("shrinking finished!\n");
  return 0;
}

int mrcf_cuda_2d_transform(const char* in, const char* out, RT_Mat2D m, int inverse) {
  Image im = read_image(in);
  printf("Begin  transform :\n");
  printf("Transform Matrix (R11, R12, R21, R22, Tx, Ty):\n");
  printf("                 (%8.3f%8.3f%8.3f%8.3f%8.3f%8.3f)\n", m.R11, m.R12, m.R21, m.R22, m.Tx, m.Ty);
  ZkDeviceArray<float> d = to_device(im.v), o(im.v.size());
  hcuda_2d_transform(d.get(), o.get(), im.nx(), im.ny(), (float)(im.nx() - 1) / 2.0f, (float)(im.ny() - 1) / 2.0f, m,
                     inverse);
  write_image(out, im.head, im.nx(), im.ny(), to_host(o).data());
  printf("transforming finished!\n");
  return 0;
}

int mrcf_2d_fourier_shift(const char* in, const char* out, float dx, float dy) {
  Image im = read_image(in);
  require_even(im.head);
  std::vector<float> o(im.v.size());
  gpu_2d_shift2(im.v.data(), o.data(), im.nx(), im.ny(), dx, dy);
  write_image(out, im.head, im.nx(), im.ny(), o.data());
  return 0;
}

int mrcf_2d_lave(const char* in, const char* out, float r, float soft) {
  Image im = read_image(in);
  require_even(im.head);
  std::vector<float> o(im.v.size());
  gpu_2d_local_ave_softR_mpad(o.data(), im.v.data(), im.nx(), im.ny(), r, soft);
  write_image(out, im.head, im.nx(), im.ny(), o.data());
  return 0;
}

int mrcf_2d_lsigma(const char* in, const char* out, float r, float soft) {
  Image im = read_image(in);
  require_even(im.head);
  std::vector<float> o(im.v.size());
  gpu_2d_local_sigma_softR(o.data(), im.v.data(), im.nx(), im.ny(), r, soft);
  write_image(out, im.head, im.nx(), im.ny(), o.data());
  return 0;
}

int mrcf_x2d_ccf(const char* a, const char* b, const char* out) {
  Image ia = read_image(a), ib = read_image(b);
  check_mrc_head_sizes_two(a, b, &ia.head, &ib.head);
  require_even(ia.head);
  std::vector<float> o(ia.v.size());
  gpu_x2d_ccf(ia.v.data(), ib.v.data(), o.data(), ia.nx(), ia.ny());
  write_image(out, ia.head, ia.nx(), ia.ny(), o.data());
  return 0;
}

float mrcf_x2d_ccc_with2maskfs(const char* a, const char* ma, const char* b, const char* mb) {
  Image ia = read_image(a), ima = read_image(ma), ib = read_image(b), imb = read_image(mb);
  require_same_xy(a, ia.head, ma, ima.head);
  require_same_xy(a, ia.head, b, ib.head);
  require_same_xy(a, ia.head, mb, imb.head);
  return cpu_x2d_ccc_with2maskfs(ia.v.data(), ima.v.data(), ib.v.data(), imb.v.data(), ia.nx(), ia.ny());
}

int mrcf_fft_r2c_2d(int argc, char** argv) {
  MRC_HEAD head;
  ZkDeviceArray<float2> f = normalised_spectrum(argc, argv, "mrcf_fft_r2c_2d", &head);
  std::vector<float2> h(f.size());
  ZK_CHECK(memcpy_D2H(h.data(), f.get(), h.size() * sizeof(float2)));
  // The other sign convention of the exponent: the complex conjugate.
  double top = 0.0;
  for (float2& c : h) {
    c.y = -c.y;
    top = std::max(top, std::sqrt((double)c.x * c.x + (double)c.y * c.y));
  }
  MRC_HEAD ho;
  mrc_head_for_output(&ho, &head, head.nx / 2 + 1, head.ny, 1);
  ho.mode = MRC_MODE_COMPLEX_FLOAT;
  ho.amin = 0.0f;
  ho.amax = (float)top;
  ho.amean = 0.0f;
  ZkOutFile out;
  FILE* fp = zk_out_open(out, argv[2]);
  mrc_write_head(fp, &ho);
  fwrite(h.data(), sizeof(float2), h.size(), fp);
  zk_out_commit(out);
  return 0;
}

int mrcf_fft_r2c_amp_2d(int argc, char** argv) {
  MRC_HEAD head;
  ZkDeviceArray<float2> f = normalised_spectrum(argc, argv, "mrcf_fft_r2c_amp_2d", &head);
  const unsigned int nxh = head.nx / 2 + 1;
  ZkDeviceArray<float> amp(f.size()), swapped(f.size());
  hcuda_complex_logmod(amp.get(), f.get(), f.size());
  hcuda_float_center_swap(amp.get(), swapped.get(), nxh, head.ny);
  write_image(argv[2], head, (int)nxh, head.ny, to_host(swapped).data());
  return 0;
}

int mrcf_mask2d_create(const char* name, int nx, int ny, float cx, float cy, float r, float soft) {
  return mrcf_2d_auto_template_gauss(name, nx, ny, cx, cy, r, soft, 1);
}

int mrcf_2d_auto_template_gauss(const char* name, int nx, int ny, float cx, float cy, float r, float soft, int type) {
  if (nx < 1 || ny < 1) ZK_FATAL("The sizes of the image must be positive");
  if (type != 1 && type != 2) ZK_FATAL("The type must be 1 (the host mask) or 2 (the device mask)");
  std::vector<float> m((size_t)nx * ny);
  if (type == 1) {
    cpu_2d_generate_rmask_soft(m.data(), nx, ny, cx, cy, r, soft);
  } else {
    ZkDeviceArray<float> d(m.size());
    hcuda_2d_generate_rmask_soft(d.get(), nx, ny, cx, cy, r, soft);
    m = to_host(d);
  }
  mrcf_write_xyz_data(name, m.data(), nx, ny, 1);
  return 0;
}

int mrcf_2d_auto_template_gauss_cylinder(const char* name, int nx, int ny, float c, float r, float soft, int type) {
  if (nx < 1 || ny < 1) ZK_FATAL("The sizes of the image must be positive");
  if (type != 1 && type != 2) ZK_FATAL("The type must be 1 (the host mask) or 2 (the device mask)");
  std::vector<float> row(nx);
  if (type == 1) {
    cpu_1d_generate_rmask_soft(row.data(), nx, c, r, soft);
  } else {
    ZkDeviceArray<float> d(nx);
    hcuda_1d_generate_rmask_soft(d.get(), nx, c, r, soft);
    row = to_host(d);
  }
  std::vector<float> m((size_t)nx * ny);
  for (int y = 0; y < ny; ++y) memcpy(m.data() + (size_t)y * nx, row.data(), nx * sizeof(float));
  mrcf_write_xyz_data(name, m.data(), nx, ny, 1);
  return 0;
}

int get_mrcf_mass_center(const char* in) {
  ZkFilePtr fp(ZK_FOPEN_READ(in, "rb"));
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  if (!mrc_mode_readable(head.mode) || mrc_head_samples(&head) == 0) {
    const std::string msg = zk_format("%s: mode %d, %d x %d x %d has no mass to weigh", in, (int)head.mode,
                                      (int)head.nx, (int)head.ny, (int)head.nz);
    ZK_FATAL(msg.c_str());
  }
  std::vector<float> slice((size_t)head.nx * head.ny);
  double s = 0.0, sx = 0.0, sy = 0.0, sz = 0.0;
  for (int z = 0; z < head.nz; ++z) {
    mrc_read_slice(fp.get(), &head, z, 'z', slice.data());
    for (int y = 0; y < head.ny; ++y)
      for (int x = 0; x < head.nx; ++x) {
        const double w = slice[(size_t)y * head.nx + x];
        s += w;
        sx += w * x;
        sy += w * y;
        sz += w * z;
      }
  }
  printf("mass center (cenx, ceny, cenz):  %8.3f %8.3f %8.3f \n", sx / s, sy / s, sz / s);
  return 0;
}

int mrcf_x2d_cp_ptcls_to_micrograph(const char* mic, const char* stack, const char* boxes) {
  return paste_particles(mic, stack, nullptr, boxes);
}

int mrcf_x2d_norm_cp_ptcls_to_micrograph(const char* mic, const char* stack, const char* ref, const char* boxes) {
  return paste_particles(mic, stack, ref, boxes);
}
