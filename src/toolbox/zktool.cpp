#include "toolbox/zktool.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/report.h"

namespace {

bool is_option(const char* w) { return w[0] == '-' && w[1] == '-' && w[2] != '\0' && !isdigit((unsigned char)w[2]); }
bool is_help(const char* w) { return strcmp(w, "-h") == 0 || strcmp(w, "--help") == 0 || strcmp(w, "help") == 0; }

bool parse_double(const std::string& w, double* v) {
  if (w.empty()) return false;
  char* end = nullptr;
  errno = 0;
  *v = strtod(w.c_str(), &end);
  return *end == '\0' && errno == 0 && std::isfinite(*v);
}

bool parse_int(const std::string& w, int* v) {
  if (w.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long l = strtol(w.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || l < INT_MIN || l > INT_MAX) return false;
  *v = (int)l;
  return true;
}

bool allowed(const ZkToolCommand& c, const std::string& name) {
  const std::string list = std::string(" ") + c.allowed + " ";
  return list.find(" " + name + " ") != std::string::npos;
}

// "it takes --a, --b", or "it takes none".
std::string options_taken(const ZkToolCommand& c) {
  std::string out, word;
  const std::string list = std::string(c.allowed) + " ";
  for (char ch : list) {
    if (ch != ' ') {
      word += ch;
      continue;
    }
    if (word.empty()) continue;
    out += (out.empty() ? "--" : ", --") + word;
    word.clear();
  }
  return out.empty() ? "it takes none" : "it takes " + out;
}

}  // namespace

void ZkToolArgs::fail(const std::string& why) const {
  zk_fail_plain(zk_format("zktool %s: %s\nusage: zktool %s %s\n'zktool help %s' explains the arguments.\n", cmd->name,
                          why.c_str(), cmd->name, cmd->args, cmd->name));
}

float ZkToolArgs::num(int i) const {
  double v;
  if (!parse_double(pos[i], &v)) fail("'" + pos[i] + "' is not a number");
  return (float)v;
}

int ZkToolArgs::integer(int i) const {
  int v;
  if (!parse_int(pos[i], &v)) fail("'" + pos[i] + "' is not a whole number");
  return v;
}

const char* ZkToolArgs::opt(const char* name, const char* fallback) const {
  auto it = opts.find(name);
  return it == opts.end() ? fallback : it->second.c_str();
}

float ZkToolArgs::opt_num(const char* name, float fallback) const {
  auto it = opts.find(name);
  if (it == opts.end()) return fallback;
  double v;
  if (!parse_double(it->second, &v)) fail("--" + std::string(name) + " '" + it->second + "' is not a number");
  return (float)v;
}

int ZkToolArgs::opt_int(const char* name, int fallback) const {
  auto it = opts.find(name);
  if (it == opts.end()) return fallback;
  int v;
  if (!parse_int(it->second, &v)) fail("--" + std::string(name) + " '" + it->second + "' is not a whole number");
  return v;
}

const ZkToolCommand* zktool_find(const std::string& name) {
  for (const ZkToolCommand& c : zktool_commands())
    if (name == c.name) return &c;
  return nullptr;
}

void zktool_print_help() {
  printf(
      "zktool: image, stack and map tools of the zavik toolkit.\n"
      "usage: zktool <sub-command> <arguments> [--option value ...]\n"
      "       zktool help <sub-command>   its arguments, options and an example\n"
      "Images are MRC files of any mode zavik reads; results are float MRC files (mode 2)\n"
      "that keep the input's pixel size, and appear under their names only when complete.\n");
  const char* group = "";
  for (const ZkToolCommand& c : zktool_commands()) {
    if (strcmp(group, c.group) != 0) {
      group = c.group;
      printf("\n%s:\n", group);
    }
    printf("  %-18s %s\n", c.name, c.purpose);
  }
  fflush(stdout);
}

void zktool_print_command_help(const ZkToolCommand& c) {
  printf("usage: zktool %s %s\n%s\n", c.name, c.args, c.purpose);
  printf("\n%s\n", c.details);
  if (c.options[0]) printf("\noptions:\n%s\n", c.options);
  printf("\nexample:\n  %s\n", c.example);
  fflush(stdout);
}

int zktool_main(int argc, char** argv) {
  if (argc < 2) {
    zktool_print_help();
    return 0;
  }
  if (is_help(argv[1])) {
    if (argc < 3) {
      zktool_print_help();
      return 0;
    }
    const ZkToolCommand* c = zktool_find(argv[2]);
    if (!c) zk_fail_plain(zk_format("zktool: no sub-command '%s'; 'zktool help' lists them.\n", argv[2]));
    zktool_print_command_help(*c);
    return 0;
  }
  const ZkToolCommand* c = zktool_find(argv[1]);
  if (!c) zk_fail_plain(zk_format("zktool: no sub-command '%s'; 'zktool help' lists them.\n", argv[1]));
  ZkToolArgs a;
  a.cmd = c;
  for (int i = 2; i < argc; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      zktool_print_command_help(*c);
      return 0;
    }
    if (!is_option(argv[i])) {
      a.pos.push_back(argv[i]);
      continue;
    }
    const std::string name = argv[i] + 2;
    if (!allowed(*c, name)) a.fail("no option --" + name + " (" + options_taken(*c) + ")");
    if (i + 1 >= argc) a.fail("--" + name + " wants a value");
    a.opts[name] = argv[++i];
  }
  const int n = (int)a.pos.size();
  if (n < c->min_args || n > c->max_args) {
    const std::string want =
        c->min_args == c->max_args ? zk_format("%d", c->min_args) : zk_format("%d to %d", c->min_args, c->max_args);
    a.fail(zk_format("%d argument%s given, %s wanted", n, n == 1 ? "" : "s", want.c_str()));
  }
  const int r = c->run(a);
  fflush(stdout);
  return r;
}
