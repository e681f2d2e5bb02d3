#include "formats/starfile.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/report.h"
#include "core/txt_file.h"

const char STAR_HEAD_KEYWORDS[STAR_N_KEYWORDS + 1][STAR_LABEL_LEN] = {
    "_rlnComment",
    "_rlnAreaId",
    "_rlnAreaName",
    "_rlnBfactor",
    "_rlnCtfScalefactor",
    "_rlnVoltage",
    "_rlnPhaseShift",
    "_rlnDefocusU",
    "_rlnDefocusV",
    "_rlnDefocusAngle",
    "_rlnSphericalAberration",
    "_rlnChromaticAberration",
    "_rlnDetectorPixelSize",
    "_rlnEnergyLoss",
    "_rlnCtfFigureOfMerit",
    "_rlnCtfImage",
    "_rlnLensStability",
    "_rlnMagnification",
    "_rlnConvergenceCone",
    "_rlnLongitudinalDisplacement",
    "_rlnTransversalDisplacement",
    "_rlnAmplitudeContrast",
    "_rlnCtfValue",
    "_rlnCtfMaxResolution",
    "_rlnImageName",
    "_rlnReconstructImageName",
    "_rlnImageId",
    "_rlnEnabled",
    "_rlnDataType",
    "_rlnDataDimensionality",
    "_rlnBeamTiltX",
    "_rlnBeamTiltY",
    "_rlnBeamTiltGroupName",
    "_rlnCoordinateX",
    "_rlnCoordinateY",
    "_rlnCoordinateZ",
    "_rlnMovieFrameNumber",
    "_rlnNormCorrection",
    "_rlnMagnificationCorrection",
    "_rlnSamplingRate",
    "_rlnSamplingRateX",
    "_rlnSamplingRateY",
    "_rlnSamplingRateZ",
    "_rlnImageSize",
    "_rlnImageSizeX",
    "_rlnImageSizeY",
    "_rlnImageSizeZ",
    "_rlnMinimumValue",
    "_rlnMaximumValue",
    "_rlnAverageValue",
    "_rlnStandardDeviationValue",
    "_rlnSkewnessValue",
    "_rlnKurtosisExcessValue",
    "_rlnImageWeight",
    "_rlnMatrix_1_1",
    "_rlnMatrix_1_2",
    "_rlnMatrix_1_3",
    "_rlnMatrix_2_1",
    "_rlnMatrix_2_2",
    "_rlnMatrix_2_3",
    "_rlnMatrix_3_1",
    "_rlnMatrix_3_2",
    "_rlnMatrix_3_3",
    "_rlnMicrographId",
    "_rlnMicrographName",
    "_rlnMicrographTiltAngle",
    "_rlnMicrographTiltAxisDirection",
    "_rlnMicrographTiltAxisOutOfPlane",
    "_rlnAccuracyRotations",
    "_rlnAccuracyTranslations",
    "_rlnAveragePmax",
    "_rlnCurrentResolution",
    "_rlnCurrentImageSize",
    "_rlnSsnrMap",
    "_rlnReferenceDimensionality",
    "_rlnDataDimensionality",
    "_rlnDiff2RandomHalves",
    "_rlnGoldStandardFsc",
    "_rlnGroupName",
    "_rlnGroupNumber",
    "_rlnGroupNrParticles",
    "_rlnGroupScaleCorrection",
    "_rlnFourierSpaceInterpolator",
    "_rlnLogLikelihood",
    "_rlnMinRadiusNnInterpolation",
    "_rlnNormCorrectionAverage",
    "_rlnNrClasses",
    "_rlnNrGroups",
    "_rlnSpectralOrientabilityContribution",
    "_rlnOriginalImageSize",
    "_rlnPaddingFactor",
    "_rlnClassDistribution",
    "_rlnClassPriorOffsetX",
    "_rlnClassPriorOffsetY",
    "_rlnOrientationDistribution",
    "_rlnPixelSize",
    "_rlnReferenceSpectralPower",
    "_rlnOrientationalPriorMode",
    "_rlnReferenceImage",
    "_rlnSigmaOffsets",
    "_rlnSigma2Noise",
    "_rlnReferenceSigma2",
    "_rlnSigmaPriorRotAngle",
    "_rlnSigmaPriorTiltAngle",
    "_rlnSigmaPriorPsiAngle",
    "_rlnSignalToNoiseRatio",
    "_rlnTau2FudgeFactor",
    "_rlnReferenceTau2",
    "_rlnOverallAccuracyRotations",
    "_rlnOverallAccuracyTranslations",
    "_rlnAdaptiveOversampleFraction",
    "_rlnAdaptiveOversampleOrder",
    "_rlnAutoLocalSearchesHealpixOrder",
    "_rlnAvailableMemory",
    "_rlnBestResolutionThusFar",
    "_rlnCoarseImageSize",
    "_rlnChangesOptimalOffsets",
    "_rlnChangesOptimalOrientations",
    "_rlnChangesOptimalClasses",
    "_rlnCtfDataArePhaseFlipped",
    "_rlnExperimentalDataStarFile",
    "_rlnDoCorrectCtf",
    "_rlnDoCorrectMagnification",
    "_rlnDoCorrectNorm",
    "_rlnDoCorrectScale",
    "_rlnDoRealignMovies",
    "_rlnDoMapEstimation",
    "_rlnDoAutoRefine",
    "_rlnDoOnlyFlipCtfPhases",
    "_rlnDoSolventFlattening",
    "_rlnDoSkipAlign",
    "_rlnDoSkipRotate",
    "_rlnDoSplitRandomHalves",
    "_rlnDoZeroMask",
    "_rlnFixSigmaNoiseEstimates",
    "_rlnFixSigmaOffsetEstimates",
    "_rlnFixTauEstimates",
    "_rlnHasConverged",
    "_rlnHasHighFscAtResolLimit",
    "_rlnHasLargeSizeIncreaseIterationsAgo",
    "_rlnHighresLimitExpectation",
    "_rlnDoIgnoreCtfUntilFirstPeak",
    "_rlnIncrementImageSize",
    "_rlnCurrentIteration",
    "_rlnJoinHalvesUntilThisResolution",
    "_rlnMagnificationSearchRange",
    "_rlnMagnificationSearchStep",
    "_rlnMaximumCoarseImageSize",
    "_rlnMaxNumberOfPooledParticles",
    "_rlnModelStarFile",
    "_rlnModelStarFile2",
    "_rlnNumberOfIterations",
    "_rlnNumberOfIterWithoutResolutionGain",
    "_rlnNumberOfIterWithoutChangingAssignments",
    "_rlnOutputRootName",
    "_rlnParticleDiameter",
    "_rlnRadiusMaskMap",
    "_rlnRadiusMaskExpImages",
    "_rlnRandomSeed",
    "_rlnRefsAreCtfCorrected",
    "_rlnSmallestChangesClasses",
    "_rlnSmallestChangesOffsets",
    "_rlnSmallestChangesOrientations",
    "_rlnOrientSamplingStarFile",
    "_rlnSolventMaskName",
    "_rlnSolventMask2Name",
    "_rlnTauSpectrumName",
    "_rlnUseTooCoarseSampling",
    "_rlnWidthMaskEdge",
    "_rlnIsFlip",
    "_rlnOrientationsID",
    "_rlnOriginX",
    "_rlnOriginXPrior",
    "_rlnOriginY",
    "_rlnOriginYPrior",
    "_rlnOriginZ",
    "_rlnOriginZPrior",
    "_rlnAngleRot",
    "_rlnAngleRotPrior",
    "_rlnAngleTilt",
    "_rlnAngleTiltPrior",
    "_rlnAnglePsi",
    "_rlnAnglePsiPrior",
    "_rlnAutopickFigureOfMerit",
    "_rlnClassNumber",
    "_rlnLogLikeliContribution",
    "_rlnParticleId",
    "_rlnParticleFigureOfMerit",
    "_rlnKullbackLeibnerDivergence",
    "_rlnRandomSubset",
    "_rlnParticleName",
    "_rlnOriginalParticleName",
    "_rlnNrOfSignificantSamples",
    "_rlnNrOfFrames",
    "_rlnMaxValueProbDistribution",
    "_rlnFinalResolution",
    "_rlnBfactorUsedForSharpening",
    "_rlnFourierShellCorrelationCorrected",
    "_rlnFourierShellCorrelationMaskedMaps",
    "_rlnFourierShellCorrelationUnmaskedMaps",
    "_rlnCorrectedFourierShellCorrelationPhaseRandomizedMaskedMaps",
    "_rlnFittedInterceptGuinierPlot",
    "_rlnFittedSlopeGuinierPlot",
    "_rlnCorrelationFitGuinierPlot",
    "_rlnLogAmplitudesOriginal",
    "_rlnLogAmplitudesMTFCorrected",
    "_rlnLogAmplitudesWeighted",
    "_rlnLogAmplitudesSharpened",
    "_rlnLogAmplitudesIntercept",
    "_rlnResolutionSquared",
    "_rlnMtfValue",
    "_rlnIs3DSampling",
    "_rlnIs3DTranslationalSampling",
    "_rlnHealpixOrder",
    "_rlnTiltAngleLimit",
    "_rlnOffsetRange",
    "_rlnOffsetStep",
    "_rlnSamplingPerturbInstance",
    "_rlnSamplingPerturbFactor",
    "_rlnPsiStep",
    "_rlnSymmetryGroup",
    "_rlnSelected",
    "_rlnParticleSelectZScore",
    "_rlnSortedIndex",
    "_rlnResolution",
    "_rlnAngstromResolution",
    "_rlnResolutionInversePixel",
    "_rlnSpectralIndex",
    "",
};

