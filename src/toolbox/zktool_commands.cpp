// The sub-commands of zktool: their help texts and how each calls its
// library operation.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/hd.h"
#include "core/report.h"
#include "core/str_utils.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"
#include "imagefile/mrc_whole.h"
#include "imagefile/process2d_mrc.h"
#include "imagefile/process2d_mrcs.h"
#include "toolbox/zktool.h"
#include "volume/map_templates.h"
#include "volume/process3d_mrc.h"
#include "volume/sym.h"

namespace {

// The projection direction option of the map commands.
int dir_of(const ZkToolArgs& a, int fallback) { return a.opt_int("dir", fallback); }

int type_of(const ZkToolArgs& a) {
  const int t = a.opt_int("type", 1);
  if (t != 1 && t != 2) a.fail("--type must be 1 (host) or 2 (device)");
  return t;
}

// ---------------------------------------------------------------- images

int run_rotate(const ZkToolArgs& a) { return mrcf_cuda_2d_rotate(a.file(0), a.file(1), a.num(2)); }
int run_shift_rotate(const ZkToolArgs& a) {
  return mrcf_cuda_2d_translate_rotate(a.file(0), a.file(1), a.num(2), a.num(3), a.num(4));
}
int run_shrink(const ZkToolArgs& a) { return mrcf_cuda_2d_shrink(a.file(0), a.file(1), a.integer(2)); }
int run_transform2d(const ZkToolArgs& a) {
  RT_Mat2D m = {a.num(2), a.num(3), a.num(4), a.num(5), a.num(6), a.num(7)};
  return mrcf_cuda_2d_transform(a.file(0), a.file(1), m, a.opt_int("inverse", 0));
}
int run_fourier_shift(const ZkToolArgs& a) { return mrcf_2d_fourier_shift(a.file(0), a.file(1), a.num(2), a.num(3)); }
int run_local_mean(const ZkToolArgs& a) { return mrcf_2d_lave(a.file(0), a.file(1), a.num(2), a.num(3)); }
int run_local_sigma(const ZkToolArgs& a) { return mrcf_2d_lsigma(a.file(0), a.file(1), a.num(2), a.num(3)); }
int run_ccf(const ZkToolArgs& a) { return mrcf_x2d_ccf(a.file(0), a.file(1), a.file(2)); }
int run_ccc(const ZkToolArgs& a) {
  printf("%.6f\n", mrcf_x2d_ccc_with2maskfs(a.file(0), a.file(1), a.file(2), a.file(3)));
  return 0;
}
int run_fft(const ZkToolArgs& a) {
  char* argv[] = {(char*)a.cmd->name, (char*)a.file(0), (char*)a.file(1)};
  return mrcf_fft_r2c_2d(3, argv);
}
int run_fft_amp(const ZkToolArgs& a) {
  char* argv[] = {(char*)a.cmd->name, (char*)a.file(0), (char*)a.file(1)};
  return mrcf_fft_r2c_amp_2d(3, argv);
}

// ---------------------------------------------------------------- stacks

int run_scale(const ZkToolArgs& a) { return mrcf_cuda_2ds_scale(a.file(0), a.file(1), a.num(2)); }

// "dx dy" on each line; blank lines and lines that begin with # are passed over.
std::vector<float2> read_shifts(const ZkToolArgs& a, const char* name) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  std::vector<float2> s;
  char line[ZK_TXT_LEN];
  int number = 0;
  while (fgets(line, sizeof line, fp.get())) {
    ++number;
    char* words[3];
    const int n = strnsplit_inplace_byspace(line, words, 3);
    if (n == 0 || words[0][0] == '#') continue;
    double dx, dy;
    char *e1, *e2;
    dx = n == 2 ? strtod(words[0], &e1) : 0.0;
    dy = n == 2 ? strtod(words[1], &e2) : 0.0;
    if (n != 2 || *e1 != '\0' || *e2 != '\0') a.fail(zk_format("line %d of %s is not \"dx dy\"", number, name));
    s.push_back(make_f2((float)dx, (float)dy));
  }
  return s;
}

