// What the picker says about itself: banner, usage, the list of option words,
// and the tips.  Everything goes to standard output.
#pragma once

extern const char* const zavik_version;
extern const char* const zavik_updated_date;

constexpr int ZAVIK_N_OPTIONS = 38;
constexpr int ZAVIK_N_TIPS = 9;
// Option words printed for an unrecognised option.
extern const char* const ZAVIK_OPTIONS[ZAVIK_N_OPTIONS];
// Tips; the last entry is empty.
extern const char* const ZAVIK_ALL_TIPS[ZAVIK_N_TIPS];

void zavik_put_info(const char* prog);
void zavik_help(const char* prog);
void zavik_help_full(const char* prog);
// Usage, then throws the fatal report with reason.
[[noreturn]] void zavik_help_exit(const char* prog, const char* reason);
void zavik_print_valid_options();
void zavik_put_all_tips();
void zavik_put_one_random_tip();
