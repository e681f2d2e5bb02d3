// The automatic score cutoff of a micrograph, by targets and decoys.
//
// Noise reaches as far below zero as above it, while dark particles raise
// only the maxima of the scores.  The sign-turned minima of the search are
// therefore a picture of what noise alone scores, and the candidates taken
// from that picture by the very steps that give the real candidates (peak
// grid, competition, box filter) are decoys: noise candidates with no
// particle among them.  Their bulk is fitted by a Gumbel distribution,
// robustly from its quartiles, so that a few deep minima (at a halo of
// contamination or a carbon edge) do not move it.  The share pi0 of noise
// among the real candidates is the ratio of real to decoy candidates below
// the decoys' median.  For a cutoff t the expected noise candidates above it
// are pi0 * decoys * S(t), and the cutoff is the lowest candidate score at
// which they are at most fdr of the candidates above it.
#pragma once

// Location mu and scale beta of the Gumbel distribution of the samples, from
// their median and quartiles: q1 = mu - beta ln ln 4, median = mu - beta ln ln 2,
// q3 = mu - beta ln ln 4/3.  n >= 1.
void zavik_gumbel_from_quartiles(const float* samples, int n, double& mu, double& beta);

// The cutoff from the decoys' and the candidates' scores; +infinity when no
// candidate stands out of the noise, and the lowest score less one (all
// candidates kept) when there are no decoys at all.
float zavik_auto_cutoff(const float* decoys, int n_decoys, const float* scores, int n_scores, float fdr = 0.02f);
