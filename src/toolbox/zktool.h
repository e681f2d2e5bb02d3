// zktool: the file-level image, stack and map operations of the library as
// one program with sub-commands.  Arguments are file names and numbers in
// the order of the library operation; named options (--name value) where
// that is clearer.  Failures are thrown as ZkError for the program's entry to
// print; no sub-command waits for a key.
#pragma once
#include <map>
#include <string>
#include <vector>

struct ZkToolArgs;

struct ZkToolCommand {
  const char* name;
  const char* group;    // the heading it is listed under
  const char* args;     // "IN OUT PSI"
  const char* purpose;  // one line
  const char* details;  // what it does and what the arguments mean
  const char* options;  // "--dir D  ..." lines, or ""
  const char* allowed;  // option names taken, separated by spaces
  const char* example;
  int min_args, max_args;
  int (*run)(const ZkToolArgs& a);
};

// The positional words and options of one call, with checked conversions.
// A word that is not a number where one is wanted, or an option out of
// range, throws a report that names the sub-command and shows its usage.
struct ZkToolArgs {
  const ZkToolCommand* cmd = nullptr;
  std::vector<std::string> pos;
  std::map<std::string, std::string> opts;

  const char* file(int i) const { return pos[i].c_str(); }
  float num(int i) const;
  int integer(int i) const;
  bool has(const char* name) const { return opts.count(name) > 0; }
  const char* opt(const char* name, const char* fallback) const;
  float opt_num(const char* name, float fallback) const;
  int opt_int(const char* name, int fallback) const;
  // Throws "zktool <name>: <why>" and the usage line.
  [[noreturn]] void fail(const std::string& why) const;
};

// Every sub-command, in the order of the help.
const std::vector<ZkToolCommand>& zktool_commands();
const ZkToolCommand* zktool_find(const std::string& name);

// "zktool help": every sub-command with its purpose, by group.
void zktool_print_help();
// "zktool help <name>": usage, details, options and an example.
void zktool_print_command_help(const ZkToolCommand& c);

// The whole program: 0 on success; failures are thrown.
int zktool_main(int argc, char** argv);
