// MRC image files: the 1024-byte head, reading samples into floats, writing
// float files from host or device memory, and the checks that guard the reads.
//
// Names: mrc_ works on an open stream and a head that the caller holds; mrcf_
// takes a file name and opens and closes the file itself; get_mrcf_ returns
// something newly allocated (malloc) that the caller frees with free().
//
// Samples begin after the head and its extended header (mrc_data_offset).
//
// Byte order: the head in memory is always in host order.  A file whose
// machine stamp (byte 212) begins with 0x11 is big-endian: mrc_read_head swaps
// its numeric fields and the readers swap its samples.  Files written here are
// mode 2 with a little-endian stamp.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

struct MRC_HEAD {
  int32_t nx;       // columns, the fastest axis
  int32_t ny;       // rows
  int32_t nz;       // sections, frames or stack images
  int32_t mode;     // sample type
  int32_t nxstart;  // first column, row, section
  int32_t nystart;
  int32_t nzstart;
  int32_t mx;  // grid intervals
  int32_t my;
  int32_t mz;
  float xlen;  // cell lengths
  float ylen;
  float zlen;
  float alpha;  // cell angles
  float beta;
  float gamma;
  int32_t mapc;  // axes of columns, rows, sections
  int32_t mapr;
  int32_t maps;
  float amin;
  float amax;
  float amean;
  int16_t ispg;    // space group, 16 bits
  int16_t nsymbt;  // symmetry bytes, 16 bits
  int32_t next;    // bytes of extended header between the head and the samples
  int16_t creatid;
  char blank[30];
  char extra[68];
  float xorg;
  float yorg;
  float zorg;
  char cmap[4];            // "MAP "
  unsigned char stamp[4];  // machine stamp: 0x44 0x41 little-endian, 0x11 0x11 big-endian
  float rms;
  int32_t nlabl;
  char labels[10][80];
};

static_assert(sizeof(MRC_HEAD) == 1024, "MRC_HEAD must be 1024 bytes");
static_assert(offsetof(MRC_HEAD, nx) == 0, "nx");
static_assert(offsetof(MRC_HEAD, ny) == 4, "ny");
static_assert(offsetof(MRC_HEAD, nz) == 8, "nz");
static_assert(offsetof(MRC_HEAD, mode) == 12, "mode");
static_assert(offsetof(MRC_HEAD, nxstart) == 16, "nxstart");
static_assert(offsetof(MRC_HEAD, nystart) == 20, "nystart");
static_assert(offsetof(MRC_HEAD, nzstart) == 24, "nzstart");
static_assert(offsetof(MRC_HEAD, mx) == 28, "mx");
static_assert(offsetof(MRC_HEAD, my) == 32, "my");
static_assert(offsetof(MRC_HEAD, mz) == 36, "mz");
static_assert(offsetof(MRC_HEAD, xlen) == 40, "xlen");
static_assert(offsetof(MRC_HEAD, ylen) == 44, "ylen");
static_assert(offsetof(MRC_HEAD, zlen) == 48, "zlen");
static_assert(offsetof(MRC_HEAD, alpha) == 52, "alpha");
static_assert(offsetof(MRC_HEAD, beta) == 56, "beta");
static_assert(offsetof(MRC_HEAD, gamma) == 60, "gamma");
static_assert(offsetof(MRC_HEAD, mapc) == 64, "mapc");
static_assert(offsetof(MRC_HEAD, mapr) == 68, "mapr");
static_assert(offsetof(MRC_HEAD, maps) == 72, "maps");
static_assert(offsetof(MRC_HEAD, amin) == 76, "amin");
static_assert(offsetof(MRC_HEAD, amax) == 80, "amax");
static_assert(offsetof(MRC_HEAD, amean) == 84, "amean");
static_assert(offsetof(MRC_HEAD, ispg) == 88, "ispg");
static_assert(offsetof(MRC_HEAD, nsymbt) == 90, "nsymbt");
static_assert(offsetof(MRC_HEAD, next) == 92, "next");
static_assert(offsetof(MRC_HEAD, creatid) == 96, "creatid");
static_assert(offsetof(MRC_HEAD, blank) == 98, "blank");
static_assert(offsetof(MRC_HEAD, extra) == 128, "extra");
static_assert(offsetof(MRC_HEAD, xorg) == 196, "xorg");
static_assert(offsetof(MRC_HEAD, yorg) == 200, "yorg");
static_assert(offsetof(MRC_HEAD, zorg) == 204, "zorg");
static_assert(offsetof(MRC_HEAD, cmap) == 208, "cmap");
static_assert(offsetof(MRC_HEAD, stamp) == 212, "stamp");
static_assert(offsetof(MRC_HEAD, rms) == 216, "rms");
static_assert(offsetof(MRC_HEAD, nlabl) == 220, "nlabl");
static_assert(offsetof(MRC_HEAD, labels) == 224, "labels");

