#include "formats/safe_output.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "core/report.h"

namespace {

// Temporary files still open; removed if the process ends through a call of exit
// or a stop signal before their records are gone.
constexpr int kMaxOpen = 64;
char g_open[kMaxOpen][ZK_TXT_LEN + 32];
bool g_hooked = false;

void remove_open_files() {
  for (int i = 0; i < kMaxOpen; ++i)
    if (g_open[i][0]) {
      remove(g_open[i]);
      g_open[i][0] = '\0';
    }
}

// A run stopped by Ctrl-C or by the batch system's TERM leaves no temporary
// file either: the handler removes them (unlink is safe in a handler) and
// lets the signal end the process as it would have.
void on_stop_signal(int sig) {
  for (int i = 0; i < kMaxOpen; ++i)
    if (g_open[i][0]) unlink(g_open[i]);
  signal(sig, SIG_DFL);
  raise(sig);
}

void track(const char* tmp) {
  if (!g_hooked) {
    atexit(remove_open_files);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
      if (signal(sig, on_stop_signal) == SIG_IGN) signal(sig, SIG_IGN);  // keep what the shell ignored
    g_hooked = true;
  }
  for (int i = 0; i < kMaxOpen; ++i)
    if (!g_open[i][0]) {
      snprintf(g_open[i], sizeof g_open[i], "%s", tmp);
      return;
    }
}

void untrack(const char* tmp) {
  for (int i = 0; i < kMaxOpen; ++i)
    if (g_open[i][0] && strcmp(g_open[i], tmp) == 0) g_open[i][0] = '\0';
}

[[noreturn]] void write_failed(ZkOutFile& out, const char* func, int line) {
  zk_fatal_after(zk_format("Cannot write to file %s. Permission denied or no space left!\n", out.final_name), func,
                 zk_basename(__FILE__), line, "open file failed.");
}

}  // namespace

FILE* zk_out_try_open(ZkOutFile& out, const char* name) {
  strlcpy(out.final_name, name);
  snprintf(out.tmp_name, sizeof out.tmp_name, "%s.part%ld", name, (long)getpid());
  out.fp = fopen(out.tmp_name, "w+");
  if (out.fp) track(out.tmp_name);
  return out.fp;
}

FILE* zk_out_open(ZkOutFile& out, const char* name) {
  if (!zk_out_try_open(out, name)) write_failed(out, __func__, __LINE__);
  return out.fp;
}

void zk_out_commit(ZkOutFile& out) {
  bool ok = out.fp && fflush(out.fp) == 0 && !ferror(out.fp);
  if (out.fp && fclose(out.fp) != 0) ok = false;
  out.fp = nullptr;
  if (ok && rename(out.tmp_name, out.final_name) != 0) ok = false;
  if (!ok) {
    remove(out.tmp_name);
    untrack(out.tmp_name);
    write_failed(out, __func__, __LINE__);
  }
  untrack(out.tmp_name);
}

void zk_out_abandon(ZkOutFile& out) {
  if (out.fp) fclose(out.fp);
  out.fp = nullptr;
  remove(out.tmp_name);
  untrack(out.tmp_name);
}
