#include "movie/lombar_para.h"

#include <cstddef>
#include <cstring>

#include "core/report.h"
#include "core/str_utils.h"

const char* const lombar_version = "1.0";
const char* const lombar_updated_date = "2026-11-23";

const char* const LOMBAR_OPTIONS[LOMBAR_N_OPTION_ROWS] = {
    "         --apix              1.34             Pixel size in angstrom;\n",
    "         --newsize           360              Using this newsize to extract the particles\n",
    "         --invert            0                Whether to invert the contrast for extracted particles from the movies;\n",
    "         --first             0                0-based; if 0, negative, or bigger then frame number,  frames will be used from number-0; \n",
    "         --last              0                0-based; if 0, negative, or bigger then frame number,  frames will be used up to the last (Nz-1); \n",
    "         --Ne_a              0.5              Weighting factor 'a' for radiation damage; \n",
    "         --Ne_a              1.3              Weighting factor 'b' for radiation damage; f \n",
    "         --D_a               1.0              Weighting factor 'a' for drift in range [0,1]; to adjust the weighting contributions from drift, larger values means more weighting\n",
    "         --D_b               1.0              Weighting factor 'b' for drift in range [0,1]; to regulate anistropic drift weighting; bigger value, more isotropic; 1 means 100% isotropic weighting\n",
    "         --wnorm_type        2                How to normalized the weights; 1:  L-1 norm, |w1|+|w2|+|w3| ... ; \n                                                                             2:  L-2 norm, sqrt(w1^2 + w2^2 ... w3^2)\n",
    "         --mw_skeme          3                0: simple average  1: dose weighting only  2: drift weighting only  3: dose and drfit weighting;\n                                              CTF weighting will be ignored if CTFW files doesn't exist;        \n",
    "         --gid               0                GPU id, normally it's 0, use gpu_info to get information of all available GPUs.\n",
    "         --box_suffix        _zavik.box    \n",
    "         --dd_suffix         _dose_drift.txt   \n",
    "         --ctfw_suffix       _ctfw.txt         \n",
};