namespace {

// The separators of a STAR line: the narrow reader splits at these four.
const char* const kStarSpace = " \t\n\r";

bool starts_with(const char* word, const char* prefix) { return strncmp(word, prefix, strlen(prefix)) == 0; }

bool is_block_word(const char* word) { return starts_with(word, "data_") || starts_with(word, "loop_"); }

// A label line of the narrow head: a label of the table, then "#n".
bool is_label_line(char** words, int count) {
  return count == 2 && is_star_head_keyword(words[0]) && words[1][0] == '#';
}

}  // namespace

void particle_info_init(ParticleInfo* info) {
  memset(info, 0, sizeof(ParticleInfo));
  info->Bfactor = 200.0f;
  info->CoordinateX = 0.0f;
  info->CoordinateY = 0.0f;
  info->Voltage = 300.0f;
  info->PhaseShift = 0.0f;
  info->DefocusU = 20000.0f;
  info->DefocusV = 20000.0f;
  info->DefocusAngle = 0.0f;
  info->SphericalAberration = 2.7f;
  info->DetectorPixelSize = 14.0f;
  info->Magnification = 78652.0f;
  info->AmplitudeContrast = 0.1f;
  info->CtfFigureOfMerit = 0.15f;
  info->CtfMaxResolution = 20.0f;
  info->ClassNumber = 1;
  info->GroupNumber = 1;
  info->RandomSubset = 1;
  info->NormCorrection = 0.1f;
  info->OriginX = 0.0f;
  info->OriginY = 0.0f;
  info->AngleRot = 0.0f;
  info->AngleTilt = 0.0f;
  info->AnglePsi = 0.0f;
  info->LogLikeliContribution = 10000.0f;
  info->NrOfSignificantSamples = 100;
  info->MaxValueProbDistribution = 0.1f;
  info->AutopickFigureOfMerit = 0.3f;
}

