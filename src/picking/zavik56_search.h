// Rotational correlation search: for one template and one prepared
// micrograph, the best score over in-plane rotations at every pixel and the
// angle that gave it.
#pragma once

// All arrays on the device, images of nx by ny.  The score at (x, y) is the
// correlation of the template rotated by the best angle, its pixel
// (nx/2 - ox, ny/2 - oy) placed on (x, y), with ox = (nx - Tx)/2 and
// oy = (ny - Ty)/2, divided by D = sqrt(sum T^2 * pi R^2 * sum(mic^2 mask) /
// sum mask).  Angles from psi0 in steps of dpsi while below psi1.  psi may be
// null when do_psi is 0.  Prints one "." per angle and a line feed.
int zavik_ccmax_psi_by_one_template(const float* mic, const float* mask, float* ccmax, float* psi, int do_psi, int nx,
                                    int ny, const float* T, int Tx, int Ty, float R, float psi0, float psi1,
                                    float dpsi);
int zavik_ccmax_by_one_template(const float* mic, const float* mask, float* ccmax, int nx, int ny, const float* T,
                                int Tx, int Ty, float R, float psi0, float psi1, float dpsi);

// ccmax = cc where ccmax < cc (strictly: at equal scores the earlier angle
// stays, and a NaN replaces nothing), psi taking the angle with it.
void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, float angle, int nx, int ny);
void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int nx, int ny);
// ccmax = other where ccmax < other, psi taking other_psi with it: merges the
// maxima of later angles.
void hcuda_update_ccmax_psi_2d_map(float* ccmax, const float* other, float* psi, const float* other_psi, int nx,
                                   int ny);

// noise = -ccmin where that is larger: the sign-turned minima of several
// templates gathered as the scores are.
void hcuda_update_noise_max_2d(float* noise, const float* ccmin, int nx, int ny);

// The score's divisor D from sum T^2, sum(mic^2 mask), sum mask and the
// template radius R, in the order the search uses.
float zavik_score_divisor(float sum_T2, float sum_mic2_mask, float sum_mask, float R);

// The search of a whole run.  What does not depend on the micrograph is done
// once: the angles, the FFT plans, sum T^2 of each template and, while memory
// allows, the spectrum of every template at every angle.  Per micrograph the
// spectrum of the image and the sums of the divisor are made once for all
// templates.  On the host the angles are shared out over the cores, on the
// GPU they are transformed in batches.  Every score and angle comes out with
// the same bits as zavik_ccmax_psi_by_one_template.
struct ZkSearchOptions {
  bool keep_spectra = true;  // the template spectra of all angles, while memory allows
  int host_threads = 0;      // 0: all host cores
  int gpu_batch = 16;        // angles transformed together on the GPU
  double memory_share = 0.5;  // of the free memory, at most, for the kept spectra
};
struct ZkSearchBank;

// d_T holds Nt templates of Tx by Ty on the device, at t*Tx*Ty; it must stay
// unchanged while the bank lives.
ZkSearchBank* zavik_search_bank_create(const float* d_T, int Nt, int Tx, int Ty, int nx, int ny, float R, float psi0,
                                       float psi1, float dpsi, const ZkSearchOptions& options);
// The micrograph and mask of the following searches (device arrays of nx by ny).
void zavik_search_bank_set_micrograph(ZkSearchBank* bank, const float* mic, const float* mask);
// The search of template t on the micrograph set last; as
// zavik_ccmax_psi_by_one_template, dots included.  With ccmin (a device array
// of nx by ny, or null) the smallest correlation over the angles comes too,
// placed and divided like the scores.  Noise reaches as deep below zero as it
// reaches above, while dark particles raise only the maxima, so the minima
// tell how high noise alone lets a score go.
void zavik_search_bank_run(ZkSearchBank* bank, int t, float* ccmax, float* psi, int do_psi, float* ccmin = nullptr);
// How many templates have their spectra kept.
int zavik_search_bank_kept(const ZkSearchBank* bank);
void zavik_search_bank_destroy(ZkSearchBank* bank);
