// Text helpers: 1024-byte name buffers, option words, splitting of lines and the
// builders of output names.
#pragma once
#include <cstddef>

// Every name or text line is a zero-terminated buffer of this many bytes.
constexpr int ZK_TXT_LEN = 1024;

// Clears the 1024 bytes of dst, copies src (at most 1023 characters) and
// returns the length copied.
size_t strlcpy(char* dst, const char* src);
// Clear 1024 bytes.
int empty_txt_line(char* line);
void strlempty(char* line);

// 1 when word is "-keyword" or "--keyword", in any letter case.
int keywd_cmp(const char* word, const char* keyword);
// 1 for "-h", "--h", "-help", "--help" in any letter case.
int is_keywd_help(const char* word);
// Value of the switch at argv[i]; may consume the next word (i grows by 1).
void get_bool_keyword(int argc, char** argv, int& value, int& i);
// 1 for "NULL" or "NONE" in any letter case, an empty text, or a text that
// begins with a line feed.
int is_str_null(const char* text);

// Cuts text in place at any character of delimiters; up to max words.
int strnsplit_inplace(char* text, const char* delimiters, char** words, int max);
// The same at blank, tab, line feed, carriage return, vertical tab, form feed.
int strnsplit_inplace_byspace(char* text, char** words, int max);

// Length of a ".mrc" (4) or ".mrcs" (5) ending, case respected; else 0.
int get_micrograph_suffixn(const char* name);
// Length of suffix when name is longer than suffix and ends in it; else 0.
int get_file_suffixn(const char* name, const char* suffix);
// out = mic less its micrograph suffix, then suffix.
int set_outname_by_suffix(char* out, const char* mic, const char* suffix);
// The same with "_nonunique.box"; shrink plays no part in the name.
int set_name_shrinked_box(char* out, const char* mic, int shrink);
// out = mic less its micrograph suffix, then text, then the suffix again.
int set_outname_by_insertion(char* out, const char* mic, const char* text);
// out = name less old_suffix, then new_suffix.
int replace_file_suffix(char* out, const char* new_suffix, const char* name, const char* old_suffix);

// The leading-number rule of atoi and atof, without their undefined results:
// a value beyond the int range is clamped to it.
int zk_atoi(const char* word);
float zk_atof(const char* word);
