#include "formats/mrcfile.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#include "core/report.h"
#include "formats/safe_output.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the samples are taken as little-endian host memory");

namespace {

constexpr long MRC_HEAD_BYTES = 1024;
// Integer and half samples are converted through a buffer of this size, so a
// plane needs no allocation of its own.
constexpr size_t CHUNK_BYTES = 1 << 16;

inline uint16_t bswap16(uint16_t v) { return (uint16_t)((v >> 8) | (v << 8)); }
inline uint32_t bswap32(uint32_t v) { return __builtin_bswap32(v); }

void swap16_at(void* base, size_t offset) {
  uint16_t v;
  memcpy(&v, (char*)base + offset, 2);
  v = bswap16(v);
  memcpy((char*)base + offset, &v, 2);
}
void swap32_at(void* base, size_t offset) {
  uint32_t v;
  memcpy(&v, (char*)base + offset, 4);
  v = bswap32(v);
  memcpy((char*)base + offset, &v, 4);
}

// Every numeric field of the head changes byte order; the texts, the stamps
// and the reserved bytes stay as they are.
void swap_head_fields(MRC_HEAD* head) {
  for (size_t off = 0; off <= offsetof(MRC_HEAD, amean); off += 4) swap32_at(head, off);
  swap16_at(head, offsetof(MRC_HEAD, ispg));
  swap16_at(head, offsetof(MRC_HEAD, nsymbt));
  swap32_at(head, offsetof(MRC_HEAD, next));
  swap16_at(head, offsetof(MRC_HEAD, creatid));
  swap32_at(head, offsetof(MRC_HEAD, xorg));
  swap32_at(head, offsetof(MRC_HEAD, yorg));
  swap32_at(head, offsetof(MRC_HEAD, zorg));
  swap32_at(head, offsetof(MRC_HEAD, rms));
  swap32_at(head, offsetof(MRC_HEAD, nlabl));
}

bool has_map_stamp(const MRC_HEAD* head) { return memcmp(head->cmap, "MAP", 3) == 0; }

void set_little_endian_stamp(MRC_HEAD* head) {
  head->stamp[0] = 0x44;
  head->stamp[1] = 0x41;
  head->stamp[2] = 0;
  head->stamp[3] = 0;
}

// IEEE 754 half precision to single, exact for every value: subnormals are
// normalised, infinities and NaNs keep their sign and payload.
float half_to_float(uint16_t h) {
  uint32_t sign = (uint32_t)(h & 0x8000u) << 16;
  uint32_t exp = (h >> 10) & 0x1fu;
  uint32_t man = h & 0x3ffu;
  uint32_t bits;
  if (exp == 0) {
    if (man == 0) {
      bits = sign;
    } else {
      uint32_t e = 127 - 15 + 1;
      while (!(man & 0x400u)) {
        man <<= 1;
        --e;
      }
      bits = sign | (e << 23) | ((man & 0x3ffu) << 13);
    }
  } else if (exp == 31) {
    bits = sign | 0x7f800000u | (man << 13);
  } else {
    bits = sign | ((exp + 127 - 15) << 23) | (man << 13);
  }
  float f;
  memcpy(&f, &bits, 4);
  return f;
}

// One sample of the given mode at p, as a float.  Every value of modes 0, 1,
// 6 and 12 is exact in single precision.
inline float sample_value(const unsigned char* p, int mode, bool swap) {
  switch (mode) {
    case MRC_MODE_BYTE:
      return (float)p[0];
    case MRC_MODE_SHORT: {
      uint16_t u;
      memcpy(&u, p, 2);
      if (swap) u = bswap16(u);
      return (float)(int16_t)u;
    }
    case MRC_MODE_USHORT: {
      uint16_t u;
      memcpy(&u, p, 2);
      if (swap) u = bswap16(u);
      return (float)u;
    }
    case MRC_MODE_HALF: {
      uint16_t u;
      memcpy(&u, p, 2);
      if (swap) u = bswap16(u);
      return half_to_float(u);
    }
    default: {  // MRC_MODE_FLOAT
      uint32_t u;
      memcpy(&u, p, 4);
      if (swap) u = bswap32(u);
      float f;
      memcpy(&f, &u, 4);
      return f;
    }
  }
}

// Reads n samples at the stream's position into dst.  Floats of a
// little-endian file go in one block; other modes through a small buffer.
// What the file does not hold reads as 0.  Returns the samples read.
template <class T>
size_t read_samples(FILE* fp, const MRC_HEAD* head, size_t n, T* dst) {
  const int mode = head->mode;
  const int b = mrc_mode_bytes(mode);
  const bool swap = mrc_head_big_endian(head);
  size_t got = 0;
  if constexpr (std::is_same<T, float>::value) {
    if (mode == MRC_MODE_FLOAT) {
      got = fread(dst, 4, n, fp);
      if (swap)
        for (size_t i = 0; i < got; ++i) {
          uint32_t u;
          memcpy(&u, &dst[i], 4);
          u = bswap32(u);
          memcpy(&dst[i], &u, 4);
        }
      for (size_t i = got; i < n; ++i) dst[i] = 0.0f;
      return got;
    }
  }
  unsigned char buf[CHUNK_BYTES];
  const size_t per = CHUNK_BYTES / (size_t)b;
  while (got < n) {
    size_t want = n - got < per ? n - got : per;
    size_t k = fread(buf, (size_t)b, want, fp);
    for (size_t i = 0; i < k; ++i) dst[got + i] = (T)sample_value(buf + i * b, mode, swap);
    got += k;
    if (k < want) break;
  }
  for (size_t i = got; i < n; ++i) dst[i] = (T)0;
  return got;
}

template <class T>
void fill_zero(T* dst, size_t n) {
  for (size_t i = 0; i < n; ++i) dst[i] = (T)0;
}

// n samples from byte offset pos; what cannot be read is 0.
template <class T>
void seek_and_read(FILE* fp, const MRC_HEAD* head, long long pos, size_t n, T* dst) {
  if (fseek(fp, (long)pos, SEEK_SET) != 0) {
    fill_zero(dst, n);
    return;
  }
  read_samples(fp, head, n, dst);
}

template <class T>
int read_slice_as(FILE* fp, const MRC_HEAD* head, int slice, char axis, T* dst) {
  if (!mrc_mode_readable(head->mode)) return 0;
  const long long b = mrc_mode_bytes(head->mode);
  const long long nx = head->nx, ny = head->ny, nz = head->nz;
  if (nx <= 0 || ny <= 0 || nz <= 0) return 0;
  const long long offset = mrc_data_offset(head);
  // A plane outside the volume reads as zeros rather than as samples of
  // a neighbouring row or section.
  switch (axis) {
    case 'z':
    case 'Z':
      if (slice < 0 || slice >= nz) {
        fill_zero(dst, (size_t)(nx * ny));
        break;
      }
      seek_and_read(fp, head, offset + nx * ny * b * slice, (size_t)(nx * ny), dst);
      break;
    case 'y':
    case 'Y':
      if (slice < 0 || slice >= ny) {
        fill_zero(dst, (size_t)(nx * nz));
        break;
      }
      for (long long z = 0; z < nz; ++z)
        seek_and_read(fp, head, offset + (z * nx * ny + (long long)slice * nx) * b, (size_t)nx, dst + z * nx);
      break;
    case 'x':
    case 'X':
      if (slice < 0 || slice >= nx) {
        fill_zero(dst, (size_t)(ny * nz));
        break;
      }
      for (long long k = 0; k < ny * nz; ++k)
        seek_and_read(fp, head, offset + (k * nx + slice) * b, 1, dst + k);
      break;
    default:
      break;
  }
  return 0;
}

// Extremes start at the first sample; the mean is summed in double.
void max_min_mean(const float* a, size_t n, float& mx, float& mn, float& mean) {
  if (n == 0) {
    mx = mn = mean = 0.0f;
    return;
  }
  mx = mn = a[0];
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) {
    if (a[i] > mx) mx = a[i];
    if (a[i] < mn) mn = a[i];
    sum += a[i];
  }
  mean = (float)(sum / (double)n);
}


