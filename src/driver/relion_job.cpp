#include "driver/relion_job.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "core/report.h"
#include "core/str_utils.h"
#include "ctf/kesmar.h"
#include "driver/zavik_run.h"
#include "formats/safe_output.h"
#include "formats/star_table.h"

namespace {

#define JOB_FATAL(...) ZK_FATAL(zk_format(__VA_ARGS__).c_str())

using Words = std::vector<std::string>;

std::string with_slash(std::string dir) {
  if (!dir.empty() && dir.back() != '/') dir += '/';
  return dir;
}

// Every folder of path, as mkdir -p makes them.
void make_dirs(const std::string& path) {
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i < path.size() && path[i] != '/') continue;
    const std::string part = path.substr(0, i);
    if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
      JOB_FATAL("cannot make the folder %s (%s)", part.c_str(), strerror(errno));
  }
}

void touch(const std::string& name) {
  FILE* fp = fopen(name.c_str(), "w");
  if (fp) fclose(fp);
}

const char* const kSuccess = "RELION_JOB_EXIT_SUCCESS";
const char* const kFailure = "RELION_JOB_EXIT_FAILURE";

// The name without the extension of its last part, so that a link named
// <that>.mrc gives the program's outputs the names RELION derives.
std::string without_extension(const std::string& name) {
  const size_t dot = name.rfind('.'), slash = name.rfind('/');
  return dot == std::string::npos || (slash != std::string::npos && dot < slash) ? name : name.substr(0, dot);
}

bool has_option(const Words& words, const char* word) {
  for (const std::string& w : words)
    if (keywd_cmp(w.c_str(), word)) return true;
  return false;
}

// The value that follows the last occurrence of the option word, or "".
std::string option_value(const Words& words, const char* word) {
  std::string v;
  for (size_t i = 0; i + 1 < words.size(); ++i)
    if (keywd_cmp(words[i].c_str(), word)) v = words[i + 1];
  return v;
}

// The micrograph list of the job.
struct JobList {
  std::vector<ZkStarTable> tables;
  int optics = -1, mics = -1;  // indices into tables
  Words names, links;          // per micrograph row
  Words groups;                // the optics groups, in the order they first appear
  std::vector<int> group;      // per micrograph row, into groups
};

JobList read_list(const ZkRelionJob& job) {
  JobList l;
  l.tables = starf_read_tables(job.in_mics.c_str());
  const ZkStarTable* mics = star_find_table(l.tables, "micrographs", "_rlnMicrographName");
  if (!mics || mics->column("_rlnMicrographName") < 0)
    JOB_FATAL("%s holds no table of micrographs (_rlnMicrographName)", job.in_mics.c_str());
  if (mics->rows.empty()) JOB_FATAL("%s lists no micrographs", job.in_mics.c_str());
  l.mics = (int)(mics - l.tables.data());
  for (size_t k = 0; k < l.tables.size(); ++k)
    if (l.tables[k].name == "optics") l.optics = (int)k;
  const int name_col = mics->column("_rlnMicrographName"), group_col = mics->column("_rlnOpticsGroup");
  std::map<std::string, std::string> taken;  // link -> micrograph
  for (const Words& row : mics->rows) {
    const std::string& name = row[name_col];
    const std::string link = without_extension(relion_job_result_name(with_slash(job.out_dir), name)) + ".mrc";
    if (taken.count(link))
      JOB_FATAL("micrographs %s and %s would share their results in %s", taken[link].c_str(), name.c_str(),
                job.out_dir.c_str());
    taken[link] = name;
    l.names.push_back(name);
    l.links.push_back(link);
    const std::string g = group_col >= 0 ? row[group_col] : "1";
    size_t k = 0;
    while (k < l.groups.size() && l.groups[k] != g) ++k;
    if (k == l.groups.size()) l.groups.push_back(g);
    l.group.push_back((int)k);
  }
  return l;
}

// The value of label in the optics table for group g, or "".
std::string optics_value(const JobList& l, const std::string& g, const char* label) {
  if (l.optics < 0) return "";
  const ZkStarTable& t = l.tables[l.optics];
  const int gc = t.column("_rlnOpticsGroup"), c = t.column(label);
  if (c < 0) return "";
  for (const Words& row : t.rows)
    if (gc < 0 || row[gc] == g) return row[c];
  return "";
}

