#include "driver/zavik_para.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "core/report.h"
#include "core/str_utils.h"
#include "device/cuda_general.h"
#include "driver/zavik_help.h"
#include "parallel/zk_parallel.h"

namespace {

enum OptKind { OPT_NAME, OPT_FLOAT, OPT_INT, OPT_FLAG };

// One option word of the record.  The echo of the options as given shows the
// command-line text for the rows marked echo_argv and the record's value for
// the others.
struct ZkOption {
  const char* word;
  OptKind kind;
  size_t offset;
  const char* fmt_given;  // format of the first echo block
  bool echo_argv;
};

#define ZK_OPT(word, kind, fmt, echo_argv) {#word, kind, offsetof(Zavik_Para, word), fmt, echo_argv}

// The scan tests the words in this order.
const ZkOption OPTIONS[] = {
    ZK_OPT(T, OPT_NAME, "%s", true),
    ZK_OPT(dont_invertT, OPT_FLAG, "%d", false),
    ZK_OPT(apixM, OPT_FLOAT, "%.3f", true),
    ZK_OPT(apixT, OPT_FLOAT, "%.3f", true),
    ZK_OPT(diameter, OPT_FLOAT, "%.2f", true),
    ZK_OPT(min_dist, OPT_FLOAT, "%.2f", true),
    ZK_OPT(boxsize, OPT_INT, "%d", true),
    ZK_OPT(speed, OPT_INT, "%d", true),
    ZK_OPT(ang_step, OPT_FLOAT, "%.2f", true),
    ZK_OPT(update_T, OPT_FLAG, "%d", false),
    ZK_OPT(cc_cutoff, OPT_FLOAT, "%.3f", true),
    ZK_OPT(lp, OPT_FLOAT, "%.3f", false),
    ZK_OPT(hp, OPT_FLOAT, "%.3f", false),
    ZK_OPT(pre_lp, OPT_FLOAT, "%.3f", false),
    ZK_OPT(pre_hp, OPT_FLOAT, "%.3f", false),
    ZK_OPT(T_norm_type, OPT_INT, "%d", false),
    ZK_OPT(center1_ratio, OPT_FLOAT, "%.3f", false),
    ZK_OPT(do_bandpass, OPT_FLAG, "%d", false),
    ZK_OPT(do_ctf, OPT_FLAG, "%d", false),
    ZK_OPT(do_local_ctf, OPT_FLAG, "%d", false),
    ZK_OPT(kV, OPT_FLOAT, "%.2f", true),
    ZK_OPT(cs, OPT_FLOAT, "%.2f", true),
    ZK_OPT(ac, OPT_FLOAT, "%.2f", true),
    ZK_OPT(lave_max, OPT_FLOAT, "%.3f", true),
    ZK_OPT(lave_min, OPT_FLOAT, "%.3f", true),
    ZK_OPT(lsigma_cutoff, OPT_FLOAT, "%.3f", true),
    ZK_OPT(lsigma_D, OPT_FLOAT, "%.3f", true),
    ZK_OPT(lave_D, OPT_FLOAT, "%.3f", true),
    ZK_OPT(write_ccmax_mic, OPT_FLAG, "%d", false),
    ZK_OPT(do_pre_filter, OPT_FLAG, "%d", false),
    ZK_OPT(detect_ice, OPT_FLAG, "%d", false),
    ZK_OPT(write_pref_mic, OPT_FLAG, "%d", false),
    ZK_OPT(write_pf_mic, OPT_FLAG, "%d", false),
    ZK_OPT(write_bg_mic, OPT_FLAG, "%d", false),
    ZK_OPT(write_bgfree_mic, OPT_FLAG, "%d", false),
    ZK_OPT(write_lsigma_mic, OPT_FLAG, "%d", false),
    ZK_OPT(write_mic_mask, OPT_FLAG, "%d", false),
    ZK_OPT(do_unfinished, OPT_FLAG, "%d", false),
    ZK_OPT(excluded_suffix, OPT_NAME, "%s", false),
    ZK_OPT(exclusive_picking, OPT_FLAG, "%d", false),
    ZK_OPT(mask_excluded, OPT_FLAG, "%d", false),
    ZK_OPT(global_excluded_box, OPT_NAME, "%s", false),
    ZK_OPT(write_star, OPT_FLAG, "%d", false),
    ZK_OPT(extract_raw, OPT_FLAG, "%d", false),
    ZK_OPT(extract_pf, OPT_FLAG, "%d", false),
    ZK_OPT(gid, OPT_INT, "%d", true),
    ZK_OPT(fill_rejected, OPT_FLAG, "%d", false),
    ZK_OPT(png, OPT_INT, "%d", true),
    ZK_OPT(summary, OPT_NAME, "%s", false),
};
#undef ZK_OPT
constexpr int N_OPTIONS = (int)(sizeof OPTIONS / sizeof OPTIONS[0]);
static_assert(N_OPTIONS == 49, "the record has 49 option words");

int find_option(const char* word) {
  for (int k = 0; k < N_OPTIONS; ++k)
    if (keywd_cmp(word, OPTIONS[k].word)) return k;
  return -1;
}

int option_index(const char* word) {
  for (int k = 0; k < N_OPTIONS; ++k)
    if (strcmp(OPTIONS[k].word, word) == 0) return k;
  return -1;
}

float& f_field(Zavik_Para* p, const ZkOption& o) { return *(float*)((char*)p + o.offset); }
int& i_field(Zavik_Para* p, const ZkOption& o) { return *(int*)((char*)p + o.offset); }
char* s_field(Zavik_Para* p, const ZkOption& o) { return *(char**)((char*)p + o.offset); }

// The echo prints do_local_ctf under another word.
const char* echo_label(const ZkOption& o) {
  return strcmp(o.word, "do_local_ctf") == 0 ? "local_ctf" : o.word;
}

// The reports of the scan: the fatal form, with the scan's own position.
#define PARA_FATAL(...)                                                   \
  do {                                                                    \
    char msg_[256];                                                       \
    snprintf(msg_, sizeof msg_, __VA_ARGS__);                             \
    zk_fatal("zavik_get_parameters", zk_basename(__FILE__), __LINE__, msg_); \
  } while (0)

// A value is a number in full: "1,34", "abc" or "12px" would otherwise run
// silently as 1, 0 or 12.  The value is the one atof or atoi gives.
bool parse_float(const char* text, float& v) {
  char* end = nullptr;
  errno = 0;
  const double d = strtod(text, &end);
  if (end == text || *end != '\0' || errno == ERANGE || !std::isfinite(d) || !std::isfinite((float)d)) return false;
  v = (float)d;
  return true;
}

bool parse_int(const char* text, int& v) {
  char* end = nullptr;
  errno = 0;
  const long n = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE || n < INT_MIN || n > INT_MAX) return false;
  v = (int)n;
  return true;
}

