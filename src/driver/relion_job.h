// The picker and the CTF engine as RELION External jobs.  RELION calls a
// job's program with --o <job folder>, --in_mics <micrographs STAR file> and
// the job's own options as --word value.  Every result goes into the job
// folder under the micrograph's own relative path (less its leading
// "<Type>/jobNNN/"), which is where RELION's later jobs look for it;
// RELION_OUTPUT_NODES.star names the output nodes, and RELION_JOB_EXIT_SUCCESS
// or RELION_JOB_EXIT_FAILURE marks the end.
//
// The programs run on links: each micrograph is linked into the job folder at
// its result's place, the run takes the links, so that every output lands
// beside them, and the links go again at the end.  One run is made per optics
// group, with the group's pixel size (and, for the CTF engine, its voltage,
// Cs and amplitude contrast) unless the job's options give them.
#pragma once
#include <string>
#include <vector>

struct ZkRelionJob {
  std::string out_dir;               // --o, with a closing '/'
  std::string in_mics;               // --in_mics
  std::string control_dir;           // --pipeline_control when given, else out_dir: the exit marker's folder
  std::vector<std::string> options;  // the job's own words, for the program
};

// The job's arguments.  --o and --in_mics are required; --j and RELION's other
// inputs (--in_movies, --in_parts, --in_coords, --in_3dref, --in_mask) are
// taken with their values and not used.
ZkRelionJob relion_job_arguments(int argc, char** argv);

// Where RELION looks for the result of micrograph mic: out_dir and the name
// without its leading "<Type>/jobNNN/" (a name without one is taken whole, an
// absolute one too).  A name with a ".." part, which would lead out of the
// job folder, throws the fatal report.
std::string relion_job_result_name(const std::string& out_dir, const std::string& mic);

// The jobs, each ending with RELION_JOB_EXIT_SUCCESS; returns 0.  An empty
// command line or a first word --help prints the usage instead.  A failure is
// thrown as its report, for the program to print and to mark with
// relion_job_mark_failure.  The picker leaves "<name>_zavik.star" per micrograph and the node
// "coords_suffix_zavik.star" (coordinates, type 2), which holds the name of
// the input list; the CTF engine leaves its files per micrograph and the node
// "micrographs_ctf.star" (micrographs, type 1): the optics table of the input
// and its micrographs table with the CTF values, micrographs without them left
// out.
int zavik_relion_job(int argc, char** argv);
int kesmar_relion_job(int argc, char** argv);
// RELION_JOB_EXIT_FAILURE in the folder of --pipeline_control or --o, when the
// command line names one.
void relion_job_mark_failure(int argc, char** argv);