void* alloc_or_die(size_t bytes, const char* func, int line) {
  void* p = malloc(bytes ? bytes : 1);
  if (!p) zk_fatal(func, zk_basename(__FILE__), line, "Host memory allocation failed");
  return p;
}
#define ZK_ALLOC(bytes) alloc_or_die((bytes), __func__, __LINE__)

}  // namespace

int mrc_mode_bytes(int mode) {
  switch (mode) {
    case 0:
      return 1;
    case 1:
    case 6:
    case 12:
      return 2;
    case 2:
    case 3:
      return 4;
    case 4:
    case 20:
    case 21:
    case 22:
      return 8;
    default:
      return 0;
  }
}

bool mrc_mode_readable(int mode) { return mode == 0 || mode == 1 || mode == 2 || mode == 6 || mode == 12; }

bool mrc_head_big_endian(const MRC_HEAD* head) { return head->stamp[0] == 0x11; }

long mrc_data_offset(const MRC_HEAD* head) { return MRC_HEAD_BYTES + (head->next > 0 ? (long)head->next : 0L); }

size_t mrc_head_samples(const MRC_HEAD* head) {
  if (head->nx <= 0 || head->ny <= 0 || head->nz <= 0) return 0;
  return (size_t)head->nx * (size_t)head->ny * (size_t)head->nz;
}