int run_stack_shift(const ZkToolArgs& a) {
  const std::vector<float2> s = read_shifts(a, a.file(1));
  MRC_HEAD head;
  mrcf_read_head(a.file(0), &head);
  const int n = a.opt_int("n", 0);
  const int need = n < 1 ? head.nz : n;
  if ((int)s.size() < need) a.fail(zk_format("%s holds %d shifts for %d slices", a.file(1), (int)s.size(), need));
  const char* stack = a.opt("stack", "");
  return mrcf_2ds_fourier_shift(a.file(0), stack, a.file(2), s.data(), n, stack[0] != '\0');
}
int run_average(const ZkToolArgs& a) { return mrcf_2ds_average(a.file(0), a.file(1)); }
int run_peaks(const ZkToolArgs& a) { return mrcf_2ds_find_single_peaks(a.file(0)); }
int run_local_particles(const ZkToolArgs& a) {
  return mrcsf_2ds_extract_local_ptcls(a.file(0), a.file(1), a.opt_int("box", 0));
}
int run_hot_pixels(const ZkToolArgs& a) { return mrcsf_2ds_rm_hotpixels(a.file(0), a.file(1), a.num(2)); }
int run_reverse(const ZkToolArgs& a) { return mrcsf_upsidedown(a.file(0), a.file(1)); }
int run_split_stack(const ZkToolArgs& a) { return mrcsf_split(a.file(0), a.file(1)); }

// ---------------------------------------------------------------- making and placing

int run_mask(const ZkToolArgs& a) {
  return mrcf_mask2d_create(a.file(0), a.integer(1), a.integer(2), a.num(3), a.num(4), a.num(5), a.num(6));
}
int run_disc(const ZkToolArgs& a) {
  return mrcf_2d_auto_template_gauss(a.file(0), a.integer(1), a.integer(2), a.num(3), a.num(4), a.num(5), a.num(6),
                                     type_of(a));
}
int run_band(const ZkToolArgs& a) {
  return mrcf_2d_auto_template_gauss_cylinder(a.file(0), a.integer(1), a.integer(2), a.num(3), a.num(4), a.num(5),
                                              type_of(a));
}
int run_mass_center(const ZkToolArgs& a) {
  const std::string form = a.opt("form", "image");
  if (form == "image") return get_mrcf_mass_center(a.file(0));
  if (form == "map") return mrcf_print_mass_center(a.file(0));
  a.fail("--form must be image or map");
}
int run_paste(const ZkToolArgs& a) {
  if (a.has("ref")) return mrcf_x2d_norm_cp_ptcls_to_micrograph(a.file(0), a.file(1), a.opt("ref", ""), a.file(2));
  return mrcf_x2d_cp_ptcls_to_micrograph(a.file(0), a.file(1), a.file(2));
}

// ---------------------------------------------------------------- maps

int run_rot_trans(const ZkToolArgs& a) {
  const int per_voxel = a.opt_int("per-voxel", 0);
  auto f = per_voxel ? mrcf_3d_rot_trans3 : mrcf_3d_rot_trans;
  return f(a.file(0), a.file(1), a.num(2), a.num(3), a.num(4), a.num(5), a.num(6), a.num(7), dir_of(a, -1));
}
int run_trans_rot(const ZkToolArgs& a) {
  return mrcf_3d_trans_rot(a.file(0), a.file(1), a.num(2), a.num(3), a.num(4), a.num(5), a.num(6), a.num(7),
                           dir_of(a, -1));
}
int run_project(const ZkToolArgs& a) {
  return mrcf_3d_project(a.file(0), a.file(1), a.num(2), a.num(3), a.num(4), dir_of(a, -1));
}
int run_project_random(const ZkToolArgs& a) {
  const int n = a.integer(2);
  if (n < 1) a.fail("N must be at least 1");
  const int seed = a.opt_int("seed", 0);
  if (seed < 0) a.fail("--seed must not be negative");
  if (a.has("rec"))
    return mrcf_3d_project_rec_randN(a.file(0), a.file(1), a.opt("rec", ""), n, dir_of(a, -1), (unsigned)seed);
  return mrcf_3d_project_randN(a.file(0), a.file(1), n, dir_of(a, -1), (unsigned)seed);
}
int run_backproject(const ZkToolArgs& a) {
  return mrcf_3d_backproject(a.file(0), a.file(1), a.integer(2), a.num(3), a.num(4), a.num(5), dir_of(a, 0));
}
int run_sym_expand(const ZkToolArgs& a) {
  return mrcf_3d_sym_expansion(a.file(0), a.integer(1), a.integer(2), a.integer(3), a.num(4), a.num(5), a.num(6),
                               a.file(7), a.num(8), a.num(9), a.num(10), a.file(11), a.file(12));
}
int run_index_volume(const ZkToolArgs& a) {
  return mrcf_3d_0123(a.file(0), a.integer(1), a.integer(2), a.integer(3), type_of(a));
}
int run_split(const ZkToolArgs& a) {
  return a.opt_int("raw", 0) ? mrc_split(a.file(0), a.file(1)) : mrcf_split(a.file(0), a.file(1));
}
int run_templates(const ZkToolArgs& a) {
  const float step = a.opt_num("step", 15.0f);
  mrcf_3d_project_templates(a.file(0), a.file(1), a.opt("sym", "C1"), step, a.opt_num("apix", 0.0f));
  return 0;
}
int run_test_map(const ZkToolArgs& a) {
  return mrcf_3d_test_lobes(a.file(0), a.opt_int("box", 128), a.opt_num("apix", 2.68f), a.opt_num("diameter", 200));
}