StarHead* star_head_new() {
  StarHead* head = (StarHead*)calloc(1, sizeof(StarHead));
  if (!head) ZK_FATAL("memory allocation failed");
  return head;
}

void star_head_empty(StarHead* head) { memset(head, 0, sizeof(StarHead)); }

int is_star_head_keyword(const char* word) {
  for (int i = 0; STAR_HEAD_KEYWORDS[i][0]; ++i)
    if (strcmp(word, STAR_HEAD_KEYWORDS[i]) == 0) return 1;
  return 0;
}

int star_read_head(FILE* stream, StarHead* head) {
  char line[ZK_TXT_LEN];
  char* words[2];
  star_head_empty(head);
  rewind(stream);
  for (int n = 0; n < STAR_MAX_LABELS; ++n) {
    if (zk_read_text_line(line, stream) == 0) break;
    int count = strnsplit_inplace(line, kStarSpace, words, 2);
    if (count == 0 || is_block_word(words[0])) continue;
    if (!is_label_line(words, count)) break;
    int k = head->n_labels++;
    head->numbers[k] = zk_atoi(words[1] + 1);
    snprintf(head->names[k], STAR_LABEL_LEN, "%s", words[0]);
  }
  return 0;
}

int starf_read_head(const char* name, StarHead* head) {
  FILE* fp = ZK_FOPEN_READ(name, "r");
  star_read_head(fp, head);
  fclose(fp);
  return 0;
}

