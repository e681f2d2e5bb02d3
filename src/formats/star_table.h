// Whole STAR tables in memory, for files that are read and written again as
// tables: RELION 3.1's micrograph lists, with an optics table and a
// micrographs table, each a data_ block with one loop_.  Values are words;
// a word in single or double quotes may hold blanks, and is kept with its
// quotes so that it is written back as it was read.
#pragma once
#include <cstdio>
#include <string>
#include <vector>

struct ZkStarTable {
  std::string name;                 // of its data_ block, without "data_"
  std::vector<std::string> labels;  // with their leading '_', without "#n"
  std::vector<std::vector<std::string>> rows;

  // Column of label (from 0), or -1.
  int column(const char* label) const;
};

// Every loop_ table of the file, in order.  Comments, blank lines and the
// single values of a block (a label and its value outside a loop) are passed
// over.  A row with another number of words than its table has labels throws
// the fatal report naming the file and line; a file that does not open throws
// its report.
std::vector<ZkStarTable> starf_read_tables(const char* name);
// The table named name, or the first one that has the label, or null.
const ZkStarTable* star_find_table(const std::vector<ZkStarTable>& tables, const char* name, const char* label);

// A table as RELION 3.1 writes one: the version comment, "data_<name>",
// "loop_", the labels numbered from 1, then a line per row.
void star_write_table(FILE* fp, const ZkStarTable& table);