// ---------------------------------------------------------------- reading

int mrc_read_head(FILE* fp, MRC_HEAD* head) {
  if (ftell(fp) != 0) rewind(fp);
  // A file shorter than a head leaves the rest of it zero.
  memset(head, 0, sizeof(MRC_HEAD));
  if (fread(head, 1, sizeof(MRC_HEAD), fp) != sizeof(MRC_HEAD)) clearerr(fp);
  // Without "MAP" the bytes at 212 are not a machine stamp: the file is read
  // in host order and the head gets the stamp of this system.
  if (!has_map_stamp(head)) mrc_set_head_stmp(head);
  if (mrc_head_big_endian(head)) swap_head_fields(head);
  return 0;
}

int mrc_set_head_stmp(MRC_HEAD* head) {
  const unsigned char s[8] = {0x4D, 0x41, 0x50, 0x20, 0x44, 0x41, 0, 0};
  memcpy(head->cmap, s, 8);
  return 0;
}

int mrc_read_slice(FILE* fp, const MRC_HEAD* head, int slice, char axis, float* dst) {
  return read_slice_as(fp, head, slice, axis, dst);
}

long get_file_size(FILE* fp) {
  fseek(fp, 0, SEEK_END);
  return ftell(fp);
}

int mrc_check_fsize(FILE* fp, const MRC_HEAD* head) {
  const int b = mrc_mode_bytes(head->mode);
  if (b == 0) {
    ZK_WARNING("File type unknown!");
    return -1;
  }
  const long fsize = get_file_size(fp);
  const long long expected = (long long)b * head->nx * head->ny * head->nz;
  if ((long long)fsize - mrc_data_offset(head) != expected) {
    printf("File size %ld  %d xyz %ld", fsize, b, (long)expected);
    ZK_WARNING("File size error!");
    return -1;
  }
  return 0;
}

int mrc_read_all_nocheck(FILE* fp, const MRC_HEAD* head, float* dst) {
  const size_t n = mrc_head_samples(head);
  if (n == 0) return 0;
  fseek(fp, mrc_data_offset(head), SEEK_SET);
  if (head->mode == MRC_MODE_FLOAT) {
    // Floats go in one block; a read that yields nothing is the one failure
    // reported.
    if (read_samples(fp, head, n, dst) == 0) {
      ZK_WARNING("Reading file failed!\n");
      return -1;
    }
    return 0;
  }
  if (mrc_mode_readable(head->mode)) {
    read_samples(fp, head, n, dst);
    return 0;
  }
  ZK_WARNING("File type unknown!");
  return 0;
}

int mrc_read_all(FILE* fp, const MRC_HEAD* head, float* dst) {
  if (mrc_check_fsize(fp, head) != 0) ZK_FATAL("File size error!");
  return mrc_read_all_nocheck(fp, head, dst);
}

MRC_HEAD* get_mrcf_head(const char* name) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "rb"));
  MRC_HEAD* head = mrc_new_head();
  mrc_read_head(fp.get(), head);
  return head;
}

float* get_mrcf_data_all(const char* name) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "rb"));
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  // The size check comes before the allocation, so that a head with absurd
  // sizes ends the run with the size report instead of a huge request.
  if (mrc_check_fsize(fp.get(), &head) != 0) ZK_FATAL("File size error!");
  float* data = (float*)ZK_ALLOC(mrc_head_samples(&head) * sizeof(float));
  mrc_read_all(fp.get(), &head, data);
  return data;
}