// A name must fit its 1024-byte buffer and leave room for the terminator.
void check_name_length(const char* name, const char* what) {
  size_t n = strlen(name);
  if (n >= (size_t)ZK_TXT_LEN) PARA_FATAL("%s is %zu bytes long, the limit is %d bytes", what, n, ZK_TXT_LEN - 1);
}

[[noreturn]] void unrecognised_option(const char* word, int line) {
  printf("\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR:\x1b[m"
         "in function %s(), file %s on line %d. Failed to recognize option: "
         "\x1b[41m\x1b[1m\x1b[5m%s!\x1b[m"
         " Exit now. Check your input please.\n\n",
         "zavik_get_parameters", zk_basename(__FILE__), line, word);
  zavik_print_valid_options();
  // Ends the run with status 0 after the list, as a help text would.
  zk_fail_plain("", 0);
}

}  // namespace

void zavik_speed2shrink(int& speed, int& shrink) {
  static const int table[5] = {1, 2, 4, 6, 8};
  if (speed < 0 || speed > 4) ZK_FATAL("speed level must belong to {0,1,2,3,4}");
  shrink = table[speed];
}

void zavik_init_parameters(int argc, Zavik_Para* para) {
  memset(para, 0, sizeof *para);
  para->files = (char**)calloc(argc > 0 ? argc : 1, sizeof(char*));
  para->T = (char*)calloc(ZK_TXT_LEN, 1);
  para->excluded_suffix = (char*)calloc(ZK_TXT_LEN, 1);
  para->global_excluded_box = (char*)calloc(ZK_TXT_LEN, 1);
  para->summary = (char*)calloc(ZK_TXT_LEN, 1);
  strlcpy(para->T, "NULL");
  strlcpy(para->summary, "NULL");
  strlcpy(para->excluded_suffix, "NULL");
  strlcpy(para->global_excluded_box, "NULL");

  para->dont_invertT = 0;
  para->apixM = 1.34f;
  para->apixT = 1.34f;
  para->diameter = 400.0f;
  para->min_dist = 320.0f;  // 0.8 * diameter unless given
  para->boxsize = 396;      // from diameter and apixM unless given
  para->shrink = 4;
  para->speed = 2;
  para->ang_step = 5.0f;
  para->update_T = 0;
  para->cc_cutoff = 0.15f;
  para->lp = 40.0f;
  para->hp = 1000.0f;
  para->pre_lp = 8.0f;
  para->pre_hp = 1000.0f;
  para->T_norm_type = 1;
  para->center1_ratio = 0.05f;
  para->do_bandpass = 1;
  para->do_ctf = 0;
  para->do_local_ctf = 0;
  para->kV = 300.0f;
  para->cs = 2.7f;
  para->ac = 0.1f;
  para->lave_max = 1.0f;
  para->lave_min = -1.0f;
  para->lsigma_cutoff = 1.3f;
  para->lsigma_D = 300.0f;  // 0.5 * diameter + 100 unless given
  para->lave_D = 320.0f;    // 0.3 * diameter + 200 unless given
  para->write_ccmax_mic = 0;
  para->do_pre_filter = 0;
  para->detect_ice = 1;
  para->write_pref_mic = 0;
  para->write_pf_mic = 0;
  para->write_bg_mic = 0;
  para->write_bgfree_mic = 0;
  para->write_lsigma_mic = 0;
  para->write_mic_mask = 0;
  para->do_unfinished = 0;
  para->exclusive_picking = 0;
  para->mask_excluded = 0;
  para->write_rejected_box = 1;
  para->write_star = 1;
  para->extract_raw = 0;
  para->extract_pf = 0;
  para->gid = 0;
  para->n_files = 0;
  para->local_soft_edge = 8.0f;
  para->T_radius_ratio = 1.3f;
  para->auto_T = 1;
  para->psi_start = 0.0f;
  para->psi_end = 359.0f;
  para->first_mic = nullptr;
  para->cc_auto = 0;
  para->fill_rejected = 0;
  para->png = 0;
}

