#include "parallel/zk_parallel.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(ZAVIK_MPI)
#include <mpi.h>
#endif

namespace {

bool g_joined = false;  // MPI_Init was called by this process
int g_rank = 0, g_size = 1, g_local = 0;
std::string g_current;

// A launcher leaves its mark in the environment of every process it starts:
// Open MPI's mpirun, PMIx (srun --mpi=pmix) or PMI (srun --mpi=pmi2, Hydra).
// A process without it runs alone and never touches MPI.
bool started_by_launcher() {
  for (const char* v : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK", "PMI_SIZE"})
    if (getenv(v)) return true;
  return false;
}

void sort_by_index(std::vector<ZkParItem>& items) {
  std::stable_sort(items.begin(), items.end(),
                   [](const ZkParItem& a, const ZkParItem& b) { return a.index < b.index; });
}

#if defined(ZAVIK_MPI)
// Items as bytes: index, length, text, each item after the other.
std::vector<char> pack(const std::vector<ZkParItem>& items) {
  std::vector<char> out;
  for (const ZkParItem& it : items) {
    const int head[2] = {it.index, (int)it.text.size()};
    const char* h = (const char*)head;
    out.insert(out.end(), h, h + sizeof head);
    out.insert(out.end(), it.text.begin(), it.text.end());
  }
  return out;
}

void unpack(const char* p, size_t n, std::vector<ZkParItem>& items) {
  size_t at = 0;
  while (at + 2 * sizeof(int) <= n) {
    int head[2];
    memcpy(head, p + at, sizeof head);
    at += sizeof head;
    items.push_back({head[0], std::string(p + at, (size_t)head[1])});
    at += (size_t)head[1];
  }
}
#endif

// Standard output or error with the rank's tag at the start of every line.
struct Tagger {
  int fd;
  bool at_start;
  std::string tag;
};

ssize_t tagged_write(void* cookie, const char* buf, size_t n) {
  Tagger* t = (Tagger*)cookie;
  std::string out;
  out.reserve(n + t->tag.size() * 4);
  for (size_t i = 0; i < n; ++i) {
    if (t->at_start) out += t->tag;
    t->at_start = buf[i] == '\n';
    out.push_back(buf[i]);
  }
  size_t done = 0;
  while (done < out.size()) {
    const ssize_t w = write(t->fd, out.data() + done, out.size() - done);
    if (w < 0) return -1;
    done += (size_t)w;
  }
  return (ssize_t)n;
}

FILE* tagged_stream(int fd, const std::string& tag) {
  cookie_io_functions_t io = {nullptr, tagged_write, nullptr, nullptr};
  // Lives as long as the process, as the stream it replaces does.
  return fopencookie(new Tagger{fd, true, tag}, "w", io);
}

}  // namespace

bool zk_par_compiled() {
#if defined(ZAVIK_MPI)
  return true;
#else
  return false;
#endif
}

void zk_par_init(int* argc, char*** argv) {
#if defined(ZAVIK_MPI)
  if (g_joined || !started_by_launcher()) return;
  int provided = 0;
  // Only the main thread talks to MPI; the prefetch and OpenMP threads never do.
  MPI_Init_thread(argc, argv, MPI_THREAD_FUNNELED, &provided);
  g_joined = true;
  MPI_Comm_rank(MPI_COMM_WORLD, &g_rank);
  MPI_Comm_size(MPI_COMM_WORLD, &g_size);
  MPI_Comm node;
  MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, g_rank, MPI_INFO_NULL, &node);
  MPI_Comm_rank(node, &g_local);
  MPI_Comm_free(&node);
#else
  (void)argc;
  (void)argv;
  (void)started_by_launcher;
#endif
}

void zk_par_finalize() {
#if defined(ZAVIK_MPI)
  if (!g_joined) return;
  fflush(stdout);
  fflush(stderr);
  MPI_Finalize();
  g_joined = false;
#endif
}

void zk_par_abort(int status) {
  fflush(stdout);
  fflush(stderr);
#if defined(ZAVIK_MPI)
  if (g_joined && g_size > 1) MPI_Abort(MPI_COMM_WORLD, status);
#endif
  (void)status;
}

int zk_par_rank() { return g_rank; }
int zk_par_size() { return g_size; }
int zk_par_local_rank() { return g_local; }

void zk_par_barrier() {
#if defined(ZAVIK_MPI)
  if (g_joined) MPI_Barrier(MPI_COMM_WORLD);
#endif
}

std::vector<ZkParItem> zk_par_gather(const std::vector<ZkParItem>& mine) {
  std::vector<ZkParItem> all;
#if defined(ZAVIK_MPI)
  if (g_joined && g_size > 1) {
    const std::vector<char> bytes = pack(mine);
    const int n = (int)bytes.size();
    std::vector<int> counts(g_rank == 0 ? g_size : 0), displs(g_rank == 0 ? g_size : 0);
    MPI_Gather(&n, 1, MPI_INT, counts.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
    std::vector<char> got;
    if (g_rank == 0) {
      long long total = 0;
      for (int r = 0; r < g_size; ++r) {
        displs[r] = (int)total;
        total += counts[r];
      }
      got.resize((size_t)total);
    }
    MPI_Gatherv(bytes.data(), n, MPI_CHAR, got.data(), counts.data(), displs.data(), MPI_CHAR, 0, MPI_COMM_WORLD);
    if (g_rank == 0) unpack(got.data(), got.size(), all);
    sort_by_index(all);
    return all;
  }
#endif
  all = mine;
  sort_by_index(all);
  return all;
}

long long zk_par_sum(long long mine) {
#if defined(ZAVIK_MPI)
  if (g_joined && g_size > 1) {
    long long sum = 0;
    MPI_Allreduce(&mine, &sum, 1, MPI_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
    return sum;
  }
#endif
  return mine;
}

void zk_par_set_current(const char* what) { g_current = what ? what : ""; }
const std::string& zk_par_current() { return g_current; }

std::string zk_par_failure_line() {
  char line[2048];
  if (g_current.empty())
    snprintf(line, sizeof line, "Rank %d of %d failed with no micrograph in hand; the job ends with status 1.\n",
             g_rank, g_size);
  else
    snprintf(line, sizeof line, "Rank %d of %d failed on micrograph %s; the job ends with status 1.\n", g_rank, g_size,
             g_current.c_str());
  return line;
}

void zk_par_tag_output() {
  const std::string tag = "[rank " + std::to_string(g_rank) + "] ";
  fflush(stdout);
  fflush(stderr);
  FILE* out = tagged_stream(STDOUT_FILENO, tag);
  FILE* err = tagged_stream(STDERR_FILENO, tag);
  if (!out || !err) return;
  // Whole lines reach the launcher, so that the ranks' lines do not mix.
  setvbuf(out, nullptr, _IOLBF, 1 << 16);
  setvbuf(err, nullptr, _IONBF, 0);
  stdout = out;
  stderr = err;
}