long get_mrcf_dim_size(const char* name, const char* keyword) {
  MRC_HEAD head;
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, &head);
  fclose(fp);
  const long nx = head.nx, ny = head.ny, nz = head.nz;
  if (strcasecmp(keyword, "x") == 0) return nx;
  if (strcasecmp(keyword, "y") == 0) return ny;
  if (strcasecmp(keyword, "z") == 0) return nz;
  if (strcasecmp(keyword, "xy") == 0 || strcasecmp(keyword, "yx") == 0) return nx * ny;
  if (strcasecmp(keyword, "xz") == 0 || strcasecmp(keyword, "zx") == 0) return nx * nz;
  if (strcasecmp(keyword, "yz") == 0 || strcasecmp(keyword, "zy") == 0) return ny * nz;
  if (strcasecmp(keyword, "xyz") == 0) return nx * ny * nz;
  printf("Error in function %s(), file %s on line %d: unrecognized dimension keywords %s !\n", __func__,
         zk_basename(__FILE__), __LINE__, keyword);
  printf("valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n");
  return 0;
}

const char* mrc_get_head_mode(const MRC_HEAD* head) {
  switch (head->mode) {
    case 0:
      return "Byte";
    case 1:
      return "Short";
    case 2:
      return "Float";
    case 3:
      return "Complex Short";
    case 4:
      return "Complex Float";
    case 6:
      return "Unsigned Short";
    case 12:
      return "Float16";
    case 16:
      return "RGB";
    case 20:
      return "Complex Float (Real, Imag)";
    case 21:
      return "Complex Float (Amp, Rad)";
    case 22:
      return "Complex Float (Amp, Deg)";
    default:
      return "Unknown";
  }
}

std::string mrc_micrograph_problem(const char* name, FILE* fp, const MRC_HEAD* head) {
  const long pos = ftell(fp);
  const long fsize = get_file_size(fp);
  fseek(fp, pos < 0 ? 0 : pos, SEEK_SET);
  if (fsize < MRC_HEAD_BYTES)
    return zk_format("Micrograph %s is too short for an MRC file: %ld bytes, at least %ld needed.", name, fsize,
                     MRC_HEAD_BYTES);
  if (head->nx <= 0 || head->ny <= 0 || head->nz <= 0)
    return zk_format("Micrograph %s has no usable size in its head: Nx %d, Ny %d, Nz %d.", name, head->nx, head->ny,
                     head->nz);
  // Kernels index pixels with 32-bit integers.
  if (head->nx > 1000000 || head->ny > 1000000 || (long long)head->nx * head->ny >= (1LL << 31))
    return zk_format("Micrograph %s is too large: Nx %d, Ny %d; at most 1000000 a side and 2147483647 pixels.", name,
                     head->nx, head->ny);
  if (!mrc_mode_readable(head->mode))
    return zk_format("Micrograph %s has mode %d (%s), which cannot be read; modes 0, 1, 2, 6 and 12 can.", name,
                     head->mode, mrc_get_head_mode(head));
  if (head->next < 0)
    return zk_format("Micrograph %s has an extended header of %d bytes in its head, which cannot be.", name,
                     head->next);
  const long need = mrc_data_offset(head) + (long)head->nx * head->ny * mrc_mode_bytes(head->mode);
  if (fsize < need)
    return zk_format("Micrograph %s is shorter than its head promises: %ld bytes, at least %ld needed.", name, fsize,
                     need);
  return "";
}

int mrc_vet_micrograph(const char* name, FILE* fp, const MRC_HEAD* head) {
  const std::string problem = mrc_micrograph_problem(name, fp, head);
  if (problem.empty()) return 0;
  printf("%s\n", problem.c_str());
  return -1;
}

int check_mrc_head_sizes_two(const char* first_mic, const char* mic, const MRC_HEAD* head_first, const MRC_HEAD* head) {
  if (head_first->nx == head->nx && head_first->ny == head->ny && head_first->nz == head->nz &&
      head_first->mode == head->mode)
    return 0;
  std::string lines = zk_format(
      "Micrograph \x1b[1m%s\x1b[m has a different size or format from  \x1b[1m%s\x1b[m.\nCheck if all the "
      "micrographs are the same sizes and format? \n ",
      first_mic, mic);
  lines += "      Nx      Ny      Nz      Mode             File:\n";
  lines += zk_format("      %-8d%-8d%-8d%-18s  %s\n", head_first->nx, head_first->ny, head_first->nz,
                     mrc_get_head_mode(head_first), first_mic);
  lines += zk_format("      %-8d%-8d%-8d%-18s  %s\n", head->nx, head->ny, head->nz, mrc_get_head_mode(head), mic);
  zk_fail_plain(lines);
}

