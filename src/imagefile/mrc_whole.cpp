#include "imagefile/mrc_whole.h"

#include <cstring>

#include "core/report.h"

namespace {

// The checks that come before any sample is read.
void vet_head(const char* name, FILE* fp, const MRC_HEAD* head) {
  if (!mrc_mode_readable(head->mode)) {
    const std::string msg =
        zk_format("%s has MRC mode %d; the modes read are 0, 1, 2, 6 and 12", name, (int)head->mode);
    ZK_FATAL(msg.c_str());
  }
  if (mrc_head_samples(head) == 0) {
    const std::string msg = zk_format("%s has the sizes %d x %d x %d; all must be positive", name, (int)head->nx,
                                      (int)head->ny, (int)head->nz);
    ZK_FATAL(msg.c_str());
  }
  if (mrc_check_fsize(fp, head) != 0) {
    const std::string msg = zk_format("%s is not as long as its head promises", name);
    ZK_FATAL(msg.c_str());
  }
}

}  // namespace

void mrcf_read_whole(const char* name, MRC_HEAD* head, std::vector<float>& data) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "rb"));
  mrc_read_head(fp.get(), head);
  vet_head(name, fp.get(), head);
  data.resize(mrc_head_samples(head));
  mrc_read_all_nocheck(fp.get(), head, data.data());
}

void mrcf_open_checked(const char* name, ZkFilePtr& fp, MRC_HEAD* head) {
  fp.reset(ZK_FOPEN_READ(name, "rb"));
  mrc_read_head(fp.get(), head);
  vet_head(name, fp.get(), head);
}

void mrcf_read_first_slice(const char* name, MRC_HEAD* head, std::vector<float>& data) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "rb"));
  mrc_read_head(fp.get(), head);
  vet_head(name, fp.get(), head);
  data.resize((size_t)head->nx * (size_t)head->ny);
  mrc_read_slice(fp.get(), head, 0, 'z', data.data());
}

void mrc_require_cube(const char* name, const MRC_HEAD* head, const char* what) {
  if (is_mrc_cube(head)) return;
  const std::string msg = zk_format("%s is %d x %d x %d: %s needs a cubic map (nx = ny = nz)", name, (int)head->nx,
                                    (int)head->ny, (int)head->nz, what);
  ZK_FATAL(msg.c_str());
}

float mrc_head_apix(const MRC_HEAD* head) {
  if (head->mx > 0 && head->xlen > 0.0f) return head->xlen / (float)head->mx;
  return 0.0f;
}

void mrc_set_head_xyz_apix(MRC_HEAD* head, int nx, int ny, int nz, float apix) {
  mrc_set_head_xyz(head, nx, ny, nz);
  head->mx = nx;
  head->my = ny;
  head->mz = nz;
  head->xlen = apix * (float)nx;
  head->ylen = apix * (float)ny;
  head->zlen = apix * (float)nz;
}

void mrc_head_for_output(MRC_HEAD* out, const MRC_HEAD* in, int nx, int ny, int nz) {
  if (in) {
    const float apix = mrc_head_apix(in);
    *out = *in;
    // Written in this machine's order, whatever the input's was.
    mrc_set_head_stmp(out);
    if (apix > 0.0f) {
      mrc_set_head_xyz_apix(out, nx, ny, nz, apix);
    } else {
      mrc_set_head_xyz(out, nx, ny, nz);
    }
  } else {
    memset(out, 0, sizeof(MRC_HEAD));
    mrc_init_head(out);
    mrc_set_head_xyz(out, nx, ny, nz);
  }
  out->mode = MRC_MODE_FLOAT;
  out->next = 0;
}

ZkMrcStackWriter::ZkMrcStackWriter(const char* name, const MRC_HEAD& head) : head_(head) {
  head_.mode = MRC_MODE_FLOAT;
  fp_ = zk_out_open(out_, name);
  mrc_write_head(fp_, &head_);
}

void ZkMrcStackWriter::add(const float* slice) {
  const size_t n = (size_t)head_.nx * (size_t)head_.ny;
  for (size_t i = 0; i < n; ++i) {
    if ((nz_ == 0 && i == 0) || slice[i] < min_) min_ = slice[i];
    if ((nz_ == 0 && i == 0) || slice[i] > max_) max_ = slice[i];
    sum_ += slice[i];
  }
  mrc_add_slice(fp_, &head_, slice);
  ++nz_;
}

void ZkMrcStackWriter::finish() {
  const float apix = mrc_head_apix(&head_);
  if (apix > 0.0f) {
    mrc_set_head_xyz_apix(&head_, head_.nx, head_.ny, nz_, apix);
  } else {
    head_.nz = nz_;
  }
  const double n = (double)head_.nx * head_.ny * nz_;
  head_.amin = min_;
  head_.amax = max_;
  head_.amean = n > 0 ? (float)(sum_ / n) : 0.0f;
  mrc_write_head(fp_, &head_);
  zk_out_commit(out_);
}