ParticleInfoIndex* particle_info_index_new() {
  ParticleInfoIndex* index = (ParticleInfoIndex*)calloc(1, sizeof(ParticleInfoIndex));
  if (!index) ZK_FATAL("memory allocation failed");
  return index;
}

void particle_info_index_init(ParticleInfoIndex* index) { memset(index, 0, sizeof(ParticleInfoIndex)); }

namespace {

// The field of a label in the index, or null for any other label.
int32_t* index_field(const char* label, ParticleInfoIndex* index) {
#define ZK_FIELD(f) \
  if (strcmp(label, "_rln" #f) == 0) return &index->f;
  ZK_FIELD(Bfactor)
  ZK_FIELD(MicrographName)
  ZK_FIELD(ImageName)
  ZK_FIELD(CoordinateX)
  ZK_FIELD(CoordinateY)
  ZK_FIELD(Voltage)
  ZK_FIELD(PhaseShift)
  ZK_FIELD(DefocusU)
  ZK_FIELD(DefocusV)
  ZK_FIELD(DefocusAngle)
  ZK_FIELD(SphericalAberration)
  ZK_FIELD(DetectorPixelSize)
  ZK_FIELD(Magnification)
  ZK_FIELD(AmplitudeContrast)
  ZK_FIELD(CtfFigureOfMerit)
  ZK_FIELD(CtfMaxResolution)
  ZK_FIELD(ClassNumber)
  ZK_FIELD(GroupNumber)
  ZK_FIELD(RandomSubset)
  ZK_FIELD(NormCorrection)
  ZK_FIELD(OriginX)
  ZK_FIELD(OriginY)
  ZK_FIELD(AngleRot)
  ZK_FIELD(AngleTilt)
  ZK_FIELD(AnglePsi)
  ZK_FIELD(LogLikeliContribution)
  ZK_FIELD(NrOfSignificantSamples)
  ZK_FIELD(MaxValueProbDistribution)
  ZK_FIELD(AutopickFigureOfMerit)
#undef ZK_FIELD
  return nullptr;
}

}  // namespace

int set_info_index_from_keyword_number(const char* label, int number, ParticleInfoIndex* index) {
  int32_t* field = index_field(label, index);
  if (field) *field = number;
  return 0;
}

int get_info_index_from_keyword(const char* label, const ParticleInfoIndex* index) {
  int32_t* field = index_field(label, const_cast<ParticleInfoIndex*>(index));
  return field ? *field : 0;
}

int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index) {
  particle_info_index_init(index);
  for (int i = 0; i < head->n_labels; ++i) set_info_index_from_keyword_number(head->names[i], head->numbers[i], index);
  return 0;
}

int set_info_index_from_starf(const char* name, ParticleInfoIndex* index) {
  std::unique_ptr<StarHead, decltype(&free)> head(star_head_new(), &free);
  starf_read_head(name, head.get());
  set_info_index_from_star_head(head.get(), index);
  return 0;
}

int starf_read_head_info_index(const char* name, StarHead* head, ParticleInfoIndex* index) {
  starf_read_head(name, head);
  set_info_index_from_star_head(head, index);
  return 0;
}

int star_set_pointer(FILE* stream, int n) {
  char line[ZK_TXT_LEN];
  char* words[2];
  rewind(stream);
  long pos = ftell(stream);
  int seen = 0;
  // A last line without a line feed sets the end-of-file mark as it is read,
  // so the loop stops with the stream going back to the start of that line.
  while (!feof(stream)) {
    pos = ftell(stream);
    if (zk_read_text_line(line, stream) == 0) break;
    int count = strnsplit_inplace(line, kStarSpace, words, 2);
    if (count == 0 || is_label_line(words, count) || is_block_word(words[0])) continue;
    if (++seen > n) break;
  }
  clearerr(stream);
  fseek(stream, pos, SEEK_SET);
  return 0;
}

int get_lineN_from_star(FILE* stream) {
  char line[ZK_TXT_LEN];
  char* words[1];
  StarHead* head = star_head_new();
  star_read_head(stream, head);
  bool one_column = head->n_labels == 1;
  free(head);
  star_set_pointer(stream, 0);
  int n = 0;
  while (zk_read_text_line(line, stream) > 0) {
    if (one_column) {
      if (!is_str_null(line)) ++n;
    } else if (strnsplit_inplace_byspace(line, words, 1) > 0) {
      ++n;
    }
  }
  return n;
}

int get_lineN_from_starf(const char* name) {
  FILE* fp = ZK_FOPEN_READ(name, "r");
  int n = get_lineN_from_star(fp);
  fclose(fp);
  return n;
}

bool is_words_starhead(char** words, int count) {
  if (count == 0) return true;
  if (count < 3 && is_star_head_keyword(words[0])) return true;
  return is_block_word(words[0]);
}

char* get_all_micrographs_from_ctfstar(const char* name, int* n_found) {
  FILE* fp = ZK_FOPEN_READ(name, "r");
  int n_lines = get_lineN_from_star(fp);
  int cap = n_lines > 0 ? n_lines : 1;
  char* mics = (char*)calloc((size_t)cap, ZK_TXT_LEN);
  if (!mics) ZK_FATAL("memory allocation failed");

  StarHead* head = star_head_new();
  ParticleInfoIndex index;
  star_read_head(fp, head);
  set_info_index_from_star_head(head, &index);
  int n_words = head->n_labels;
  int col = index.MicrographName;
  free(head);

  int found = 0;
  if (n_words > 0) {
    char** words = (char**)calloc((size_t)n_words, sizeof(char*));
    if (!words) ZK_FATAL("memory allocation failed");
    char line[ZK_TXT_LEN];
    star_set_pointer(fp, 0);
    while (found < cap && zk_read_text_line(line, fp) > 0) {
      int count = strnsplit_inplace_byspace(line, words, n_words);
      if (is_words_starhead(words, count) || count != n_words) continue;
      if (col >= 1 && col <= n_words) strlcpy(mics + (size_t)found * ZK_TXT_LEN, words[col - 1]);
      ++found;
    }
    free(words);
  }
  fclose(fp);
  if (n_found) *n_found = found;
  return mics;
}

void particle_star_write_head(FILE* stream) {
  rewind(stream);
  fprintf(stream, "\ndata_\n");
  fprintf(stream, "\nloop_\n");
  fprintf(stream, "_rlnMicrographName #1\n");
  fprintf(stream, "_rlnCoordinateX #2\n");
  fprintf(stream, "_rlnCoordinateY #3\n");
  fprintf(stream, "_rlnVoltage #4\n");
  fprintf(stream, "_rlnDefocusU #5\n");
  fprintf(stream, "_rlnDefocusV #6\n");
  fprintf(stream, "_rlnDefocusAngle #7\n");
  fprintf(stream, "_rlnSphericalAberration #8\n");
  fprintf(stream, "_rlnDetectorPixelSize #9\n");
  fprintf(stream, "_rlnCtfFigureOfMerit #10\n");
  fprintf(stream, "_rlnMagnification #11\n");
  fprintf(stream, "_rlnAmplitudeContrast #12\n");
  fprintf(stream, "_rlnAutopickFigureOfMerit #13\n");
  fprintf(stream, "_rlnPhaseShift #14\n");
}

void particle_star_write_oneline(FILE* stream, const char* name, int x, int y, float defocus_u, float defocus_v,
                                 float defocus_angle, float voltage, float cs, float ac, float magnification,
                                 float pixel_size, float ctf_fom, float autopick_fom, float phase_shift) {
  // The columns follow the head, not the order of the arguments.
  fprintf(stream, "%s %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f\n",
          name, (float)x, (float)y, voltage, defocus_u, defocus_v, defocus_angle, cs, pixel_size, ctf_fom,
          magnification, ac, autopick_fom, phase_shift);
}

int star_find_loop_table(FILE* stream, const char* const* want, int n_want, int n_required, int* columns,
                         int* n_columns, long* data_pos, char* table_name) {
  char line[ZK_TXT_LEN];
  char block[ZK_TXT_LEN];
  char* words[2];
  strlcpy(block, "loop_");
  for (int k = 0; k < n_want; ++k) columns[k] = 0;
  rewind(stream);
  bool in_labels = false;
  int n_labels = 0;
  while (true) {
    long pos = ftell(stream);
    long got = zk_read_text_line(line, stream);
    int count = got > 0 ? strnsplit_inplace_byspace(line, words, 2) : 0;
    bool skip = got > 0 && (count == 0 || words[0][0] == '#');
    bool label = got > 0 && count > 0 && words[0][0] == '_';
    if (in_labels && !label && !skip) {
      // The labels of this table end here: does it hold what is wanted?
      bool ok = n_labels > 0;
      for (int k = 0; k < n_required; ++k) ok = ok && columns[k] > 0;
      if (ok) {
        *n_columns = n_labels;
        *data_pos = pos;
        strlcpy(table_name, block);
        clearerr(stream);
        fseek(stream, pos, SEEK_SET);
        return 0;
      }
      in_labels = false;
    }
    if (got == 0) break;
    if (skip) continue;
    if (starts_with(words[0], "data_")) {
      strlcpy(block, words[0]);
      in_labels = false;
    } else if (starts_with(words[0], "loop_")) {
      in_labels = true;
      n_labels = 0;
      for (int k = 0; k < n_want; ++k) columns[k] = 0;
    } else if (in_labels && label) {
      ++n_labels;
      for (int k = 0; k < n_want; ++k)
        if (columns[k] == 0 && strcmp(words[0], want[k]) == 0) columns[k] = n_labels;
    }
  }
  for (int k = 0; k < n_want; ++k) columns[k] = 0;
  *n_columns = 0;
  *data_pos = -1;
  table_name[0] = '\0';
  return -1;
}

int star_read_loop_row(FILE* stream, char* line, char** words, int max) {
  if (max < 1) return -1;
  while (zk_read_text_line(line, stream) > 0) {
    int count = strnsplit_inplace_byspace(line, words, max);
    if (count == 0 || words[0][0] == '#') continue;
    if (words[0][0] == '_' || is_block_word(words[0])) return -1;
    return count;
  }
  return -1;
}