// ---------------------------------------------------------------- writing

MRC_HEAD* mrc_new_head() {
  MRC_HEAD* head = (MRC_HEAD*)ZK_ALLOC(sizeof(MRC_HEAD));
  memset(head, 0, sizeof(MRC_HEAD));
  mrc_init_head(head);
  return head;
}

int mrc_init_head(MRC_HEAD* head) {
  head->nx = head->ny = head->nz = 1;
  head->mode = MRC_MODE_FLOAT;
  head->nxstart = head->nystart = head->nzstart = 0;
  head->mx = head->my = head->mz = 1;
  head->xlen = head->ylen = head->zlen = 1.0f;
  head->alpha = head->beta = head->gamma = 90.0f;
  head->mapc = 1;
  head->mapr = 2;
  head->maps = 3;
  head->amin = 0.0f;
  head->amax = 255.0f;
  head->amean = 128.0f;
  head->ispg = 1;
  head->nsymbt = 0;
  head->next = 0;
  head->creatid = 1000;
  memset(head->blank, 0, sizeof head->blank);
  // The reserved bytes are cleared too, so that written files do not depend
  // on what the caller's memory held.
  memset(head->extra, 0, sizeof head->extra);
  head->rms = 0.0f;
  head->xorg = head->yorg = head->zorg = 0.0f;
  mrc_set_head_stmp(head);
  head->nlabl = 0;
  memset(head->labels, 0, sizeof head->labels);
  return 0;
}

int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode) {
  head->nx = nx;
  head->ny = ny;
  head->nz = nz;
  head->mode = mode;
  return 0;
}

int mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, uint32_t count) {
  max_min_mean(data, count, head->amax, head->amin, head->amean);
  return 0;
}

int mrc_write_head(FILE* fp, const MRC_HEAD* head) {
  if (ftell(fp) != 0) rewind(fp);
  if (!has_map_stamp(head)) ZK_WARNING("MRC format problem! Check file format!\n");
  MRC_HEAD out = *head;
  // A head read from a big-endian file goes back in the order of its stamp,
  // so that rewriting the head of such a file keeps it consistent.
  if (mrc_head_big_endian(&out)) swap_head_fields(&out);
  fwrite(&out, sizeof(MRC_HEAD), 1, fp);
  return 0;
}

int mrc_write_head_data(FILE* fp, MRC_HEAD* head, const float* data) {
  const size_t n = mrc_head_samples(head);
  max_min_mean(data, n, head->amax, head->amin, head->amean);
  if (head->mode != MRC_MODE_FLOAT)
    ZK_FATAL("mrc_write_head_alldata() does not support writing float data to other MRC format.");
  // The samples go out in host order right after the head, and the head says
  // so: the little-endian stamp and no extended header.
  set_little_endian_stamp(head);
  head->next = 0;
  mrc_write_head(fp, head);
  const size_t plane = (size_t)(head->nx > 0 ? head->nx : 0) * (size_t)(head->ny > 0 ? head->ny : 0);
  for (int z = 0; z < head->nz && plane > 0; ++z) fwrite(data + (size_t)z * plane, sizeof(float), plane, fp);
  return 0;
}

int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz) {
  MRC_HEAD head;
  memset(&head, 0, sizeof head);
  mrc_init_head(&head);
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  mrc_set_head_mmm_from_data(&head, data, (uint32_t)mrc_head_samples(&head));
  mrc_write_head_data(fp, &head, data);
  zk_out_commit(out);
  return 0;
}

// ---------------------------------------------------------------- library

int mrcf_read_head(const char* name, MRC_HEAD* head) {
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, head);
  fclose(fp);
  return 0;
}

int mrcf_i_open_io_read_head(const char* name, FILE*& fp, MRC_HEAD* head_in, MRC_HEAD* head_out) {
  fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, head_in);
  *head_out = *head_in;
  head_out->mode = MRC_MODE_FLOAT;
  // The output will hold host-order floats right after its head, whatever
  // the input's byte order and extended header.
  set_little_endian_stamp(head_out);
  head_out->next = 0;
  return 0;
}