// The micrographs linked at their results' places for as long as the record
// lives.
struct Links {
  Words made;
  ~Links() {
    for (const std::string& n : made) unlink(n.c_str());
  }
  void add(const std::string& mic, const std::string& link) {
    std::string target = mic;
    if (mic[0] != '/') {
      char cwd[PATH_MAX];
      if (!getcwd(cwd, sizeof cwd)) JOB_FATAL("cannot tell the working folder (%s)", strerror(errno));
      target = std::string(cwd) + "/" + mic;
    }
    const size_t slash = link.rfind('/');
    if (slash != std::string::npos) make_dirs(link.substr(0, slash));
    struct stat st;
    if (lstat(link.c_str(), &st) == 0) {
      if (!S_ISLNK(st.st_mode)) JOB_FATAL("%s stands where the link to micrograph %s goes", link.c_str(), mic.c_str());
      unlink(link.c_str());
    }
    if (symlink(target.c_str(), link.c_str()) != 0)
      JOB_FATAL("cannot link micrograph %s as %s (%s)", mic.c_str(), link.c_str(), strerror(errno));
    made.push_back(link);
  }
};

void link_all(const JobList& l, Links& links) {
  for (size_t i = 0; i < l.names.size(); ++i) links.add(l.names[i], l.links[i]);
}

// The words of one program run: the program, the job's options with extra
// words behind them, then the links of optics group g.
Words run_words(const char* prog, const Words& options, const Words& extra, const JobList& l, int g) {
  Words w = {prog};
  w.insert(w.end(), options.begin(), options.end());
  w.insert(w.end(), extra.begin(), extra.end());
  for (size_t i = 0; i < l.links.size(); ++i)
    if (l.group[i] == g) w.push_back(l.links[i]);
  return w;
}

std::vector<char*> argv_of(Words& w) {
  std::vector<char*> v;
  for (std::string& s : w) v.push_back(&s[0]);
  v.push_back(nullptr);
  return v;
}

void write_nodes(const ZkRelionJob& job, const char* node, int type) {
  const std::string name = job.out_dir + "RELION_OUTPUT_NODES.star";
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name.c_str());
  fprintf(fp, "\ndata_output_nodes\n\nloop_ \n_rlnPipeLineNodeName #1 \n_rlnPipeLineNodeType #2 \n%s%s %d \n \n",
          job.out_dir.c_str(), node, type);
  zk_out_commit(out);
}

void start_job(const ZkRelionJob& job) {
  make_dirs(job.out_dir);
  make_dirs(job.control_dir);
  unlink((job.control_dir + kSuccess).c_str());
  unlink((job.control_dir + kFailure).c_str());
}

void finish_job(const ZkRelionJob& job) { touch(job.control_dir + kSuccess); }

// True, after the usage, when the command line asks for help or is empty.
bool usage(int argc, char** argv, const char* what, const char* example) {
  if (argc >= 2 && !is_keywd_help(argv[1])) return false;
  printf(
      "Usage: %s --o <job folder> --in_mics <micrographs STAR file> [%s options]\n"
      "Runs %s as a RELION External job on the micrographs of the list; the results go into the job folder.\n"
      "Example: %s --o External/job007/ --in_mics MotionCorr/job002/corrected_micrographs.star %s\n",
      argv[0], what, what, argv[0], example);
  return true;
}

}  // namespace

ZkRelionJob relion_job_arguments(int argc, char** argv) {
  static const char* const unused[] = {"j", "in_movies", "in_parts", "in_coords", "in_3dref", "in_mask"};
  ZkRelionJob job;
  for (int i = 1; i < argc; ++i) {
    const char* w = argv[i];
    const bool o = keywd_cmp(w, "o"), mics = keywd_cmp(w, "in_mics"), control = keywd_cmp(w, "pipeline_control");
    bool skip = false;
    for (const char* u : unused) skip = skip || keywd_cmp(w, u);
    if (!(o || mics || control || skip)) {
      job.options.push_back(w);
      continue;
    }
    if (i + 1 >= argc) JOB_FATAL("the option %s at the end of the command line has no value", w);
    const char* v = argv[++i];
    if (o) job.out_dir = with_slash(v);
    if (mics) job.in_mics = v;
    if (control) job.control_dir = with_slash(v);
  }
  if (job.out_dir.empty()) JOB_FATAL("the job needs its folder: --o <folder>");
  if (job.in_mics.empty()) JOB_FATAL("the job needs its micrographs: --in_mics <micrographs STAR file>");
  if (job.control_dir.empty()) job.control_dir = job.out_dir;
  return job;
}