// Sample types.
constexpr int MRC_MODE_BYTE = 0;
constexpr int MRC_MODE_SHORT = 1;
constexpr int MRC_MODE_FLOAT = 2;
constexpr int MRC_MODE_COMPLEX_SHORT = 3;
constexpr int MRC_MODE_COMPLEX_FLOAT = 4;
constexpr int MRC_MODE_USHORT = 6;
constexpr int MRC_MODE_HALF = 12;
constexpr int MRC_MODE_RGB = 16;

// Bytes a sample for the modes the size check knows; 0 for any other mode.
int mrc_mode_bytes(int mode);
// True for the modes whose samples can be read into floats: 0, 1, 2, 6, 12.
bool mrc_mode_readable(int mode);
// True when the head describes a big-endian file (machine stamp 0x11 ...).
bool mrc_head_big_endian(const MRC_HEAD* head);
// nx * ny * nz, or 0 when a size is not positive.
size_t mrc_head_samples(const MRC_HEAD* head);
// Byte at which the samples begin: after the 1024-byte head and the extended
// header of next bytes that microscope and motion-correction software write
// (a negative next counts as none).  Files written here have none.
long mrc_data_offset(const MRC_HEAD* head);

// ---- Reading ----

// Rewinds when needed, reads the 1024 bytes and gives a head without "MAP" at
// byte 208 the stamp of mrc_set_head_stmp.  A big-endian head is swapped into
// host order.  Returns 0.
int mrc_read_head(FILE* fp, MRC_HEAD* head);
// "MAP " and the little-endian machine stamp at byte 208.  Returns 0.
int mrc_set_head_stmp(MRC_HEAD* head);
// One plane along axis 'x', 'y' or 'z' (either case) into dst as floats:
// 'z' nx by ny, 'y' nx by nz, 'x' ny by nz.  Nothing is read for another axis
// or a mode other than 0, 1, 2, 6, 12.  Samples beyond the end of a truncated
// file read as 0.0.  The file size is not tested.  Returns 0.
int mrc_read_slice(FILE* fp, const MRC_HEAD* head, int slice, char axis, float* dst);
// Seeks to the end and returns the position; the stream stays at the end.
long get_file_size(FILE* fp);
// 0 when the file holds exactly the head, its extended header and the
// samples the head promises, else -1 with a message.
int mrc_check_fsize(FILE* fp, const MRC_HEAD* head);
// mrc_check_fsize (a failure throws the fatal report), then all samples into dst.
// Returns 0, or -1 when a mode 2 read yields nothing.
int mrc_read_all(FILE* fp, const MRC_HEAD* head, float* dst);
int mrc_read_all_nocheck(FILE* fp, const MRC_HEAD* head, float* dst);
// The head of the named file, newly allocated.
MRC_HEAD* get_mrcf_head(const char* name);
// All samples of the named file as floats, newly allocated.  A file whose
// size differs from its head throws the fatal report.
float* get_mrcf_data_all(const char* name);
// "x", "y", "z", "xy"/"yx", "xz"/"zx", "yz"/"zy", "xyz", any letter case.
// Another keyword prints the error and the valid keywords and gives 0.
long get_mrcf_dim_size(const char* name, const char* keyword);
// Printable name of the head's mode.
const char* mrc_get_head_mode(const MRC_HEAD* head);

// Vetting of a micrograph before slice 0 is read: 0 when it can be read,
// otherwise one error line and -1.  Refuses files shorter than a head,
// sizes that are not positive or too large for 32-bit pixel indices, modes
// that cannot be read, a negative extended header, and files too short for
// slice 0.
int mrc_vet_micrograph(const char* name, FILE* fp, const MRC_HEAD* head);
// The vetting's reason as one line without its line feed; empty when the
// micrograph can be read.
std::string mrc_micrograph_problem(const char* name, FILE* fp, const MRC_HEAD* head);
// 0 when nx, ny, nz and mode agree; otherwise throws the two heads as a table.
int check_mrc_head_sizes_two(const char* first_mic, const char* mic, const MRC_HEAD* head_first, const MRC_HEAD* head);

// ---- Writing ----

// A new head (malloc, free() it) set by mrc_init_head.
MRC_HEAD* mrc_new_head();
int mrc_init_head(MRC_HEAD* head);
int mrc_set_head_xyz_mode(MRC_HEAD* head, int nx, int ny, int nz, int mode);
// amin, amax, amean of count floats, the mean summed in double.  count 0
// gives three zeros.
int mrc_set_head_mmm_from_data(MRC_HEAD* head, const float* data, uint32_t count);
// Writes the 1024 bytes at the start of the stream, in the byte order that
// the head's stamp declares; warns when "MAP" is missing.  Returns 0.
int mrc_write_head(FILE* fp, const MRC_HEAD* head);
// amin, amax, amean from the data, then head and nz planes of nx by ny floats.
// Mode must be 2 (else the fatal report); the head is given the little-endian
// stamp.
int mrc_write_head_data(FILE* fp, MRC_HEAD* head, const float* data);
// A new mode 2 file of nx by ny by nz floats.  The file appears under its name
// only when complete; a failed write throws its report.
int mrcf_write_xyz_data(const char* name, const float* data, int nx, int ny, int nz);

