// Small helpers shared by the tests.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// Death tests see only stderr; the system reports on stdout.  Put this first
// in the statement of an EXPECT_EXIT so the report can be matched.
#define ZK_STDOUT_TO_STDERR()           \
  do {                                  \
    fflush(stdout);                     \
    dup2(fileno(stderr), fileno(stdout)); \
  } while (0)

// A fresh directory under /tmp, removed when the object goes.
struct ZkTmpDir {
  std::string path;
  ZkTmpDir() {
    char templ[] = "/tmp/zk_test_XXXXXX";
    path = mkdtemp(templ);
  }
  ~ZkTmpDir() {
    std::string cmd = "rm -rf '" + path + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path.c_str());
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline bool zk_exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

inline std::string zk_slurp(const std::string& p) {
  std::string s;
  FILE* f = fopen(p.c_str(), "rb");
  if (!f) return s;
  int c;
  while ((c = fgetc(f)) != EOF) s.push_back((char)c);
  fclose(f);
  return s;
}

// Runs a shell command; returns its exit status and fills out with what it
// printed on stdout and stderr together.
inline int zk_run(const std::string& cmd, std::string* out) {
  std::string full = cmd + " 2>&1";
  FILE* p = popen(full.c_str(), "r");
  if (!p) return -1;
  char buf[4096];
  size_t n;
  if (out) out->clear();
  while ((n = fread(buf, 1, sizeof buf, p)) > 0)
    if (out) out->append(buf, n);
  int st = pclose(p);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// Root passes every permission test: tests of unreadable files skip then.
inline bool zk_running_as_root() { return geteuid() == 0; }