std::string relion_job_result_name(const std::string& out_dir, const std::string& mic) {
  size_t at = 0;
  while (at <= mic.size()) {
    size_t end = mic.find('/', at);
    if (end == std::string::npos) end = mic.size();
    if (mic.compare(at, end - at, "..") == 0 && end - at == 2)
      JOB_FATAL("the results of micrograph %s would lie outside the job folder (a '..' in its name)", mic.c_str());
    at = end + 1;
  }
  std::string rest = mic;
  const size_t a = mic.find('/');
  const size_t b = a == std::string::npos ? a : mic.find('/', a + 1);
  if (a != std::string::npos && a > 0 && b != std::string::npos && b > a + 4 && mic.compare(a + 1, 3, "job") == 0 &&
      mic.find_first_not_of("0123456789", a + 4) == b)
    rest = mic.substr(b + 1);
  const size_t lead = rest.find_first_not_of('/');  // an absolute name goes under the folder whole
  return with_slash(out_dir) + (lead == std::string::npos ? "" : rest.substr(lead));
}

int zavik_relion_job(int argc, char** argv) {
  if (usage(argc, argv, "zavik", "--diameter 180")) return 0;
  const ZkRelionJob job = relion_job_arguments(argc, argv);
  start_job(job);
  const JobList l = read_list(job);
  {
    Links links;
    link_all(l, links);
    for (int g = 0; g < (int)l.groups.size(); ++g) {
      Words extra;
      const std::string apix = optics_value(l, l.groups[g], "_rlnMicrographPixelSize");
      if (!has_option(job.options, "apixM") && !apix.empty()) extra = {"--apixM", apix};
      Words w = run_words("zavik", job.options, extra, l, g);
      std::vector<char*> v = argv_of(w);
      zavik_run((int)w.size(), v.data(), ZkRunShortcuts());
    }
  }
  int done = 0;
  for (const std::string& link : l.links)
    if (access((without_extension(link) + "_zavik.star").c_str(), R_OK) == 0) ++done;
  if (done == 0) JOB_FATAL("no micrograph of %s got a coordinate file", job.in_mics.c_str());
  const std::string node = job.out_dir + "coords_suffix_zavik.star";
  {
    ZkOutFile out;
    fprintf(zk_out_open(out, node.c_str()), "%s\n", job.in_mics.c_str());
    zk_out_commit(out);
  }
  write_nodes(job, "coords_suffix_zavik.star", 2);
  printf("RELION job %s: coordinates of %d of %d micrographs, node %s\n", job.out_dir.c_str(), done,
         (int)l.links.size(), node.c_str());
  finish_job(job);
  return 0;
}

namespace {

// The CTF engine's settings that RELION keeps in the optics table.
struct OpticsOption {
  const char* word;
  const char* label;
};
const OpticsOption kOptics[] = {{"apix", "_rlnMicrographPixelSize"},
                                {"kV", "_rlnVoltage"},
                                {"cs", "_rlnSphericalAberration"},
                                {"ac", "_rlnAmplitudeContrast"}};

// The CTF columns of the output, and where each comes from in the engine's
// summary (null: computed).
const char* const kCtfLabels[] = {"_rlnCtfImage",         "_rlnDefocusU",     "_rlnDefocusV",
                                  "_rlnCtfAstigmatism",   "_rlnDefocusAngle", "_rlnCtfFigureOfMerit",
                                  "_rlnCtfMaxResolution", "_rlnPhaseShift"};

// The optics table with the values the runs used: the job's options where
// given, in every group.
ZkStarTable optics_used(const JobList& l, const Words& options) {
  ZkStarTable t = l.tables[l.optics];
  for (const OpticsOption& o : kOptics) {
    if (!has_option(options, o.word)) continue;
    int c = t.column(o.label);
    if (c < 0) {
      t.labels.push_back(o.label);
      for (Words& row : t.rows) row.push_back("");
      c = (int)t.labels.size() - 1;
    }
    for (Words& row : t.rows) row[c] = option_value(options, o.word);
  }
  return t;
}

}  // namespace

