#ifndef KEP_NIGHT_PROCESS_H
#define KEP_NIGHT_PROCESS_H

/*
 * The night path with options: one call aligns a burst onto its reference frame
 * and merges it, either by the plain mean (the result of qnNocturnPreProcess,
 * sample for sample) or by the robust merge, and reports what became of every
 * frame. Usable from C and C++.
 *
 * Frames: frameCount (3..18) raw Bayer frames of width x height signed 16-bit
 * samples, 10-bit values on a black pedestal, rows without padding. Frames 0 and
 * 1 are short exposures (aligned and handed back, never merged), frame 2 is the
 * reference, frames 3 and up are further normal frames. width and height are
 * multiples of 4, at least 64, and width * height is at most 2^28.
 *
 * Merge modes:
 * - KEP_MERGE_MEAN: the registration of qnNocturnPreProcess. At 10 output bits the
 *   output holds the same 16-bit patterns qnNocturnPreProcess writes (including its
 *   wrap-around when a gain above 1 brightens beyond 32767), and the frames, the
 *   usable count and the valid area are the same too. Above 10 bits the merged
 *   frames are averaged again at the finer step (rounded to nearest) and the
 *   border outside the valid area holds 64 scaled to the output depth.
 * - KEP_MERGE_ROBUST: after the same analysis (guides, blur screening, features,
 *   per-cell models), every frame's motion is refined per tile of 64 x 64 samples
 *   on full-resolution data, frames are resampled per Bayer plane with a cubic
 *   kernel, and each sample of a frame counts with a weight that falls where the
 *   frame disagrees with the reference beyond its noise (variance a * signal + b,
 *   given or estimated from the burst). The reference always counts fully, so a
 *   subject that moves keeps the reference's content and leaves no ghost. Every
 *   output sample is defined (where no other frame has a source the reference
 *   carries it), so there is no border fill and the valid area is the whole frame.
 *
 * Output: width x height unsigned 16-bit samples at outputBits (10, 12, 14 or 16):
 * values and the black level are scaled by 2^(outputBits - 10). With a gain of at
 * least 1.0 the merge is brightened about the black level; outside the 10-bit mean
 * mode the brightened values are clamped to 0 .. 2^outputBits - 1. The output must
 * not overlap any frame.
 *
 * Frames come back aligned in both modes, as with qnNocturnPreProcess: every frame
 * the path aligns is overwritten with its aligned version clamped to 0..1023
 * (samples without source data become 0); the reference and frames rejected by the
 * blur screening are left as they were. With alignOnly nonzero nothing is merged
 * and the output is left as it was.
 *
 * Bad options give a negative status (kepNightStatusText names the problem) and
 * leave every buffer untouched.
 */

#include <stddef.h>
#include <stdint.h>

#include "imgcore/kep_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KEP_NIGHT_MAX_FRAMES 18

enum KepMergeMode { KEP_MERGE_MEAN = 0, KEP_MERGE_ROBUST = 1 };

enum KepNightStatus {
    KEP_NIGHT_OK = 0,
    KEP_NIGHT_NULL_ARGUMENT = -1,      /* frames, a frame, output, options or result is null */
    KEP_NIGHT_BAD_STRUCT_SIZE = -2,    /* options or result older than this library can read */
    KEP_NIGHT_BAD_FRAME_COUNT = -3,    /* frameCount outside 3..18 */
    KEP_NIGHT_BAD_SIZE = -4,           /* width or height not a multiple of 4, below 64, or too large */
    KEP_NIGHT_BAD_MERGE_MODE = -5,     /* mergeMode neither mean nor robust */
    KEP_NIGHT_BAD_OUTPUT_BITS = -6,    /* outputBits not 10, 12, 14 or 16 */
    KEP_NIGHT_BAD_NOISE_MODEL = -7,    /* a given noise coefficient negative or not finite, or both zero */
    KEP_NIGHT_BAD_PATTERN = -8,        /* bayerPattern outside 0..3 */
    KEP_NIGHT_BAD_BLACK_LEVEL = -9,    /* a black level outside 0..1023 */
    KEP_NIGHT_BAD_PARAMETER = -10,     /* a tuning value not finite, grayGain outside 1..64, workers outside 1..16 */
    KEP_NIGHT_OUTPUT_OVERLAPS = -11    /* output overlaps a frame, or two frames overlap */
};