void zavik_free_parameters(Zavik_Para* para) {
  free(para->files);
  free(para->T);
  free(para->excluded_suffix);
  free(para->global_excluded_box);
  free(para->summary);
  para->files = nullptr;
  para->T = para->excluded_suffix = para->global_excluded_box = para->summary = nullptr;
}

int zavik_grid_cell(const Zavik_Para* para) {
  // sqrt(2) in single precision; the cell's diagonal is min_dist in shrunk pixels.
  float diag = para->min_dist * 1.41421354f;
  float twice_px = 2.0f * ((float)para->shrink * para->apixM);
  return (int)(diag / twice_px);
}

void zavik_get_parameters(int argc, char** argv, Zavik_Para* para) {
  bool given[N_OPTIONS] = {};

  for (int i = 1; i < argc; ++i) {
    const char* word = argv[i];
    int k = find_option(word);
    if (k < 0) {
      if (word[0] == '-') unrecognised_option(word, __LINE__);
      check_name_length(word, "a micrograph name");
      para->files[para->n_files++] = argv[i];
      continue;
    }
    const ZkOption& o = OPTIONS[k];
    given[k] = true;
    if (o.kind == OPT_FLAG) {
      get_bool_keyword(argc, argv, i_field(para, o), i);
      continue;
    }
    // A value option takes the next word whatever it is; there must be one.
    if (i == argc - 1) PARA_FATAL("the option %s at the end of the command line has no value", word);
    const char* value = argv[++i];
    switch (o.kind) {
      case OPT_NAME: {
        char what[64];
        snprintf(what, sizeof what, "the name given to --%s", o.word);
        check_name_length(value, what);
        strlcpy(s_field(para, o), value);
        break;
      }
      case OPT_FLOAT:
        // "auto" chooses the score cutoff of each micrograph from its scores.
        if (strcmp(o.word, "cc_cutoff") == 0 && strcasecmp(value, "auto") == 0) {
          para->cc_auto = 1;
          break;
        }
        if (strcmp(o.word, "cc_cutoff") == 0) para->cc_auto = 0;
        if (!parse_float(value, f_field(para, o))) PARA_FATAL("--%s takes a number, not '%s'", o.word, value);
        break;
      default:
        if (!parse_int(value, i_field(para, o))) PARA_FATAL("--%s takes a whole number, not '%s'", o.word, value);
        break;
    }
    if (strcmp(o.word, "speed") == 0) zavik_speed2shrink(para->speed, para->shrink);
  }

  // Every output name of a micrograph must fit its buffer too; the longest
  // suffixes are "_nonunique.box" and "_rejected.star", or the exclusion suffix.
  size_t suffix = strlen("_nonunique.box");
  if (para->exclusive_picking && strlen(para->excluded_suffix) > suffix) suffix = strlen(para->excluded_suffix);
  for (int f = 0; f < para->n_files; ++f) {
    size_t n = strlen(para->files[f]) - get_micrograph_suffixn(para->files[f]) + suffix;
    if (n >= (size_t)ZK_TXT_LEN)
      PARA_FATAL("an output name of micrograph %d would be %zu bytes long, the limit is %d bytes", f + 1, n,
                 ZK_TXT_LEN - 1);
  }

  // Values that would leave the search without end or divide by zero.
  if (!(para->ang_step > 0.0f)) PARA_FATAL("--ang_step must be greater than 0");
  if (!(para->diameter > 0.0f)) PARA_FATAL("--diameter must be greater than 0");
  if (!(para->apixM > 0.0f)) PARA_FATAL("--apixM must be greater than 0");
  // Values outside their sensible range would give empty or meaningless
  // results without a word.
  struct Range {
    const char* word;
    double low, high;  // low < value <= high; low <= value <= high when closed
    bool closed;
  };
  static const Range ranges[] = {
      {"apixT", 0, 1e6, false},     {"min_dist", 0, 1e9, false},   {"boxsize", 0, 1e6, false},
      {"ang_step", 0, 360, false},  {"lp", 0, 1e9, false},         {"hp", 0, 1e9, false},
      {"pre_lp", 0, 1e9, false},    {"pre_hp", 0, 1e9, false},     {"lsigma_D", 0, 1e9, false},
      {"lave_D", 0, 1e9, false},    {"center1_ratio", 0, 1, true}, {"kV", 0, 1e4, false},
      {"cs", 0, 1e3, true},         {"ac", 0, 1, true},            {"gid", 0, 1e6, true},
      {"png", 0, 1024, true},
  };
  for (const Range& r : ranges) {
    const int k = option_index(r.word);
    if (!given[k]) continue;
    const ZkOption& o = OPTIONS[k];
    const double v = o.kind == OPT_FLOAT ? (double)f_field(para, o) : (double)i_field(para, o);
    const bool inside = (r.closed ? v >= r.low : v > r.low) && v <= r.high;
    if (!inside && r.closed) PARA_FATAL("--%s must lie between %g and %g, not %g", r.word, r.low, r.high, v);
    if (!inside) PARA_FATAL("--%s must be greater than %g and at most %g, not %g", r.word, r.low, r.high, v);
  }

  if (!is_str_null(para->T)) para->auto_T = 0;
  if (!given[option_index("min_dist")]) para->min_dist = (float)(0.8 * para->diameter);
  if (!given[option_index("boxsize")]) {
    int box = (int)(para->diameter * 1.33 / para->apixM);
    para->boxsize = box / 2 * 2;
  }
  if (!given[option_index("lsigma_D")]) para->lsigma_D = (float)(0.5 * para->diameter + 100.0);
  if (!given[option_index("lave_D")]) para->lave_D = (float)(0.3 * para->diameter + 200.0);

  // The grid cell must hold at least one shrunk pixel.
  if (zavik_grid_cell(para) < 1)
    PARA_FATAL("--min_dist %.2f gives a grid cell of less than one pixel at speed %d", para->min_dist,
               para->speed);

  // Derived values in shrunk pixels, single precision.
  const float shrink = (float)para->shrink;
  para->min_dist_px = para->min_dist / (shrink * para->apixM);
  para->T_radius = para->T_radius_ratio * para->diameter / ((para->apixM + para->apixM) * shrink);
  para->lsigma_R = para->lsigma_D / (shrink * (para->apixM + para->apixM));
  para->lave_R = para->lave_D / (shrink * (para->apixM + para->apixM));

  if (para->n_files == 0) zavik_help_exit(argv[0], "No valid files to be processed.");
  // The ranks of a job on one machine take its GPUs in turn, unless --gid says.
  if (zk_par_size() > 1 && !given[option_index("gid")]) para->gid = zk_device_of_local_rank(zk_par_local_rank());
  if (check_and_set_gid(para->gid) == -1) zavik_help_exit(argv[0], "Failed to find any usable GPU device!");

  if (!given[option_index("diameter")])
    printf("Waring: You have not set the parameter '--diameter',  the default value 400Å will be used.\n");
  if (!given[option_index("T")])
    printf("Waring: You have not set the parameter '--T',  the automatically generated Gaussian template will be "
           "used. This is fine for 'spherical particles' like virus or ribosome. Do use templates for "
           "non-spherical particles.\n");
  if (!given[option_index("apixM")])
    printf("Waring: You have not set the parameter '--apixM', the pixel size of micrograph is assumed to be 1.34Å "
           "by default.\n");
  if (!given[option_index("apixT")]) {
    printf("Waring: You have not set the parameter '--apixT', the pixel size of templates is assumed to be the "
           "same as micrographs by default.\n");
    para->apixT = para->apixM;
  }
}