namespace {

enum OptKind { OPT_FLOAT, OPT_INT, OPT_SWITCH, OPT_NAME };

// One option word: where its value goes in the record.
struct LombarOption {
  const char* word;
  OptKind kind;
  float* (*f)(LOMBAR_PARA*);
  int* (*i)(LOMBAR_PARA*);
  char* (*s)(LOMBAR_PARA*);
};

#define LF(w, field) {#w, OPT_FLOAT, [](LOMBAR_PARA* p) { return &p->field; }, nullptr, nullptr}
#define LI(w, field) {#w, OPT_INT, nullptr, [](LOMBAR_PARA* p) { return &p->field; }, nullptr}
#define LB(w, field) {#w, OPT_SWITCH, nullptr, [](LOMBAR_PARA* p) { return &p->field; }, nullptr}
#define LS(w, field) {#w, OPT_NAME, nullptr, nullptr, [](LOMBAR_PARA* p) { return p->field; }}

// The scan compares each word with these in this order.
const LombarOption OPTIONS[] = {
    LF(apix, apix),
    LI(newsize, newsize),
    LB(invert, invert),
    LI(first, first_opt),
    LI(last, last_opt),
    LF(Ne_a, gps.Ne_a),
    LF(Ne_b, gps.Ne_b),
    LF(D_a, gps.Da),
    LF(D_b, gps.Db),
    LI(wnorm_type, gps.wnorm_type),
    LI(mw_skeme, gps.mw_skeme),
    LI(gid, gid),
    LS(box_suffix, suffix_a),
    LS(dd_suffix, suffix_b),
    LS(ctfw_suffix, suffix_c),
    LB(do_unfinished, do_unfinished),
};
#undef LF
#undef LI
#undef LB
#undef LS

const LombarOption* find_option(const char* word) {
  for (const LombarOption& o : OPTIONS)
    if (keywd_cmp(word, o.word)) return &o;
  return nullptr;
}

// The reports of the scan and the checks, in the name of the scan.
#define PARA_FATAL(...) zk_fatal("lombar_get_parameters", zk_basename(__FILE__), __LINE__, zk_format(__VA_ARGS__).c_str())

void check_name_length(const char* name, const char* what) {
  const size_t n = strlen(name);
  if (n >= (size_t)ZK_TXT_LEN) PARA_FATAL("%s is %zu bytes long, the limit is %d bytes", what, n, ZK_TXT_LEN - 1);
}

[[noreturn]] void unrecognised_option(const char* word, int line) {
  printf(
      "\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR: in function %s(), file %s on line %d. Failed to recognize option: %s! "
      "Exit now. Check your input please.\x1b[m\n\n",
      "lombar_get_parameters", zk_basename(__FILE__), line, word);
  lombar_print_valid_options();
  zk_fail_plain("", 0);
}

void put_rule(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

// One echo line: 8 blanks, "--", the word padded to 21 characters, the value.
void put_option_line(const LOMBAR_PARA* para, const LombarOption& o) {
  LOMBAR_PARA* p = const_cast<LOMBAR_PARA*>(para);
  printf("        --%-21s", o.word);
  switch (o.kind) {
    case OPT_FLOAT:
      printf(strcmp(o.word, "apix") == 0 ? "%.3f\n" : "%.2f\n", *o.f(p));
      break;
    case OPT_INT:
    case OPT_SWITCH:
      printf("%d\n", *o.i(p));
      break;
    case OPT_NAME:
      printf("%s\n", o.s(p));
      break;
  }
}

}  // namespace

void lombar_init_parameters(LOMBAR_PARA* para) {
  *para = LOMBAR_PARA();
  para->apix = 1.34f;
  para->newsize = 360;
  para->invert = 0;
  para->first = para->last = 0;
  para->first_opt = para->last_opt = 0;
  para->gps = gps_para_default();
  para->gid = 0;
  strlcpy(para->suffix_a, "_zavik.box");
  strlcpy(para->suffix_b, "_dose_drift.txt");
  strlcpy(para->suffix_c, "_ctfw.txt");
  para->do_unfinished = 0;
}

int lombar_get_parameters(int argc, char** argv, LOMBAR_PARA* para) {
  para->movies.clear();
  for (int i = 1; i < argc; ++i) {
    const char* word = argv[i];
    const LombarOption* o = find_option(word);
    if (!o) {
      if (word[0] == '-') unrecognised_option(word, __LINE__);
      check_name_length(word, "a movie name");
      para->movies.push_back(argv[i]);
      continue;
    }
    if (o->kind == OPT_SWITCH) {
      get_bool_keyword(argc, argv, *o->i(para), i);
      continue;
    }
    // A value option takes the next word whatever it is; there must be one.
    if (i == argc - 1) PARA_FATAL("the option %s at the end of the command line has no value", word);
    const char* value = argv[++i];
    switch (o->kind) {
      case OPT_FLOAT:
        *o->f(para) = zk_atof(value);
        break;
      case OPT_INT:
        *o->i(para) = zk_atoi(value);
        break;
      default:
        check_name_length(value, zk_format("the suffix given to --%s", o->word).c_str());
        strlcpy(o->s(para), value);
        break;
    }
  }
  para->n_movies = (int)para->movies.size();
  lombar_check_parameters(para);
  return para->n_movies;
}

void lombar_check_parameters(const LOMBAR_PARA* para) {
  const GPS_PARA& g = para->gps;
  if (g.mw_skeme < 0 || g.mw_skeme > 3)
    PARA_FATAL("--mw_skeme %d is no weighting scheme; use 0 (plain average), 1 (dose), 2 (drift) or 3 (dose and drift)",
               g.mw_skeme);
  if (g.wnorm_type != 1 && g.wnorm_type != 2)
    PARA_FATAL("--wnorm_type %d is no norm of the weights; use 1 (L1, sum of |w|) or 2 (L2, square root of the sum of "
               "w^2)",
               g.wnorm_type);
  if (!(para->apix > 0.0f)) PARA_FATAL("--apix must be greater than 0");
  if (para->newsize < 0) PARA_FATAL("--newsize must be 0 (the box file's size) or a number of pixels");
  if (para->first_opt > 0 && para->last_opt > 0 && para->first_opt > para->last_opt)
    PARA_FATAL("--first %d lies after --last %d: no frames to weight", para->first_opt, para->last_opt);
  // Every name built from a movie must fit its buffer.
  size_t suffix = strlen("_particles.mrcs");
  for (const char* s : {para->suffix_a, para->suffix_b, para->suffix_c})
    if (strlen(s) > suffix) suffix = strlen(s);
  for (int m = 0; m < (int)para->movies.size(); ++m) {
    const char* name = para->movies[m];
    const size_t n = strlen(name) - get_micrograph_suffixn(name) + suffix;
    if (n >= (size_t)ZK_TXT_LEN)
      PARA_FATAL("a name built from movie %d would be %zu bytes long, the limit is %d bytes", m + 1, n,
                 ZK_TXT_LEN - 1);
  }
}

void lombar_frames_of_movie(const LOMBAR_PARA* para, int F, int& first, int& last) {
  first = para->first_opt <= 0 || para->first_opt > F - 1 ? 0 : para->first_opt;
  last = para->last_opt <= 0 || para->last_opt > F - 1 ? F - 1 : para->last_opt;
}

void lombar_put_parameters(int argc, char** argv, const LOMBAR_PARA* para) {
  put_rule('*', 99);
  printf("User input parameters:\n");
  for (int i = 1; i < argc; ++i) {
    const LombarOption* o = find_option(argv[i]);
    if (o) put_option_line(para, *o);
  }
  printf("\nAll parameters to be used:\n");
  for (const LombarOption& o : OPTIONS) put_option_line(para, o);
  printf("\nAll %d movies to be weighted:\n", para->n_movies);
  for (const char* m : para->movies) printf("        %s\n", m);
  printf("\n");
}

namespace {

void put_usage(const char* name) {
  printf("\n\x1b[1m Usage:\x1b[m \n");
  printf("         %s [options] <movies>  \n\n", name);
  puts(" Options,               default values   and description:  ");
  for (const char* row : LOMBAR_OPTIONS) fputs(row, stdout);
  puts("         --do_unfinished     0                Skip every movie whose \"_wave.mrc\" exists already; otherwise "
       "all movies are weighted again.");
  puts("         -h, or --help                        Print all options and the help information");
}

void put_examples(const char* name) {
  printf("\x1b[1m Example:\x1b[m \n         %s --apix 1.07 --newsize 320 Movies/*.mrcs\n", name);
  printf("         %s --apix 1.07 --newsize 320 --invert --mw_skeme 1 --box_suffix _picked.box Movies/*.mrcs\n\n",
         name);
}

}  // namespace

void lombar_help(const char* name) {
  put_usage(name);
  put_examples(name);
}

void lombar_help_full(const char* name) {
  put_usage(name);
  puts("\n\x1b[1m Inputs and outputs:\x1b[m ");
  puts("         Beside each movie <name>.mrc (or .mrcs): the box file <name>_zavik.box (--box_suffix), the dose/drift "
       "log <name>_dose_drift.txt (--dd_suffix: frame, dose, drift x, drift y, one line a frame) and, when present, "
       "the CTF weight log <name>_ctfw.txt (--ctfw_suffix: radius, frequency, weight, one line a Fourier radius).");
  puts("         Every box is cut from all frames of the movie, the frames --first to --last of each particle are "
       "merged in Fourier space with the dose and drift weights, and the result goes to <name>_wave.mrc, one image a "
       "particle, in the box file's order.");
  puts("         A movie without its logs or box file, or with a malformed one, is named and skipped; the run goes on.");
  put_examples(name);
  put_rule('*', 99);
  printf("Version:       %s %s, updated on %s\n", name, lombar_version, lombar_updated_date);
  printf("Description:   Dose, drift and CTF weighting of particle movies.\n");
  put_rule('*', 99);
}

void lombar_print_valid_options() {
  put_rule('-', 130);
  printf("All valid options:\n");
  for (const LombarOption& o : OPTIONS) printf("--%s\t ", o.word);
  printf("--help\t \n");
  put_rule('-', 128);
}
