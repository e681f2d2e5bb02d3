#include "formats/star_table.h"

#include <cctype>
#include <cstring>

#include "core/report.h"

namespace {

// Words of a line up to a comment; a quoted word runs to the closing quote
// that ends a word.
std::vector<std::string> split_words(const std::string& line) {
  std::vector<std::string> words;
  size_t i = 0;
  const size_t n = line.size();
  while (i < n) {
    while (i < n && isspace((unsigned char)line[i])) ++i;
    if (i >= n || line[i] == '#') break;
    size_t j = i;
    if (line[i] == '\'' || line[i] == '"') {
      const char q = line[i];
      j = i + 1;
      while (j < n && !(line[j] == q && (j + 1 == n || isspace((unsigned char)line[j + 1])))) ++j;
      if (j < n) ++j;
    } else {
      while (j < n && !isspace((unsigned char)line[j])) ++j;
    }
    words.push_back(line.substr(i, j - i));
    i = j;
  }
  return words;
}

bool read_line(FILE* fp, std::string& line) {
  line.clear();
  int c;
  while ((c = fgetc(fp)) != EOF && c != '\n') line.push_back((char)c);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return c != EOF || !line.empty();
}

}  // namespace

int ZkStarTable::column(const char* label) const {
  for (size_t k = 0; k < labels.size(); ++k)
    if (labels[k] == label) return (int)k;
  return -1;
}

std::vector<ZkStarTable> starf_read_tables(const char* name) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  std::vector<ZkStarTable> tables;
  std::string block, line;
  // In a loop_: reading its labels, then its rows; outside: neither.
  enum { OUTSIDE, LABELS, ROWS } state = OUTSIDE;
  for (int number = 1; read_line(fp.get(), line); ++number) {
    const std::vector<std::string> w = split_words(line);
    if (w.empty()) continue;
    if (w[0].compare(0, 5, "data_") == 0) {
      block = w[0].substr(5);
      state = OUTSIDE;
    } else if (w[0] == "loop_") {
      tables.push_back(ZkStarTable());
      tables.back().name = block;
      state = LABELS;
    } else if (w[0][0] == '_') {
      if (state == LABELS)
        tables.back().labels.push_back(w[0]);
      else
        state = OUTSIDE;  // a single value of the block, or a label after the rows
    } else if (state != OUTSIDE) {
      ZkStarTable& t = tables.back();
      if (w.size() != t.labels.size())
        ZK_FATAL(zk_format("line %d of %s has %zu values for the %zu labels of its table", number, name, w.size(),
                           t.labels.size())
                     .c_str());
      t.rows.push_back(w);
      state = ROWS;
    }
  }
  return tables;
}

const ZkStarTable* star_find_table(const std::vector<ZkStarTable>& tables, const char* name, const char* label) {
  for (const ZkStarTable& t : tables)
    if (t.name == name) return &t;
  for (const ZkStarTable& t : tables)
    if (t.column(label) >= 0) return &t;
  return nullptr;
}

void star_write_table(FILE* fp, const ZkStarTable& table) {
  fprintf(fp, "\n# version 30001\n\ndata_%s\n\nloop_ \n", table.name.c_str());
  for (size_t k = 0; k < table.labels.size(); ++k) fprintf(fp, "%s #%zu \n", table.labels[k].c_str(), k + 1);
  for (const std::vector<std::string>& row : table.rows) {
    for (size_t k = 0; k < row.size(); ++k) fprintf(fp, k ? " %s" : "%s", row[k].c_str());
    fputc('\n', fp);
  }
  fputs(" \n", fp);
}