int mrcf_io_open_io_read_head(const char* in, const char* out, FILE*& fp_in, FILE*& fp_out, MRC_HEAD* head_in,
                              MRC_HEAD* head_out) {
  fp_out = ZK_FOPEN_WRITE(out, "w+");
  return mrcf_i_open_io_read_head(in, fp_in, head_in, head_out);
}

int mrcf_io_open_io_read_write_head(const char* in, const char* out, FILE*& fp_in, FILE*& fp_out, MRC_HEAD* head_in,
                                    MRC_HEAD* head_out) {
  mrcf_io_open_io_read_head(in, out, fp_in, fp_out, head_in, head_out);
  mrc_write_head(fp_out, head_out);
  return 0;
}

int mrc_io_close_io_free_head(FILE* fp_in, FILE* fp_out, MRC_HEAD* head_in, MRC_HEAD* head_out) {
  if (fp_in) fclose(fp_in);
  if (fp_out) fclose(fp_out);
  free(head_in);
  free(head_out);
  return 0;
}

int mrc_io_close_io_free_head_data(FILE* fp_in, FILE* fp_out, MRC_HEAD* head_in, MRC_HEAD* head_out, float* data) {
  mrc_io_close_io_free_head(fp_in, fp_out, head_in, head_out);
  free(data);
  return 0;
}

int mrcf_write_head_data(const char* name, MRC_HEAD* head, const float* data) {
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  mrc_write_head_data(fp, head, data);
  zk_out_commit(out);
  return 0;
}

int mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz) {
  head->nx = nx;
  head->ny = ny;
  head->nz = nz;
  return 0;
}

int mrc_set_head_mode(MRC_HEAD* head, int mode) {
  head->mode = mode;
  return 0;
}

int mrc_set_head_xyz_mmm(MRC_HEAD* head, int nx, int ny, int nz, float min, float max, float mean) {
  mrc_set_head_xyz(head, nx, ny, nz);
  if (max < min) {
    float t = max;
    max = min;
    min = t;
  }
  head->amin = min;
  head->amax = max;
  head->amean = mean;
  return 0;
}

int mrc_set_head_xyz_mmmm(MRC_HEAD* head, int nx, int ny, int nz, float min, float max, float mean, int mode) {
  mrc_set_head_xyz_mmm(head, nx, ny, nz, min, max, mean);
  head->mode = mode;
  return 0;
}

int mrc_check_head(const MRC_HEAD* head) {
  if (has_map_stamp(head)) return 0;
  printf("Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n");
  return -1;
}

int mrc_replace_head(const char* name, const MRC_HEAD* head) {
  FILE* fp = ZK_FOPEN_WRITE(name, "r+b");
  mrc_write_head(fp, head);
  fclose(fp);
  return 0;
}

int mrcf_update_head(const char* name) {
  MRC_HEAD head;
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, &head);
  if (mrc_mode_readable(head.mode) && mrc_head_samples(&head) > 0) {
    printf("updating head!\n");
    const size_t plane = (size_t)head.nx * (size_t)head.ny;
    float* buf = (float*)ZK_ALLOC(plane * sizeof(float));
    double mn = 0.0, mx = 0.0, sum = 0.0;
    for (int z = 0; z < head.nz; ++z) {
      mrc_read_slice(fp, &head, z, 'z', buf);
      for (size_t i = 0; i < plane; ++i) {
        const double v = buf[i];
        if ((z == 0 && i == 0) || v < mn) mn = v;
        if ((z == 0 && i == 0) || v > mx) mx = v;
        sum += v;
      }
    }
    free(buf);
    head.amin = (float)mn;
    head.amax = (float)mx;
    head.amean = (float)(sum / (double)mrc_head_samples(&head));
    fclose(fp);
    mrc_replace_head(name, &head);
    printf("updating head finished!\n");
    return 0;
  }
  fclose(fp);
  return 0;
}

int mrcf_read_head_data_nocheck(const char* name, MRC_HEAD* head, float* dst) {
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, head);
  int r = mrc_read_all_nocheck(fp, head, dst);
  fclose(fp);
  return r;
}