namespace {

// One echo row: seven blanks, "--", the word, the value from column col.
void put_row(FILE* fp, int col, const char* label, const char* value) {
  int n = 9 + (int)strlen(label);
  fprintf(fp, "       --%s%*s%s\n", label, n < col ? col - n : 0, "", value);
}

void format_value(char* out, size_t size, const char* fmt, Zavik_Para* p, const ZkOption& o) {
  switch (o.kind) {
    case OPT_NAME: snprintf(out, size, "%s", s_field(p, o)); break;
    case OPT_FLOAT: snprintf(out, size, fmt, (double)f_field(p, o)); break;
    default: snprintf(out, size, fmt, i_field(p, o)); break;
  }
}

// Block-2 formats: the filters' resolutions drop to two decimals there.
const char* fmt_used(const ZkOption& o) {
  static const char* two[] = {"lp", "hp", "pre_lp", "pre_hp"};
  for (const char* w : two)
    if (strcmp(o.word, w) == 0) return "%.2f";
  return o.fmt_given;
}

void put_used_rows(FILE* fp, Zavik_Para* p, const char* const* words, int n) {
  char value[ZK_TXT_LEN + 64];
  for (int j = 0; j < n; ++j) {
    int k = option_index(words[j]);
    if (k < 0) {  // write_rejected_box: in the record, reached by no option
      snprintf(value, sizeof value, "%d", p->write_rejected_box);
      put_row(fp, 30, words[j], value);
      continue;
    }
    const ZkOption& o = OPTIONS[k];
    format_value(value, sizeof value, fmt_used(o), p, o);
    if (strcmp(o.word, "cc_cutoff") == 0 && p->cc_auto) snprintf(value, sizeof value, "auto");
    put_row(fp, 30, echo_label(o), value);
  }
}

}  // namespace