/* What became of a frame. */
enum KepFrameOutcome {
    KEP_FRAME_REFERENCE = 0,           /* frame 2 */
    KEP_FRAME_MERGED = 1,              /* aligned and merged (with alignOnly: aligned, would be merged) */
    KEP_FRAME_ALIGNED_SHORT = 2,       /* frames 0 and 1: aligned and handed back, never merged */
    KEP_FRAME_REJECTED_BLUR = 3,       /* left as it was: not sharp enough */
    KEP_FRAME_REJECTED_ALIGNMENT = 4,  /* the alignment failed; aligned data handed back, not merged */
    KEP_FRAME_NOT_ALIGNED = 5          /* registration fell back to the reference before aligning */
};

typedef struct KepNightOptions {
    uint32_t structSize;     /* sizeof(KepNightOptions) as the caller compiled it */
    int32_t bayerPattern;    /* 0 RGGB, 1 BGGR, 2 GRBG, 3 GBRG */
    int32_t blackLevel[3];   /* red, green, blue, 10-bit */
    int32_t grayGain;        /* guide gain, >= 1 */
    int32_t minFeatureCount; /* fewer reference feature points: the reference is handed back */
    int32_t alignOnly;       /* nonzero: align and hand the frames back, merge nothing */
    float gain;              /* >= 1.0 brightens the merge about the black level */
    float alignTuning;
    float blurSelect;
    float sharpnessRatio;
    int32_t mergeMode;       /* enum KepMergeMode */
    int32_t outputBits;      /* 10, 12, 14 or 16 */
    int32_t noiseGiven;      /* nonzero: noiseA/noiseB hold the noise model; else it is estimated */
    float noiseA;            /* variance = noiseA * signal + noiseB, 10-bit DN above black */
    float noiseB;
    /* Optional (robust mode): (width/2) x (height/2) bytes receiving, per 2x2 quad,
       the mean merge weight of the merged frames other than the reference, 255 = full. */
    uint8_t* weightMap;
    /* Threads the robust merge may run on, the caller's included (1..16; default 2).
       The result does not depend on it. The mean mode always runs on the caller's
       thread alone. */
    int32_t workers;
} KepNightOptions;

typedef struct KepNightResult {
    uint32_t structSize;     /* set by the caller to sizeof(KepNightResult) */
    int32_t usableFrames;    /* frames of index 2 and up in the merge, the reference included */
    int32_t validTop, validLeft, validRight, validBottom; /* as USERZOOM */
    int32_t featurePoints;   /* feature points found on the reference guide */
    int32_t frameOutcome[KEP_NIGHT_MAX_FRAMES];   /* enum KepFrameOutcome, frames 0..frameCount-1 */
    float frameWeight[KEP_NIGHT_MAX_FRAMES];      /* mean merge weight per frame over its samples with data
                                                     (mean mode: 1 merged, 0 not merged) */
    float rejectedFraction;  /* share of the merged frames' samples with data (the reference's
                                aside) whose weight fell below 1/2: rejected as motion */
    float noiseA, noiseB;    /* the noise model used (robust mode) */
    int32_t noiseEstimated;  /* nonzero when noiseA/noiseB were estimated from the burst */
    float refinedTileFraction; /* share of tiles of merged frames whose motion refinement was kept */
} KepNightResult;

/* Fills options with the defaults (and structSize): RGGB, black 64, grayGain 1,
   minFeatureCount 30, gain 1.0, alignTuning 1.0, blurSelect 0, sharpnessRatio 0.9,
   mean merge, 10 bits, estimated noise, no weight map, 2 workers. */
KEP_API void kepNightDefaultOptions(KepNightOptions* options);

/* Runs the night path. Returns KEP_NIGHT_OK or a negative enum KepNightStatus. */
KEP_API int kepNightProcess(short** frames, int frameCount, int width, int height, const KepNightOptions* options,
                            uint16_t* output, KepNightResult* result);

/* A static, human-readable text for a status code. */
KEP_API const char* kepNightStatusText(int status);

#ifdef __cplusplus
}
#endif

#endif
