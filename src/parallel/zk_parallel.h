// The ranks of a job that mpirun (or srun) started: which one this process
// is, how many there are, and the few exchanges that the programs need.
//
// MPI lives in this unit alone.  Without MPI in the build, or in a process
// that no launcher started, the job is one rank and every call is trivial,
// so that a plain run stays exactly what it is without the launcher.
#pragma once
#include <string>
#include <vector>

// True when the build holds MPI.
bool zk_par_compiled();

// Joins the job when a launcher started this process (MPI_Init); else
// nothing.  Called first thing by a program's main, with its arguments.
void zk_par_init(int* argc, char*** argv);
// Leaves the job (MPI_Finalize) after a normal end; nothing for one rank.
void zk_par_finalize();
// Ends every rank of the job with status; only a program's main calls it,
// after its report is printed.  One rank alone just returns.
void zk_par_abort(int status);

int zk_par_rank();        // 0 .. size - 1
int zk_par_size();        // 1 without a launcher
int zk_par_local_rank();  // rank among the ranks of this node

// The fixed share of a list: item i belongs to rank i mod size.
inline bool zk_par_mine(int i) { return i % zk_par_size() == zk_par_rank(); }
// The first item of this rank's share, and the step to its next one.
inline int zk_par_first() { return zk_par_rank(); }
inline int zk_par_stride() { return zk_par_size(); }

// Waits for every rank.
void zk_par_barrier();

// One line of a result list, with its place in the list of micrographs.
struct ZkParItem {
  int index;
  std::string text;
};
// Every rank's items arrive at rank 0, ordered by index; items of equal
// index keep the order of their ranks, then their order on the rank.  Other
// ranks get an empty list.  One rank gets its own items, ordered the same.
std::vector<ZkParItem> zk_par_gather(const std::vector<ZkParItem>& mine);
// The sum of every rank's value, on every rank.
long long zk_par_sum(long long mine);

// The micrograph this rank works on, for the report of a failure that ends
// the job; empty before the first.
void zk_par_set_current(const char* what);
const std::string& zk_par_current();
// The line that a program prints when a rank's failure ends the job.
std::string zk_par_failure_line();

// Puts "[rank r] " before every line that this process writes to standard
// output and standard error from now on.
void zk_par_tag_output();
