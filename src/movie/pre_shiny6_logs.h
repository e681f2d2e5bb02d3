// The text logs that feed the frame weights, and their writers.
//
// A line is split at blanks, tabs, line feeds, carriage returns and the
// characters # : , ; and its first word is the frame (or radius) number,
// counted from 0, which must run in step with the reader.  So a line that
// begins with "#" still counts: its first word is the text behind the "#".
//
//   dose/drift log  (at least 4 words)  frame, dose, drift x, drift y
//   drift log       (at least 3 words)  frame, drift x, drift y
//   CTF weight log  (at least 3 words)  radius, a value not read (the frequency), weight
//
// A line with too few words is passed over (the CTF weight reader warns).
// The readers stop after n entries without reading the rest of the file.
// They return 0, or -1 after a warning when the file ends early or a number
// is out of step; a file that does not open throws its report.
#pragma once
#include "core/hd.h"

// n entries of dose and drift; n below 3 throws "Critical ERROR! Too few
// Movie frames!".
int get_dose_smoothed_drift_from_txt(float* dose, float2* drift, int n, const char* name);
// n entries of drift, each line echoed for checking; n below 3 throws as above.
int get_drift_from_txt(float2* drift, int n, const char* name);
// n entries of the CTF weight, all set to 0.0 first: entries that a short
// file does not reach stay 0.0.
int get_ctfw_from_txt(float* ctfw, int n, const char* name);

// Writers of logs the readers take back (one line a frame or radius, no
// head), beside their final name and renamed into place when complete.
int write_dose_drift_txt(const char* name, const float* dose, const float2* drift, int n);
// s: the frequency of each radius (1/A), written for the reader's eye only.
int write_ctfw_txt(const char* name, const float* s, const float* ctfw, int n);