void zavik_fput_parameters(int argc, char** argv, Zavik_Para* para, FILE* fp) {
  char value[ZK_TXT_LEN + 64];
  for (int i = 0; i < 99; ++i) fputc('*', fp);
  fputc('\n', fp);
  fprintf(fp, "User input parameters:\n");
  for (int i = 1; i < argc; ++i) {
    int k = find_option(argv[i]);
    if (k < 0) continue;
    const ZkOption& o = OPTIONS[k];
    if (o.echo_argv) {
      if (i == argc - 1) continue;
      const char* text = argv[++i];
      switch (o.kind) {
        case OPT_NAME: snprintf(value, sizeof value, "%s", text); break;
        case OPT_FLOAT:
          if (strcmp(o.word, "cc_cutoff") == 0 && strcasecmp(text, "auto") == 0)
            snprintf(value, sizeof value, "auto");
          else
            snprintf(value, sizeof value, o.fmt_given, (double)(float)atof(text));
          break;
        default: snprintf(value, sizeof value, o.fmt_given, atoi(text)); break;
      }
    } else {
      format_value(value, sizeof value, o.fmt_given, para, o);
    }
    put_row(fp, strcmp(o.word, "global_excluded_box") == 0 ? 32 : 28, echo_label(o), value);
  }

  static const char* const basic[] = {"T", "apixM", "diameter", "apixT"};
  static const char* const additional[] = {
      "ang_step", "speed",   "boxsize",  "min_dist",      "cc_cutoff", "lsigma_cutoff", "lsigma_D",
      "lave_min", "lave_max", "lave_D",  "dont_invertT",  "lp",        "hp",            "do_pre_filter",
      "pre_lp",   "pre_hp",  "detect_ice", "T_norm_type", "do_bandpass"};
  static const char* const ctf[] = {"do_ctf", "do_local_ctf", "kV", "cs", "ac"};
  static const char* const io[] = {
      "write_ccmax_mic", "write_pf_mic",      "write_pref_mic",  "write_bg_mic",  "write_bgfree_mic",
      "write_lsigma_mic", "write_mic_mask",   "write_star",      "do_unfinished", "write_rejected_box",
      "exclusive_picking", "excluded_suffix", "mask_excluded",   "global_excluded_box", "extract_raw",
      "extract_pf",        "gid"};

  fprintf(fp, "\nAll parameters to be used:\n");
  fprintf(fp, "Basic options:  \n");
  put_used_rows(fp, para, basic, 4);
  fprintf(fp, "Additional options:  \n");
  put_used_rows(fp, para, additional, (int)(sizeof additional / sizeof additional[0]));
  // The options beyond the classic set have a row when they are on.
  if (para->fill_rejected) {
    static const char* const fill[] = {"fill_rejected"};
    put_used_rows(fp, para, fill, 1);
  }
  fprintf(fp, "CTF options: \n");
  put_used_rows(fp, para, ctf, 5);
  fprintf(fp, "I/O options:  \n");
  put_used_rows(fp, para, io, (int)(sizeof io / sizeof io[0]));
  if (para->png) {
    static const char* const picture[] = {"png"};
    put_used_rows(fp, para, picture, 1);
  }
  if (!is_str_null(para->summary)) {
    static const char* const summary[] = {"summary"};
    put_used_rows(fp, para, summary, 1);
  }

  fprintf(fp, "\n\nAll %d files to be used:\n", para->n_files);
  for (int i = 0; i < para->n_files; ++i) fprintf(fp, "        %s\n", para->files[i]);
}