// ---------------------------------------------------------------- symmetry and arrays

int run_symmetry(const ZkToolArgs& a) {
  Rsym_List list = create_Rsym_List(a.file(0));
  printf("%d operators of %s:\n", list.n, a.file(0));
  print_Rsym_List(list);
  free_Rsym_List(list);
  return 0;
}
int run_operators(const ZkToolArgs& a) {
  std::vector<RT_Mat3D> ops;
  get_syms_from_ofile(ops, a.file(0));
  printf("%d operators read from %s\n", (int)ops.size(), a.file(0));
  return 0;
}
int run_sum(const ZkToolArgs& a) {
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(a.file(0), &head, v);
  ZkDeviceArray<float> d(v.size());
  ZK_CHECK(memcpy_H2D(d.get(), v.data(), v.size() * sizeof(float)));
  printf("samples            %zu\n", v.size());
  printf("pairwise tree      %.9g\n", hcuda_fast_sum(d.get(), v.size()));
  printf("halving order      %.9g\n", hcuda_fast_sum6(d.get(), v.size()));
  printf("grid-stride order  %.9g\n", hcuda_reduce_data_for_sum7(d.get(), v.size()));
  printf("double, in order   %.17g\n", hm_sum(v.data(), v.size()));
  return 0;
}

const char* const kImages = "Images (the first slice of a file)";
const char* const kStacks = "Stacks (every slice of a file)";
const char* const kMaking = "Making and placing";
const char* const kMaps = "Maps (3D)";
const char* const kSym = "Symmetry and sums";

const char* const kDirOption =
    "  --dir D        -1 (the default): the angles' matrix Rz(rot) Ry(tilt) Rz(psi) as given;\n"
    "                 any other value: its inverse";

}  // namespace

