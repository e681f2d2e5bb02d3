// kesmar_more: per-particle defocus, validation and per-frame defocus of
// micrographs that a kesmar run has finished, from the command line.
//
//   kesmar_more local    [options] <micrographs>   "<mic>_local.star", "<mic>_local.log" [, "<mic>_local.ctf"]
//   kesmar_more validate [options] <micrographs>   "<mic>_validation.log"
//   kesmar_more frames   [options] <movies>        "<mic>_frames.log"
//
// Each micrograph's CTF is its line in the kesmar summary (--ctfstar).  A
// micrograph without a result, one that cannot be read, a box file that is
// missing, empty or has particles outside the micrograph, or a movie of one
// frame is named with the reason and skipped; its outputs are not written.
#pragma once

// The whole command line.  Returns 0 when at least one micrograph was done,
// 1 when none was; a bad command line or a failed write is thrown.
int kesmar_more_main(int argc, char** argv);