namespace {
int read_checked(const char* name, MRC_HEAD* head, float* dst, int nx, int ny, int nz, bool check_z, const char* func,
                 int line) {
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, head);
  if (head->nx != nx || head->ny != ny || (check_z && head->nz != nz)) {
    fclose(fp);
    zk_warning(func, zk_basename(__FILE__), line, "Image size differs from the expected size");
    return -1;
  }
  int r = mrc_read_all_nocheck(fp, head, dst);
  fclose(fp);
  return r;
}
}  // namespace

int mrcf_read_data_check_xy(const char* name, float* dst, int nx, int ny) {
  MRC_HEAD head;
  return read_checked(name, &head, dst, nx, ny, 0, false, __func__, __LINE__);
}

int mrcf_read_data_check_xyz(const char* name, float* dst, int nx, int ny, int nz) {
  MRC_HEAD head;
  return read_checked(name, &head, dst, nx, ny, nz, true, __func__, __LINE__);
}

int mrcf_read_head_data_check_xy(const char* name, MRC_HEAD* head, float* dst, int nx, int ny) {
  return read_checked(name, head, dst, nx, ny, 0, false, __func__, __LINE__);
}

int mrcf_read_head_data_check_xyz(const char* name, MRC_HEAD* head, float* dst, int nx, int ny, int nz) {
  return read_checked(name, head, dst, nx, ny, nz, true, __func__, __LINE__);
}

int mrcf_read_slice_check_xy_cid(const char* name, int slice, char axis, float* dst, int nx, int ny, int cid) {
  MRC_HEAD head;
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, &head);
  int r = -1;
  if (head.nx == nx && head.ny == ny && head.creatid == (int16_t)cid) r = mrc_read_slice(fp, &head, slice, axis, dst);
  fclose(fp);
  return r;
}

float* get_mrcf_data_sliceN(const char* name, int n) {
  MRC_HEAD head;
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, &head);
  const size_t plane = (head.nx > 0 && head.ny > 0) ? (size_t)head.nx * (size_t)head.ny : 0;
  float* dst = (float*)ZK_ALLOC(plane * sizeof(float));
  mrc_read_slice(fp, &head, n, 'z', dst);
  fclose(fp);
  return dst;
}

int get_mrcf_head_data(const char* name, MRC_HEAD* head, float* dst) {
  FILE* fp = ZK_FOPEN_READ(name, "rb");
  mrc_read_head(fp, head);
  int r = mrc_read_all(fp, head, dst);
  fclose(fp);
  return r;
}

int mrcf_read_all(const char* name, float* dst) {
  MRC_HEAD head;
  return get_mrcf_head_data(name, &head, dst);
}

int mrc_read_slice_double(FILE* fp, const MRC_HEAD* head, int slice, char axis, double* dst) {
  if (mrc_check_fsize(fp, head) != 0) ZK_FATAL("File size error!");
  return read_slice_as(fp, head, slice, axis, dst);
}

int mrc_read_slice_byte(FILE* fp, const MRC_HEAD* head, int slice, char axis, unsigned char* dst) {
  if (mrc_check_fsize(fp, head) != 0) ZK_FATAL("File size error!");
  if (!mrc_mode_readable(head->mode)) return 0;
  size_t n = 0;
  switch (axis) {
    case 'z':
    case 'Z':
      n = (size_t)head->nx * (size_t)head->ny;
      break;
    case 'y':
    case 'Y':
      n = (size_t)head->nx * (size_t)head->nz;
      break;
    case 'x':
    case 'X':
      n = (size_t)head->ny * (size_t)head->nz;
      break;
    default:
      return 0;
  }
  float* plane = (float*)ZK_ALLOC(n * sizeof(float));
  read_slice_as(fp, head, slice, axis, plane);
  const float range = head->amax - head->amin;
  for (size_t i = 0; i < n; ++i) {
    float v = range != 0.0f ? (head->amax - plane[i]) * 255.0f / range : 0.0f;
    if (!(v >= 0.0f)) v = 0.0f;  // also NaN
    if (v > 255.0f) v = 255.0f;
    dst[i] = (unsigned char)v;
  }
  free(plane);
  return 0;
}

int mrc_add_slice(FILE* fp, const MRC_HEAD* head, const float* data) {
  fseek(fp, 0, SEEK_END);
  const size_t n = (size_t)head->nx * (size_t)head->ny;
  if (!mrc_head_big_endian(head)) {
    fwrite(data, sizeof(float), n, fp);
    return 0;
  }
  for (size_t i = 0; i < n; ++i) {
    uint32_t u;
    memcpy(&u, &data[i], 4);
    u = bswap32(u);
    fwrite(&u, 4, 1, fp);
  }
  return 0;
}