const std::vector<ZkToolCommand>& zktool_commands() {
  static const std::vector<ZkToolCommand> table = {
      // ------------------------------------------------------------ images
      {"rotate", kImages, "IN OUT PSI", "rotate an image about its centre",
       "Rotates the first slice of IN by PSI degrees, from +x toward +y, about ((nx - 1)/2, (ny - 1)/2),\n"
       "bilinearly; pixels whose source lies off the image become 0.",
       "", "", "zktool rotate particle.mrc particle_r30.mrc 30", 3, 3, run_rotate},
      {"shift-rotate", kImages, "IN OUT TX TY PSI", "shift an image, then rotate it about its centre",
       "The content of the first slice moves by (TX, TY) pixels, then turns by PSI degrees about\n"
       "((nx - 1)/2, (ny - 1)/2); pixels whose source lies off the image become 0.",
       "", "", "zktool shift-rotate particle.mrc out.mrc 2.5 -1 45", 5, 5, run_shift_rotate},
      {"shrink", kImages, "IN OUT S", "shrink an image by block means of S by S pixels",
       "Each output pixel is the mean of an S by S block; the output is nx/S by ny/S (rounded down) with\n"
       "a pixel S times as large.",
       "", "", "zktool shrink mic.mrc mic_bin4.mrc 4", 3, 3, run_shrink},
      {"transform2d", kImages, "IN OUT R11 R12 R21 R22 TX TY", "apply an affine map about the image centre",
       "The matrix (R11 R12; R21 R22) and translation (TX, TY) act about ((nx - 1)/2, (ny - 1)/2).\n"
       "By default they map the input onto the output (the matrix is inverted to sample).",
       "  --inverse 1    sample the input at R (v - c) + c + T directly (the matrix maps output to input)", "inverse",
       "zktool transform2d in.mrc out.mrc 0.866 0.5 -0.5 0.866 3 0", 8, 8, run_transform2d},
      {"fourier-shift", kImages, "IN OUT DX DY", "shift an image by sub-pixel amounts through its spectrum",
       "Moves the content by (DX, DY) pixels, periodically (what leaves one side enters the other).\n"
       "The image sides must be even.",
       "", "", "zktool fourier-shift frame.mrc frame_aligned.mrc 1.25 -0.5", 4, 4, run_fourier_shift},
      {"local-mean", kImages, "IN OUT R SOFT", "local average over a soft disc",
       "The mean over a disc of radius R pixels with a soft edge SOFT pixels wide, on the mirror-padded\n"
       "image (edges see their mirror image).  Even sides.",
       "", "", "zktool local-mean mic.mrc mic_bg.mrc 100 20", 4, 4, run_local_mean},
      {"local-sigma", kImages, "IN OUT R SOFT", "local standard deviation over a soft disc",
       "The deviation over the same disc, on the periodic image (no mirror padding).  Even sides.", "", "",
       "zktool local-sigma mic.mrc mic_sigma.mrc 100 20", 4, 4, run_local_sigma},
      {"ccf", kImages, "A B OUT", "cross-correlation map of two images",
       "Both images less their means; OUT holds the correlation coefficient at every lag, zero lag at\n"
       "(nx/2, ny/2), so a copy of B moved by (dx, dy) peaks at (nx/2 + dx, ny/2 + dy).  Equal heads, even\n"
       "sides.",
       "", "", "zktool ccf shifted.mrc reference.mrc ccf.mrc", 3, 3, run_ccf},
      {"ccc", kImages, "A MASK_A B MASK_B", "correlation coefficient of two images under two masks",
       "Both images are normalised under the product of the masks; prints their correlation coefficient.\n"
       "All four files must have the same nx and ny.",
       "", "", "zktool ccc a.mrc mask.mrc b.mrc mask.mrc", 4, 4, run_ccc},
      {"fft", kImages, "IN OUT", "half spectrum of an image (complex, mode 4)",
       "The transform of the first slice divided by sqrt(nx*ny), with the imaginary parts negated, as\n"
       "nx/2 + 1 by ny complex samples; the head holds the largest modulus as maximum.  Even sides.",
       "", "", "zktool fft image.mrc image_fft.mrc", 2, 2, run_fft},
      {"fft-amp", kImages, "IN OUT", "log amplitude of the half spectrum, zero frequency in the middle row",
       "The natural logarithm of the modulus of the same half spectrum, nx/2 + 1 by ny floats, the rows\n"
       "moved by ny/2.  Even sides.",
       "", "", "zktool fft-amp image.mrc image_amp.mrc", 2, 2, run_fft_amp},
      // ------------------------------------------------------------ stacks
      {"scale", kStacks, "IN OUT F", "scale every slice by a factor",
       "Each slice is resampled bilinearly about its centre into (int)(nx*F) by (int)(ny*F); the pixel\n"
       "becomes 1/F times as large.  No low-pass filter is applied.",
       "", "", "zktool scale templates.mrcs templates_half.mrcs 0.5", 3, 3, run_scale},
      {"stack-shift", kStacks, "IN SHIFTS OUT_AVE", "shift every slice and average them",
       "SHIFTS is a text file with \"dx dy\" for each slice, one line each (# starts a comment).  Slice k\n"
       "moves by (-dx, -dy) through its spectrum; OUT_AVE is the mean of the shifted slices.  Even sides.",
       "  --n N          only the first N slices (default 0: all)\n"
       "  --stack FILE   also write the shifted slices",
       "n stack", "zktool stack-shift movie.mrcs drift.txt average.mrc --stack aligned.mrcs", 3, 3, run_stack_shift},
      {"average", kStacks, "IN OUT", "mean of all slices",
       "The mean of the slices, summed in slice order in single precision.", "", "",
       "zktool average movie.mrcs average.mrc", 2, 2, run_average},
      {"peaks", kStacks, "IN", "the greatest pixel of every slice, to IN_local_center.txt",
       "Writes one line per slice (slice from 0, x, y, value) beside IN, named after it with the suffix\n"
       "_local_center.txt.  Long stacks are read in runs of 1000 slices (\".\" and \"-\" mark them).",
       "", "", "zktool peaks ccf_maps.mrcs", 1, 1, run_peaks},
      {"local-particles", kStacks, "IN BOXES", "cut box i of a coordinate file from slice i",
       "BOXES is an EMAN .box or RELION .star file; every box takes the size of the first.  The cut-outs go\n"
       "to IN_local_particles.mrcs, 0 where a box leaves its slice.  Unequal counts: the shorter wins.",
       "  --box N        first resize every box to N by N about its centre", "box",
       "zktool local-particles frames.mrcs frames.box --box 256", 2, 2, run_local_particles},
      {"hot-pixels", kStacks, "IN OUT K", "replace pixels K deviations from the slice mean",
       "Pixels further than K standard deviations from their slice's mean become the weighted mean of their\n"
       "eight neighbours.  The whole stack is held in memory.",
       "", "", "zktool hot-pixels movie.mrcs movie_clean.mrcs 6", 3, 3, run_hot_pixels},
      {"reverse", kStacks, "IN OUT", "the slices in reverse order", "Writes the slices of IN last first.", "", "",
       "zktool reverse stack.mrcs stack_reversed.mrcs", 2, 2, run_reverse},
      {"split-stack", kStacks, "IN PREFIX", "one file per slice",
       "Writes slice k as PREFIX followed by k in six digits and .mrc (PREFIX000000.mrc, ...), floats.", "", "",
       "zktool split-stack templates.mrcs tpl_", 2, 2, run_split_stack},
      // ------------------------------------------------------------ making and placing
      {"mask", kMaking, "NAME NX NY CX CY R SOFT", "a soft circular mask",
       "1 within R pixels of (CX, CY), falling as a Gaussian over SOFT pixels (1 at R), 0 beyond R + SOFT.", "", "",
       "zktool mask mask.mrc 256 256 127.5 127.5 90 10", 7, 7, run_mask},
      {"disc", kMaking, "NAME NX NY CX CY R SOFT", "a soft disc made on the host or the device",
       "As mask; the device form's edge starts at 0.39894229 instead of 1.",
       "  --type T       1 the host form (default), 2 the device form", "type",
       "zktool disc disc.mrc 128 128 63.5 63.5 40 8 --type 2", 7, 7, run_disc},
      {"band", kMaking, "NAME NX NY C R SOFT", "a soft vertical band: every row the same 1-D mask",
       "Each row holds the 1-D soft mask about column C: 1 within R, a Gaussian edge over SOFT, then 0.",
       "  --type T       1 the host form (default), 2 the device form", "type",
       "zktool band band.mrc 256 64 127.5 30 10", 6, 6, run_band},
      {"mass-center", kMaking, "IN", "centre of mass of all samples",
       "Prints the centre of mass (x, y, z in pixels from 0) of every sample of IN, in double precision.",
       "  --form F       image (default): three decimals, read slice by slice; map: two decimals", "form",
       "zktool mass-center map.mrc --form map", 1, 1, run_mass_center},
      {"paste", kMaking, "MIC STACK BOXES", "paste the slices of a stack over a micrograph",
       "Slice k goes over MIC with its corner at box k of BOXES (up to 10240, one per slice); the result is\n"
       "MIC less its suffix with _prp.mrc.",
       "  --ref REF      first fit each slice to the micrograph's patch through slice k of REF\n"
       "                 (a stack of the same sizes)",
       "ref", "zktool paste mic.mrc particles.mrcs mic.box", 3, 3, run_paste},
      // ------------------------------------------------------------ maps
      {"rot-trans", kMaps, "IN OUT A B C TX TY TZ", "rotate (Euler zyz) and translate a map",
       "The matrix Rz(C) Ry(B) Rz(A) and the translation (TX, TY, TZ) in pixels, about the map's centre;\n"
       "trilinear, 0 outside.",
       "  --dir D        -1 (the default): each voxel samples the input at R (v - c) + c + T;\n"
       "                 any other value: the inverse, so that R and T carry the input onto the output\n"
       "  --per-voxel 1  one thread a voxel (the same result)",
       "dir per-voxel", "zktool rot-trans map.mrc map_r.mrc 30 45 0 0 0 2", 8, 8, run_rot_trans},
      {"trans-rot", kMaps, "IN OUT TX TY TZ A B C", "translate, then rotate a map",
       "As rot-trans with the translation turned by the rotation first.", kDirOption, "dir",
       "zktool trans-rot map.mrc map_t.mrc 0 0 2 30 45 0", 8, 8, run_trans_rot},
      {"project", kMaps, "IN OUT ROT TILT PSI", "one projection of a map",
       "The sum through the rotated map along z, one sample per voxel step, written as one image.", kDirOption, "dir",
       "zktool project map.mrc view.mrc 30 60 0", 5, 5, run_project},
      {"project-random", kMaps, "IN OUT N", "N projections of a cubic map at random orientations",
       "Orientations uniform over the sphere, each printed as it is drawn; the stack is written as it is\n"
       "made, so N is not limited by memory.",
       "  --dir D        as for project\n"
       "  --seed S       the random sequence (default: from the clock)\n"
       "  --rec FILE     also back-project the projections (each the reverse way) into FILE",
       "dir seed rec", "zktool project-random map.mrc views.mrcs 1000 --seed 7 --rec rec.mrc", 3, 3,
       run_project_random},
      {"backproject", kMaps, "IN OUT NZ ROT TILT PSI", "back-project an image into a volume",
       "Smears the first slice of IN through a cleared volume of nx by ny by NZ along the given\n"
       "orientation.",
       "  --dir D        0 (the default): the reverse of project's default, so that the same angles take an\n"
       "                 image back along the lines project summed; -1: the matrix as given",
       "dir", "zktool backproject view.mrc smear.mrc 64 30 60 0", 6, 6, run_backproject},
      {"sym-expand", kMaps, "OUT NX NY NZ CX CY CZ MAP OX OY OZ MASK OPERATORS",
       "paint a map at every symmetry operator into a larger volume",
       "MAP and MASK (equal sizes) have their origin at (OX, OY, OZ) of a new NX by NY by NZ volume; each\n"
       "operator of OPERATORS (.ncs_symmetry_operators blocks) places them about (CX, CY, CZ).  Mask\n"
       "values from 0.999999 replace, smaller ones mix, later operators paint over earlier ones.",
       "", "", "zktool sym-expand big.mrc 200 200 200 99.5 99.5 99.5 unit.mrc 80 60 70 unit_mask.mrc ops.txt", 13, 13,
       run_sym_expand},
      {"index-volume", kMaps, "NAME NX NY NZ", "a test volume whose every voxel holds its own index",
       "Voxel (x, y, z) holds (z*NY + y)*NX + x.", "  --type T       1 made on the host (default), 2 on the device",
       "type", "zktool index-volume idx.mrc 4 3 2", 4, 4, run_index_volume},
      {"split", kMaps, "IN PREFIX", "one file per section, with its statistics in the head",
       "Writes section k as PREFIX followed by k in six digits and .mrc, floats, and sets each head's\n"
       "minimum, maximum and mean.",
       "  --raw 1        keep the samples in the input's mode", "raw", "zktool split map.mrc sec_", 2, 2, run_split},
      {"templates", kMaps, "MAP OUT", "picking templates: projections over the asymmetric unit",
       "Projects a cubic MAP at directions about STEP degrees apart over the asymmetric unit of a Cn or Dn\n"
       "symmetry (psi 0: zavik searches the in-plane angle), into a stack for zavik --T with the pixel\n"
       "size in its head; give zavik the same value as --apixT.",
       "  --step S       angular step in degrees (default 15)\n"
       "  --sym X        C1 (default), Cn or Dn\n"
       "  --apix A       pixel size in A (default: the map's own)",
       "step sym apix", "zktool templates map.mrc templates.mrcs --step 20 --sym C2", 2, 2, run_templates},
      {"test-map", kMaps, "NAME", "a test map of three soft lobes",
       "A cubic map of a particle made of three Gaussian lobes; seen along z it is the particle of\n"
       "zavik_synth's micrographs.",
       "  --box N        side in pixels (default 128)\n"
       "  --apix A       pixel size in A (default 2.68)\n"
       "  --diameter D   particle diameter in A (default 200)",
       "box apix diameter", "zktool test-map lobes.mrc --box 100 --apix 2.68", 1, 1, run_test_map},
      // ------------------------------------------------------------ symmetry and sums
      {"symmetry", kSym, "SYM", "the rotation matrices of a Cn or Dn symmetry",
       "SYM is C or D (either case) and the order n, e.g. C7 or d4: Cn gives n rotations about z, Dn adds\n"
       "the n half turns about axes in the xy plane.  Other symmetries (T, O, I) are refused.",
       "", "", "zktool symmetry D3", 1, 1, run_symmetry},
      {"operators", kSym, "FILE", "read and print the operators of .ncs_symmetry_operators blocks",
       "Each block line is followed by three rows of the rotation and one of the translation.", "", "",
       "zktool operators ops.txt", 1, 1, run_operators},
      {"sum", kSym, "IN", "the sum of all samples in three summation orders and in double",
       "The device tree sum, the halving and grid-stride orders, and a double-precision sum in order.", "", "",
       "zktool sum map.mrc", 1, 1, run_sum},
  };
  return table;
}
