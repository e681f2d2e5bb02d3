// Small helpers shared by the tests.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

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
inline bool zk_has(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

// Writes text (any bytes) to p, replacing what stood there.
inline void zk_put(const std::string& p, const std::string& text) {
  FILE* f = fopen(p.c_str(), "wb");
  if (!f) return;
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

// n values uniform in [lo, hi), or normal, from a fixed seed.
inline std::vector<float> zk_uniform(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}
inline std::vector<float> zk_normal(size_t n, unsigned seed, float mean = 0.0f, float sd = 1.0f) {
  std::mt19937 g(seed);
  std::normal_distribution<float> u(mean, sd);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

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

// The names in folder dir, one a line, dot files included.
inline std::string zk_listing(const std::string& dir) {
  std::string out;
  zk_run("ls -A '" + dir + "'", &out);
  return out;
}

// Runs a program of this build in folder dir.  Its threads sleep between the
// many short loops, so that a loaded test machine does not stall them.
inline int zk_run_in(const std::string& dir, const std::string& program, const std::string& args, std::string* out) {
  return zk_run("cd '" + dir + "' && OMP_WAIT_POLICY=passive " + program + " " + args, out);
}

// Root passes every permission test: tests of unreadable files skip then.
inline bool zk_running_as_root() { return geteuid() == 0; }

// Owns an argv built from words; argv[0] is the program name.
struct ZkArgs {
  std::vector<std::string> words;
  std::vector<char*> ptrs;
  ZkArgs(const char* program, std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), program);
    for (auto& s : words) ptrs.push_back(&s[0]);
    ptrs.push_back(nullptr);
  }
  int argc() const { return (int)words.size(); }
  char** argv() { return ptrs.data(); }
};

// What a call that fails shows the user: what it printed, then the report of
// the ZkError it threw, as the program's entry prints them.
#include <gtest/gtest.h>

#include <regex.h>

#include "core/report.h"

struct ZkOutcome {
  bool threw = false;
  int status = 0;
  std::string text;
};

template <class F>
ZkOutcome zk_outcome(F&& f) {
  ZkOutcome r;
  testing::internal::CaptureStdout();
  try {
    f();
  } catch (const ZkError& e) {
    r.threw = true;
    r.status = e.status();
    r.text = zk_error_text(e);
  }
  r.text = testing::internal::GetCapturedStdout() + r.text;
  return r;
}

// What f printed on standard output.
template <class F>
std::string zk_stdout(F&& f) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// A POSIX extended regex found somewhere in text, as death tests match.
inline bool zk_matches(const std::string& text, const std::string& regex) {
  regex_t re;
  if (regcomp(&re, regex.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  const bool found = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&re);
  return found;
}

// The statements throw a report with status 1 whose text matches regex.
#define EXPECT_FAILS(regex, ...)                                                 \
  do {                                                                           \
    const ZkOutcome o_ = zk_outcome([&]() { __VA_ARGS__; });                     \
    EXPECT_TRUE(o_.threw) << "no failure reported:\n" << o_.text;                \
    EXPECT_EQ(o_.status, 1);                                                     \
    EXPECT_TRUE(zk_matches(o_.text, regex)) << "report:\n" << o_.text;           \
  } while (0)