int mrc_check_even_size(const MRC_HEAD* head) { return (head->nx % 2 != 0 || head->ny % 2 != 0) ? -1 : 0; }

bool is_mrc_square(const MRC_HEAD* head) { return head->nx == head->ny; }

bool is_mrc_cube(const MRC_HEAD* head) { return head->nx == head->ny && head->nx == head->nz; }

int mrc_read_sub_area(FILE* fp, const MRC_HEAD* head, float* dst, int x0, int y0, int z0, int w, int h, int d) {
  if (head->mode != MRC_MODE_FLOAT) zk_fail_plain("File Mode must be MRC_MODE_FLOAT!Exit now!\n");
  if (w < 0 || h < 0 || d < 0 || x0 < 0 || y0 < 0 || z0 < 0 || (long long)x0 + w > head->nx ||
      (long long)y0 + h > head->ny || (long long)z0 + d > head->nz) {
    ZK_WARNING("Area out of the image");
    return -1;
  }
  const long long nx = head->nx, ny = head->ny;
  for (long long z = 0; z < d; ++z)
    for (long long y = 0; y < h; ++y) {
      fseek(fp, (long)(mrc_data_offset(head) + (((z0 + z) * ny + (y0 + y)) * nx + x0) * 4), SEEK_SET);
      read_samples(fp, head, (size_t)w, dst + (z * h + y) * w);
    }
  return 0;
}

int mrc_2d_read_sub_area(FILE* fp, const MRC_HEAD* head, float* dst, int x0, int y0, int w, int h) {
  return mrc_read_sub_area(fp, head, dst, x0, y0, 0, w, h, 1);
}

int mrc_2d_read_grids(FILE* fp, const MRC_HEAD* head, float* dst, int box, int step) {
  if (head->mode != MRC_MODE_FLOAT) zk_fail_plain("File Mode must be MRC_MODE_FLOAT!Exit now!\n");
  if (box <= 0 || step <= 0 || box > head->nx || box > head->ny) return 0;
  const int gx = (head->nx - box) / step + 1;
  const int gy = (head->ny - box) / step + 1;
  int k = 0;
  for (int j = 0; j < gy; ++j)
    for (int i = 0; i < gx; ++i, ++k)
      mrc_2d_read_sub_area(fp, head, dst + (size_t)k * box * box, i * step, j * step, box, box);
  return k;
}

int mrc_flipyz(const char* in, const char* out) {
  MRC_HEAD head;
  ZkFilePtr fin(ZK_FOPEN_READ(in, "rb"));
  mrc_read_head(fin.get(), &head);
  MRC_HEAD ho;
  memset(&ho, 0, sizeof ho);
  mrc_init_head(&ho);
  mrc_set_head_xyz_mode(&ho, head.nx, head.nz, head.ny, MRC_MODE_FLOAT);
  ZkOutFile of;
  FILE* fp = zk_out_open(of, out);
  // The head is written first and again at the end with the extremes found.
  mrc_write_head(fp, &ho);
  printf("\nBegin flipping:");
  const size_t plane = (head.nx > 0 && head.nz > 0) ? (size_t)head.nx * (size_t)head.nz : 0;
  std::vector<float> buf(plane + 1);
  double sum = 0.0;
  bool first = true;
  for (int y = 0; y < head.ny && plane > 0; ++y) {
    mrc_read_slice(fin.get(), &head, y, 'y', buf.data());
    for (size_t i = 0; i < plane; ++i) {
      if (first || buf[i] < ho.amin) ho.amin = buf[i];
      if (first || buf[i] > ho.amax) ho.amax = buf[i];
      first = false;
      sum += buf[i];
    }
    mrc_add_slice(fp, &ho, buf.data());
  }
  const size_t n = plane * (size_t)(head.ny > 0 ? head.ny : 0);
  ho.amean = n ? (float)(sum / (double)n) : 0.0f;
  if (n == 0) ho.amin = ho.amax = 0.0f;
  mrc_write_head(fp, &ho);
  fin.reset();
  zk_out_commit(of);
  printf("\nflipping finished!");
  return 0;
}