int kesmar_relion_job(int argc, char** argv) {
  if (usage(argc, argv, "kesmar", "--boxsize 512")) return 0;
  ZkRelionJob job = relion_job_arguments(argc, argv);
  start_job(job);
  const JobList l = read_list(job);
  if (l.optics < 0)
    JOB_FATAL("%s has no optics table: the CTF job takes the micrograph lists of RELION 3.1", job.in_mics.c_str());
  // The summary is the job's own.
  for (size_t i = 0; i < job.options.size(); ++i)
    if (keywd_cmp(job.options[i].c_str(), "ctfstar")) {
      job.options.erase(job.options.begin() + i, job.options.begin() + std::min(job.options.size(), i + 2));
      --i;
    }
  const ZkStarTable optics = optics_used(l, job.options);

  // Each summary row by the link it names.
  std::map<std::string, std::map<std::string, std::string>> found;
  bool phase_shift = false;
  {
    Links links;
    link_all(l, links);
    for (int g = 0; g < (int)l.groups.size(); ++g) {
      Words extra;
      for (const OpticsOption& o : kOptics) {
        if (has_option(job.options, o.word)) continue;
        const std::string v = optics_value(l, l.groups[g], o.label);
        if (v.empty())
          JOB_FATAL("optics group %s of %s has no %s: give --%s", l.groups[g].c_str(), job.in_mics.c_str(), o.label,
                    o.word);
        extra.insert(extra.end(), {std::string("--") + o.word, v});
      }
      const std::string summary =
          job.out_dir + (l.groups.size() == 1 ? std::string("micrographs_all_kesmar.star")
                                              : "micrographs_all_kesmar_og" + l.groups[g] + ".star");
      extra.insert(extra.end(), {"--ctfstar", summary});
      Words w = run_words("kesmar", job.options, extra, l, g);
      std::vector<char*> v = argv_of(w);
      KESMAR_A run;
      run.kesmar_run_all((int)w.size(), v.data());
      for (const ZkStarTable& t : starf_read_tables(summary.c_str())) {
        const int name = t.column("_rlnMicrographName");
        if (name < 0) continue;
        phase_shift = phase_shift || t.column("_rlnPhaseShift") >= 0;
        for (const Words& row : t.rows)
          for (size_t c = 0; c < t.labels.size(); ++c) found[row[name]][t.labels[c]] = row[c];
      }
    }
  }

  // The input's micrographs table, its CTF columns (if any) replaced.
  const ZkStarTable& in = l.tables[l.mics];
  ZkStarTable mics;
  mics.name = "micrographs";
  std::vector<int> keep;
  for (size_t c = 0; c < in.labels.size(); ++c) {
    bool ctf = false;
    for (const char* label : kCtfLabels) ctf = ctf || in.labels[c] == label;
    if (!ctf) {
      keep.push_back((int)c);
      mics.labels.push_back(in.labels[c]);
    }
  }
  for (const char* label : kCtfLabels)
    if (phase_shift || strcmp(label, "_rlnPhaseShift") != 0) mics.labels.push_back(label);
  for (size_t i = 0; i < l.links.size(); ++i) {
    const auto it = found.find(l.links[i]);
    if (it == found.end()) {
      printf("RELION job %s: micrograph %s has no CTF values and is left out\n", job.out_dir.c_str(),
             l.names[i].c_str());
      continue;
    }
    std::map<std::string, std::string> r = it->second;
    const double u = atof(r["_rlnDefocusU"].c_str()), v = atof(r["_rlnDefocusV"].c_str());
    r["_rlnCtfAstigmatism"] = zk_format("%.6f", std::fabs(u - v));
    if (r.count("_rlnFinalResolution")) r["_rlnCtfMaxResolution"] = r["_rlnFinalResolution"];
    if (!r.count("_rlnPhaseShift")) r["_rlnPhaseShift"] = "0.000000";
    Words row;
    for (int c : keep) row.push_back(in.rows[i][c]);
    for (const char* label : kCtfLabels)
      if (phase_shift || strcmp(label, "_rlnPhaseShift") != 0) row.push_back(r[label]);
    mics.rows.push_back(row);
  }
  if (mics.rows.empty()) JOB_FATAL("no micrograph of %s got CTF values", job.in_mics.c_str());

  const std::string node = job.out_dir + "micrographs_ctf.star";
  {
    ZkOutFile out;
    FILE* fp = zk_out_open(out, node.c_str());
    star_write_table(fp, optics);
    star_write_table(fp, mics);
    zk_out_commit(out);
  }
  write_nodes(job, "micrographs_ctf.star", 1);
  printf("RELION job %s: CTF values of %d of %d micrographs, node %s\n", job.out_dir.c_str(), (int)mics.rows.size(),
         (int)l.links.size(), node.c_str());
  finish_job(job);
  return 0;
}

void relion_job_mark_failure(int argc, char** argv) {
  std::string dir;
  for (int i = 1; i + 1 < argc; ++i) {
    if (keywd_cmp(argv[i], "o") && dir.empty()) dir = with_slash(argv[i + 1]);
    if (keywd_cmp(argv[i], "pipeline_control")) dir = with_slash(argv[i + 1]);
  }
  if (!dir.empty()) touch(dir + kFailure);
}
