// The run summary: one STAR line per micrograph of the list, for culling by
// picks, scores, rejected area and time, readable by RELION and by a
// spreadsheet (one data block, one loop, strings with blanks in double
// quotes).
#pragma once
#include <string>
#include <vector>

#include "parallel/zk_parallel.h"

// What the run did with one micrograph.
enum class ZkMicStatus { Done, Skipped, Failed };

struct ZkMicSummary {
  std::string name;
  ZkMicStatus status = ZkMicStatus::Done;
  std::string reason;         // why it failed; empty otherwise
  std::vector<float> scores;  // the scores of its picks
  double rejected_share = 0;  // rejected grid cells / all cells
  double seconds = 0;
};

// The head of the file: version comment, data block, loop and labels.
std::string zavik_summary_head();
// One data line, with its line feed.
std::string zavik_summary_line(const ZkMicSummary& m);
// A word of a STAR line: as it is, or in double quotes when it is empty or
// holds blanks (a double quote inside becomes a single one).
std::string zavik_star_word(const std::string& s);
// Mean and median of the scores in double; 0 for none.
double zavik_mean(const std::vector<float>& v);
double zavik_median(std::vector<float> v);
// The whole file from the lines of every rank, in list order: written beside
// name and renamed into place when complete.
void zavik_summary_write(const char* name, const std::vector<ZkParItem>& lines);