// ---- Library ----

int mrcf_read_head(const char* name, MRC_HEAD* head);
// Opens name for reading into fp, reads the head into both heads and sets the
// mode of head_out to 2.
int mrcf_i_open_io_read_head(const char* name, FILE*& fp, MRC_HEAD* head_in, MRC_HEAD* head_out);
// Opens out with "w+" first, then as above for in.
int mrcf_io_open_io_read_head(const char* in, const char* out, FILE*& fp_in, FILE*& fp_out, MRC_HEAD* head_in,
                              MRC_HEAD* head_out);
// As above, then writes head_out to fp_out.
int mrcf_io_open_io_read_write_head(const char* in, const char* out, FILE*& fp_in, FILE*& fp_out, MRC_HEAD* head_in,
                                    MRC_HEAD* head_out);
// Closes both streams (null allowed) and frees both heads.
int mrc_io_close_io_free_head(FILE* fp_in, FILE* fp_out, MRC_HEAD* head_in, MRC_HEAD* head_out);
int mrc_io_close_io_free_head_data(FILE* fp_in, FILE* fp_out, MRC_HEAD* head_in, MRC_HEAD* head_out, float* data);
// File-name form of mrc_write_head_data, written safely.
int mrcf_write_head_data(const char* name, MRC_HEAD* head, const float* data);
int mrc_set_head_xyz(MRC_HEAD* head, int nx, int ny, int nz);
int mrc_set_head_mode(MRC_HEAD* head, int mode);
// Sizes and amin, amax, amean; max below min makes the two change places.
int mrc_set_head_xyz_mmm(MRC_HEAD* head, int nx, int ny, int nz, float min, float max, float mean);
int mrc_set_head_xyz_mmmm(MRC_HEAD* head, int nx, int ny, int nz, float min, float max, float mean, int mode);
// 0 when bytes 208 to 210 are "MAP", else a warning line and -1.
int mrc_check_head(const MRC_HEAD* head);
// Rewrites the first 1024 bytes of an existing file (opened "r+").
int mrc_replace_head(const char* name, const MRC_HEAD* head);
// Minimum, maximum and mean of all samples (double precision) into the head.
int mrcf_update_head(const char* name);
int mrcf_read_head_data_nocheck(const char* name, MRC_HEAD* head, float* dst);
// The check forms read (without the size check) only when the head's sizes
// equal the given ones; else a warning and -1.
int mrcf_read_data_check_xy(const char* name, float* dst, int nx, int ny);
int mrcf_read_data_check_xyz(const char* name, float* dst, int nx, int ny, int nz);
int mrcf_read_head_data_check_xy(const char* name, MRC_HEAD* head, float* dst, int nx, int ny);
int mrcf_read_head_data_check_xyz(const char* name, MRC_HEAD* head, float* dst, int nx, int ny, int nz);
// Reads the slice only when nx, ny and the 16-bit creatid match; else -1.
int mrcf_read_slice_check_xy_cid(const char* name, int slice, char axis, float* dst, int nx, int ny, int cid);
// Slice n along z, newly allocated.
float* get_mrcf_data_sliceN(const char* name, int n);
int get_mrcf_head_data(const char* name, MRC_HEAD* head, float* dst);
int mrcf_read_all(const char* name, float* dst);
// The size check first (a failure throws the fatal report), then as
// mrc_read_slice.
int mrc_read_slice_double(FILE* fp, const MRC_HEAD* head, int slice, char axis, double* dst);
// The same into bytes: v becomes (amax - v) * 255 / (amax - amin), truncated
// and held to 0 .. 255; 0 when amax equals amin.
int mrc_read_slice_byte(FILE* fp, const MRC_HEAD* head, int slice, char axis, unsigned char* dst);
// Appends nx by ny floats at the end of the stream.
int mrc_add_slice(FILE* fp, const MRC_HEAD* head, const float* data);
int mrc_check_even_size(const MRC_HEAD* head);
bool is_mrc_square(const MRC_HEAD* head);
bool is_mrc_cube(const MRC_HEAD* head);
// Mode 2 only (else a report): a box of w by h by d samples from (x0, y0, z0).
// -1 with a warning when the box does not lie inside the volume.
int mrc_read_sub_area(FILE* fp, const MRC_HEAD* head, float* dst, int x0, int y0, int z0, int w, int h, int d);
int mrc_2d_read_sub_area(FILE* fp, const MRC_HEAD* head, float* dst, int x0, int y0, int w, int h);
// Mode 2 only: square tiles of side box at a pitch of step over the first
// slice, (nx - box) / step + 1 by (ny - box) / step + 1, row of tiles by row.
// Returns the number of tiles.
int mrc_2d_read_grids(FILE* fp, const MRC_HEAD* head, float* dst, int box, int step);
// A mode 2 file of size (nx, nz, ny): the slices along y of in, one by one.
int mrc_flipyz(const char* in, const char* out);
