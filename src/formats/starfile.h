// STAR tables as the RELION workflow exchanges them.  The reader takes a
// narrow view of the format: one table per file, a head of labels numbered
// "#n", then data lines of white-space separated words.  Callers get the
// labels (StarHead), the columns of the labels the readers use
// (ParticleInfoIndex) and a way to put the stream on a data line; splitting
// and converting the data lines is their own work.
#pragma once
#include <cstdint>
#include <cstdio>

#include "core/str_utils.h"

constexpr int STAR_MAX_LABELS = 512;
constexpr int STAR_LABEL_LEN = 256;
constexpr int STAR_N_KEYWORDS = 228;

// The labels of one file, in their order of appearance.  numbers[i] is the
// column of names[i] as the file states it, counted from 1.
struct StarHead {
  int32_t n_labels;
  int32_t numbers[STAR_MAX_LABELS];
  char names[STAR_MAX_LABELS][STAR_LABEL_LEN];
};

// Every label the reader accepts, then an empty row that ends the table.
extern const char STAR_HEAD_KEYWORDS[STAR_N_KEYWORDS + 1][STAR_LABEL_LEN];

// Column numbers (from 1, 0 = absent) of the labels the readers use.
struct ParticleInfoIndex {
  int32_t Bfactor;
  int32_t MicrographName;
  int32_t ImageName;
  int32_t CoordinateX;
  int32_t CoordinateY;
  int32_t Voltage;
  int32_t PhaseShift;
  int32_t DefocusU;
  int32_t DefocusV;
  int32_t DefocusAngle;
  int32_t SphericalAberration;
  int32_t DetectorPixelSize;
  int32_t Magnification;
  int32_t AmplitudeContrast;
  int32_t CtfFigureOfMerit;
  int32_t CtfMaxResolution;
  int32_t ClassNumber;
  int32_t GroupNumber;
  int32_t RandomSubset;
  int32_t NormCorrection;
  int32_t OriginX;
  int32_t OriginY;
  int32_t AngleRot;
  int32_t AngleTilt;
  int32_t AnglePsi;
  int32_t LogLikeliContribution;
  int32_t NrOfSignificantSamples;
  int32_t MaxValueProbDistribution;
  int32_t AutopickFigureOfMerit;
};

// The values of those labels for one particle.
struct ParticleInfo {
  float Bfactor;
  char MicrographName[STAR_LABEL_LEN];
  char ImageName[STAR_LABEL_LEN];
  float CoordinateX;
  float CoordinateY;
  float Voltage;
  float PhaseShift;
  float DefocusU;
  float DefocusV;
  float DefocusAngle;
  float SphericalAberration;
  float DetectorPixelSize;
  float Magnification;
  float AmplitudeContrast;
  float CtfFigureOfMerit;
  float CtfMaxResolution;
  int32_t ClassNumber;
  int32_t GroupNumber;
  int32_t RandomSubset;
  float NormCorrection;
  float OriginX;
  float OriginY;
  float AngleRot;
  float AngleTilt;
  float AnglePsi;
  float LogLikeliContribution;
  int32_t NrOfSignificantSamples;
  float MaxValueProbDistribution;
  float AutopickFigureOfMerit;
};

// The defaults: 200 Å² B-factor, 300 kV, 20000 Å defocus, Cs 2.7 mm, ...
void particle_info_init(ParticleInfo* info);

StarHead* star_head_new();
void star_head_empty(StarHead* head);
int is_star_head_keyword(const char* word);

// Reads the head from the start of the stream; returns 0.  The stream is left
// behind the first line that is no head line: use star_set_pointer after.
int star_read_head(FILE* stream, StarHead* head);
int starf_read_head(const char* name, StarHead* head);

ParticleInfoIndex* particle_info_index_new();
void particle_info_index_init(ParticleInfoIndex* index);
int set_info_index_from_keyword_number(const char* label, int number, ParticleInfoIndex* index);
int get_info_index_from_keyword(const char* label, const ParticleInfoIndex* index);
// Zeroes index, then takes the entries of head in order: the last of two
// equal labels wins.
int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index);
int set_info_index_from_starf(const char* name, ParticleInfoIndex* index);
int starf_read_head_info_index(const char* name, StarHead* head, ParticleInfoIndex* index);

// Puts the stream at the start of data line n (from 0), or at the end of a
// shorter file (at the start of its last line when that has no line feed).
int star_set_pointer(FILE* stream, int n);
// Number of data lines.
int get_lineN_from_star(FILE* stream);
int get_lineN_from_starf(const char* name);
// True when the split words of a line belong to the head.
bool is_words_starhead(char** words, int count);

// The _rlnMicrographName word of every data line that has as many words as
// the head has labels.  Returns a new block of 1024-byte texts, text i at
// i * ZK_TXT_LEN, which the caller frees with free(); *n_found (when given)
// receives the number of texts stored.  The block holds one text per data
// line, at least one, all cleared first.
char* get_all_micrographs_from_ctfstar(const char* name, int* n_found = nullptr);

// The particle table of the CTF engine's local refinement.
void particle_star_write_head(FILE* stream);
void particle_star_write_oneline(FILE* stream, const char* name, int x, int y, float defocus_u, float defocus_v,
                                 float defocus_angle, float voltage, float cs, float ac, float magnification,
                                 float pixel_size, float ctf_fom, float autopick_fom, float phase_shift);

// The tolerant reading of a STAR file: comment lines (#) and blank lines are
// passed over, a file may hold several data_ blocks and loop_ tables, and a
// label may stand with or without "#n"; a label's column is its place in its
// table, as in every STAR file.  Finds the first loop_ table whose labels
// include every one of want[0 .. n_required - 1]; columns[k] then receives
// the column (from 1, 0 = absent) of want[k] for all n_want labels,
// *n_columns the number of labels of the table, *data_pos the position of the
// line after its last label, and table_name (1024 bytes) the name of its
// data_ block.  Returns 0, or -1 when no table holds the required labels.
int star_find_loop_table(FILE* stream, const char* const* want, int n_want, int n_required, int* columns,
                         int* n_columns, long* data_pos, char* table_name);
// Reads the next row of the table found above into line and splits it into
// at most max words.  Blank and comment lines are passed over.  Returns the
// number of words, or -1 at the end of the table (a data_, loop_ or label
// line, or the end of the file).
int star_read_loop_row(FILE* stream, char* line, char** words, int max);
