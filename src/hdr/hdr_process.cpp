#include "hdr/hdr_process.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "hdr/exposure_fusion.h"
#include "hdr/fusion_weights.h"
#include "hdr/intensity.h"
#include "hdr/pyramid.h"
#include "hdr/tone_ops.h"
#include "hdr/tone_rows.h"
#include "imgcore/fast_paths.h"
#include "imgcore/row_stripes.h"
#include "imgcore/saturate.h"
#include "imgcore/simd_dispatch.h"

namespace {

constexpr int kBracketSize = 4;

// Conversions of the per-sample products of stages 4 and 18. The plain cast is
// used when the driver has proven every product to lie inside the int range;
// otherwise (huge or non-finite caller gains) the saturating one.
struct PlainTrunc {
    int operator()(float v) const { return static_cast<int>(v); }
};
struct SaturatingTrunc {
    int operator()(float v) const { return truncToInt(v); }
};

// Largest |sample - offset| over all 16-bit samples and the four site offsets.
double largestOffsetDistance(const int* offsets) {
    double largest = 0.0;
    for (int s = 0; s < 4; ++s) {
        double o = static_cast<double>(offsets[s]);
        largest = std::max(largest, std::max(std::fabs(-32768.0 - o), std::fabs(32767.0 - o)));
    }
    return largest;
}

// Products are proven in range with a wide margin for the float rounding.
constexpr double kSafeMagnitude = 2.0e9;

// Every product gain * (sample - blackLevels[site]) of stage 4 lies inside the int
// range.
bool gainProductsInRange(float gain, const int* blackLevels) {
    return std::isfinite(gain) &&
           std::fabs(static_cast<double>(gain)) * largestOffsetDistance(blackLevels) < kSafeMagnitude;
}

// The scale of stage 18, (whiteLevel - blackLevels[0]) / whiteLevel in double
// precision narrowed to single precision.
float restoreScale(const int* blackLevels, int whiteLevel) {
    return static_cast<float>(static_cast<double>(whiteLevel - blackLevels[0]) / static_cast<double>(whiteLevel));
}

// Every result of stage 18 lies inside the int range: at most whiteLevel, bounded
// below by the most negative product plus the smallest black level.
bool restoreInRange(float scale, const int* blackLevels) {
    double lowest = 0.0;
    for (int s = 0; s < 4; ++s) lowest = std::min(lowest, static_cast<double>(blackLevels[s]));
    lowest -= std::fabs(static_cast<double>(scale)) * 32768.0;
    return std::isfinite(scale) && lowest > -kSafeMagnitude;
}

template <typename Convert>
void gainRows(short* frame, int width, int height, float gain, const int* blackLevels, int whiteLevel,
              Convert convert) {
    const short white = static_cast<short>(whiteLevel);
    for (int r = 0; r < height; ++r) {
        short* row = frame + static_cast<ptrdiff_t>(r) * width;
        const int evenLevel = blackLevels[(r & 1) * 2];
        const int oddLevel = blackLevels[(r & 1) * 2 + 1];
        for (int c = 0; c < width; ++c) {
            const int level = (c & 1) ? oddLevel : evenLevel;
            const float v = gain * static_cast<float>(row[c] - level);
            short s = static_cast<short>(convert(v));  // low 16 bits
            s = s < 0 ? short(0) : s;
            s = s > white ? white : s;
            row[c] = s;
        }
    }
}

template <typename Convert>
void restoreRows(short* image, int width, int height, float scale, const int* blackLevels, int whiteLevel,
                 Convert convert) {
    const float white = static_cast<float>(whiteLevel);
    for (int r = 0; r < height; ++r) {
        short* row = image + static_cast<ptrdiff_t>(r) * width;
        const float evenLevel = static_cast<float>(blackLevels[(r & 1) * 2]);
        const float oddLevel = static_cast<float>(blackLevels[(r & 1) * 2 + 1]);
        for (int c = 0; c < width; ++c) {
            float v = scale * static_cast<float>(row[c]) + ((c & 1) ? oddLevel : evenLevel);
            v = std::min(v, white);
            row[c] = static_cast<short>(convert(v));
        }
    }
}

// ---- fused row kernels of the driver (fast paths) ----

// Stages 4 to 6 of one sample: black level and bracket gain (the driver has proven
// the product inside the int range), the [0, whiteLevel] clamp, white balance (safe
// gains), forward gamma through the table (held as ints so that wide vectors can
// gather from it). Exactly the operations of gainRows, whiteBalance and
// mapThroughTable in turn.
struct PrepareSetup {
    float gain;
    int levels[4];
    float balance[4];
    float white;
    short whiteSample;
    int top;
    const int* gamma;
};

// Stages 4 and 5 of one sample, and the clamp of stage 6: the index into the gamma
// table.
KEP_KERNEL_BODY int preparedIndex(short sample, int level, float balance, float gain, float white, short whiteSample,
                                  int top) {
    short s = static_cast<short>(static_cast<int>(gain * static_cast<float>(sample - level)));
    s = s < 0 ? short(0) : s;
    s = s > whiteSample ? whiteSample : s;
    const int t = tone_rows::scaleAndClamp<false>(s, balance, white);
    return t < 0 ? 0 : (t > top ? top : t);
}

// One row in place, through one pointer: the table indices of the pairs of columns
// (even, odd site), then the table look-ups in a loop of their own (wide vectors
// gather there; a look-up inside the pair loop would keep it scalar). The settings
// are copied to locals first: stores through `row` could otherwise alias the
// record's 16-bit field.
KEP_KERNEL_BODY void prepareRowBody(short* row, int width, int rowParity, const PrepareSetup& p, int* index) {
    const int levelEven = p.levels[2 * rowParity], levelOdd = p.levels[2 * rowParity + 1];
    const float balanceEven = p.balance[2 * rowParity], balanceOdd = p.balance[2 * rowParity + 1];
    const float gain = p.gain, white = p.white;
    const short whiteSample = p.whiteSample;
    const int top = p.top;
    const int* gamma = p.gamma;
    const int pairs = width / 2;
    for (int j = 0; j < pairs; ++j) {
        index[2 * j] = preparedIndex(row[2 * j], levelEven, balanceEven, gain, white, whiteSample, top);
        index[2 * j + 1] = preparedIndex(row[2 * j + 1], levelOdd, balanceOdd, gain, white, whiteSample, top);
    }
    for (int x = 0; x < 2 * pairs; ++x) row[x] = static_cast<short>(gamma[index[x]]);
}

KEP_ROW_KERNEL(prepareRow, (short* row, int width, int rowParity, const PrepareSetup& p, int* index),
               (row, width, rowParity, p, index))

// Stages 13 (range compression) to 18 of one quad row of both collapsed images,
// with every conversion proven in range: the factor of each quad from the tables
// (quad means of the uncompressed samples), compression and blend of both images,
// inverse gamma through the table, green attenuation, inverse white balance and
// black-level restore into `out`. `full` holds the intermediate values.
struct ToneSetup {
    int fullTop, fullLowest;
    const float* fullRatios;
    int shallowTop, shallowLowest;
    const float* shallowRatios;
    float white;
    float alpha, beta;
    int top;
    const int* gamma;
    int firstCol, secondCol;
    tone_rows::GreenBounds bounds;
    float balance[4];
    float scale;
    float levels[4];
};

struct ToneScratch {
    std::vector<int> fullIndex, shallowIndex, index;
    std::vector<float> fullRatio, shallowRatio;
    explicit ToneScratch(int quads)
        : fullIndex(quads), shallowIndex(quads), index(2 * static_cast<size_t>(quads)), fullRatio(quads),
          shallowRatio(quads) {}
};

KEP_KERNEL_BODY void toneQuadRowBody(short* full, const short* shallow, short* out, int width, const ToneSetup& p,
                                     ToneScratch& scratch) {
    const int quads = width / 2;
    short* f0 = full;
    short* f1 = full + width;
    const short* s0 = shallow;
    const short* s1 = shallow + width;
    int* fullIndex = scratch.fullIndex.data();
    int* shallowIndex = scratch.shallowIndex.data();
    float* fullRatio = scratch.fullRatio.data();
    float* shallowRatio = scratch.shallowRatio.data();
    for (int j = 0; j < quads; ++j) {
        fullIndex[j] = std::min(tone_rows::quadMean(f0, f1, 2 * j), p.fullTop) - p.fullLowest;
        shallowIndex[j] = std::min(tone_rows::quadMean(s0, s1, 2 * j), p.shallowTop) - p.shallowLowest;
    }
    tone_rows::lookUp(p.fullRatios, fullIndex, fullRatio, quads);
    tone_rows::lookUp(p.shallowRatios, shallowIndex, shallowRatio, quads);
    int* index = scratch.index.data();
    const float white = p.white, alpha = p.alpha, beta = p.beta;
    const int top = p.top;
    const int* gamma = p.gamma;
    for (int r = 0; r < 2; ++r) {
        short* f = r == 0 ? f0 : f1;
        const short* sh = r == 0 ? s0 : s1;
        for (int j = 0; j < quads; ++j)
            for (int lane = 0; lane < 2; ++lane) {
                const int x = 2 * j + lane;
                const short a = tone_rows::scaleAndClamp<false>(f[x], fullRatio[j], white);
                const short b = tone_rows::scaleAndClamp<false>(sh[x], shallowRatio[j], white);
                const int t =
                    static_cast<short>(static_cast<int>(static_cast<float>(a) * alpha + static_cast<float>(b) * beta));
                index[x] = t < 0 ? 0 : (t > top ? top : t);
            }
        for (int x = 0; x < 2 * quads; ++x) f[x] = static_cast<short>(gamma[index[x]]);
    }
    tone_rows::attenuateGreensInPlace(f0, width, p.firstCol, p.secondCol, p.white, p.bounds);
    for (int r = 0; r < 2; ++r) {
        const short* f = r == 0 ? f0 : f1;
        short* o = out + static_cast<std::ptrdiff_t>(r) * width;
        const float balanceEven = p.balance[2 * r], balanceOdd = p.balance[2 * r + 1];
        const float levelEven = p.levels[2 * r], levelOdd = p.levels[2 * r + 1];
        for (int j = 0; j < quads; ++j) {
            const short e = tone_rows::scaleAndClamp<false>(f[2 * j], balanceEven, p.white);
            const short d = tone_rows::scaleAndClamp<false>(f[2 * j + 1], balanceOdd, p.white);
            o[2 * j] = static_cast<short>(
                static_cast<int>(std::min(p.scale * static_cast<float>(e) + levelEven, p.white)));
            o[2 * j + 1] = static_cast<short>(
                static_cast<int>(std::min(p.scale * static_cast<float>(d) + levelOdd, p.white)));
        }
    }
}

KEP_ROW_KERNEL(toneQuadRow,
               (short* full, const short* shallow, short* out, int width, const ToneSetup& p, ToneScratch& scratch),
               (full, shallow, out, width, p, scratch))

// White balance of a whole frame on four workers, each owning whole quads.
void whiteBalanceFrame(short* frame, int width, int height, float redGain, float blueGain, int whiteLevel,
                       int bayerPattern) {
    runFourWorkers([&](int k) {
        whiteBalance(frame, frame, hdr_detail::whiteBalanceStripeStart(height, k),
                     hdr_detail::whiteBalanceStripeEnd(height, k), redGain, blueGain, width, whiteLevel,
                     bayerPattern);
    });
}

}  // namespace

namespace hdr_detail {

void prepareFramesPlain(const std::vector<short*>& frames, int width, int height, float exposureRatio,
                        const int* blackLevels, float redGain, float blueGain, int whiteLevel, int bayerPattern,
                        short* gammaTable) {
    const int n = static_cast<int>(frames.size());
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    for (int k = 0; k < n; ++k)
        removeBlackLevelAndGain(frames[k], width, height, bracketGain(exposureRatio, k, n), blackLevels, whiteLevel);
    for (int k = 0; k < n; ++k)
        whiteBalanceFrame(frames[k], width, height, redGain, blueGain, whiteLevel, bayerPattern);
    for (int k = 0; k < n; ++k) {
        createGammaTbl(gammaTable, whiteLevel, gammaExponent(k));
        mapThroughTable(frames[k], pixels, gammaTable, whiteLevel);
    }
}

void prepareFramesFused(const std::vector<short*>& frames, const std::vector<const short*>& sources, int width,
                        int height, float exposureRatio, const int* blackLevels, float redGain, float blueGain,
                        int whiteLevel, int bayerPattern, short* gammaTable, KernelIsa isa) {
    const int n = static_cast<int>(frames.size());
    std::vector<int> gammaInts(static_cast<size_t>(std::max(whiteLevel, 0)) + 1);
    for (int k = 0; k < n; ++k) {
        short* frame = frames[k];
        const short* source = sources[k];
        const float gain = bracketGain(exposureRatio, k, n);
        createGammaTbl(gammaTable, whiteLevel, gammaExponent(k));
        // The one-pass row kernel needs every conversion in range (the checks of
        // removeBlackLevelAndGain and whiteBalance) and an even width; otherwise
        // the three stages run one after the other on each band.
        const bool rowKernel = width % 2 == 0 && whiteLevel >= 0 && gainProductsInRange(gain, blackLevels) &&
                               tone_rows::scaleIsSafe(redGain) && tone_rows::scaleIsSafe(blueGain);
        PrepareSetup setup{};
        setup.gain = gain;
        for (int i = 0; i < 4; ++i) setup.levels[i] = blackLevels[i];
        tone_rows::whiteBalanceGains(redGain, blueGain, bayerPattern, setup.balance);
        setup.white = static_cast<float>(whiteLevel);
        setup.whiteSample = static_cast<short>(whiteLevel);
        setup.top = std::max(whiteLevel, 0);
        for (size_t i = 0; i < gammaInts.size(); ++i) gammaInts[i] = gammaTable[i];
        setup.gamma = gammaInts.data();
        runOnFourStripes(height / 2, [&](int quadStart, int quadEnd) {
            std::vector<int> index(rowKernel ? static_cast<size_t>(width) : 0);
            for (int q = quadStart; q < quadEnd; ++q) {
                short* rows = frame + static_cast<ptrdiff_t>(2 * q) * width;
                if (source != frame)
                    std::memcpy(rows, source + static_cast<ptrdiff_t>(2 * q) * width, sizeof(short) * 2 * width);
                if (!rowKernel) {
                    removeBlackLevelAndGain(rows, width, 2, gain, blackLevels, whiteLevel);
                    whiteBalance(frame, frame, 2 * q, 2 * q + 2, redGain, blueGain, width, whiteLevel, bayerPattern);
                    mapThroughTable(rows, static_cast<size_t>(2) * width, gammaTable, whiteLevel);
                    continue;
                }
                for (int r = 0; r < 2; ++r) prepareRow(isa, rows + r * width, width, r, setup, index.data());
            }
        });
    }
}

void toneStagesPlain(short* full, short* shallow, short* output, int width, int height, float redGain,
                     float blueGain, const int* blackLevels, const Parameter& tuning, float inverseExponent,
                     short* gammaTable) {
    const int whiteLevel = tuning.whiteLevel;
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    dataRangeCompression(full, full, width, height, whiteLevel, tuning.rangeCompressionBlend,
                         tuning.rangeCompressionRatio);
    dataRangeCompression(shallow, shallow, width, height, whiteLevel, tuning.rangeCompressionBlend,
                         tuning.rangeCompressionRatio);
    const float alpha = tuning.pyramidBlendAlpha;
    runOnFourStripes(height, [&](int rowStart, int rowEnd) {
        alphaFusion(full, shallow, full, rowStart, rowEnd, width, alpha, 1.0f - alpha);
    });
    short* result = full;
    createGammaTbl(gammaTable, whiteLevel, inverseExponent);
    mapThroughTable(result, pixels, gammaTable, whiteLevel);
    greenAttenuation(result, result, width, height, whiteLevel, tuning.bayerPattern);
    whiteBalanceFrame(result, width, height, 1.0f / redGain, 1.0f / blueGain, whiteLevel, tuning.bayerPattern);
    restoreBlackLevel(result, width, height, blackLevels, whiteLevel);
    std::memcpy(output, result, pixels * sizeof(short));
}

void toneStagesFused(short* full, short* shallow, short* output, int width, int height, float redGain,
                     float blueGain, const int* blackLevels, const Parameter& tuning, float inverseExponent,
                     short* gammaTable, KernelIsa isa) {
    const int whiteLevel = tuning.whiteLevel;
    const int quadRows = height / 2;
    // Quad-mean ranges of both collapsed images, folded from four stripes.
    int brightest[2][4], darkest[2][4];
    runFourWorkers([&](int k) {
        for (int image = 0; image < 2; ++image) {
            brightest[image][k] = 0;
            darkest[image][k] = INT_MAX;
            tone_detail::quadMeanRange(image == 0 ? full : shallow, width, stripeStart(quadRows, k),
                                       stripeEnd(quadRows, k), &brightest[image][k], &darkest[image][k], isa);
        }
    });
    for (int image = 0; image < 2; ++image)
        for (int k = 1; k < 4; ++k) {
            brightest[image][0] = std::max(brightest[image][0], brightest[image][k]);
            darkest[image][0] = std::min(darkest[image][0], darkest[image][k]);
        }
    const tone_detail::RangeCompressionTable fullTable(brightest[0][0], darkest[0][0], whiteLevel,
                                                       tuning.rangeCompressionBlend, tuning.rangeCompressionRatio);
    const tone_detail::RangeCompressionTable shallowTable(brightest[1][0], darkest[1][0], whiteLevel,
                                                          tuning.rangeCompressionBlend, tuning.rangeCompressionRatio);
    createGammaTbl(gammaTable, whiteLevel, inverseExponent);
    const float alpha = tuning.pyramidBlendAlpha;
    const float inverseRed = 1.0f / redGain, inverseBlue = 1.0f / blueGain;

    // The one-pass quad-row kernel needs every conversion in range (the checks the
    // stages make for their plain conversions), a positive white level and an even
    // width; otherwise the stages run one after the other on each band.
    const float scale = restoreScale(blackLevels, whiteLevel);
    const float beta = 1.0f - alpha;
    const bool rowKernel = width % 2 == 0 && whiteLevel > 0 && !fullTable.empty() && fullTable.safe() &&
                           !shallowTable.empty() && shallowTable.safe() && tone_rows::scaleIsSafe(alpha) &&
                           tone_rows::scaleIsSafe(beta) &&
                           std::fabs(alpha) + std::fabs(beta) <= tone_rows::kSafeScale &&
                           tone_rows::scaleIsSafe(inverseRed) && tone_rows::scaleIsSafe(inverseBlue) &&
                           restoreInRange(scale, blackLevels);
    std::vector<int> gammaInts(static_cast<size_t>(std::max(whiteLevel, 0)) + 1);
    for (size_t i = 0; i < gammaInts.size(); ++i) gammaInts[i] = gammaTable[i];
    ToneSetup setup{};
    setup.fullTop = fullTable.top();
    setup.fullLowest = fullTable.lowest();
    setup.fullRatios = fullTable.ratios();
    setup.shallowTop = shallowTable.top();
    setup.shallowLowest = shallowTable.lowest();
    setup.shallowRatios = shallowTable.ratios();
    setup.white = static_cast<float>(whiteLevel);
    setup.alpha = alpha;
    setup.beta = beta;
    setup.top = std::max(whiteLevel, 0);
    setup.gamma = gammaInts.data();
    tone_rows::greenColumns(tuning.bayerPattern, &setup.firstCol, &setup.secondCol);
    tone_rows::whiteBalanceGains(inverseRed, inverseBlue, tuning.bayerPattern, setup.balance);
    setup.scale = scale;
    for (int i = 0; i < 4; ++i) setup.levels[i] = static_cast<float>(blackLevels[i]);

    runOnFourStripes(quadRows, [&](int quadStart, int quadEnd) {
        ToneScratch scratch(width / 2);
        for (int q = quadStart; q < quadEnd; ++q) {
            const ptrdiff_t offset = static_cast<ptrdiff_t>(2 * q) * width;
            if (rowKernel) {
                toneQuadRow(isa, full + offset, shallow + offset, output + offset, width, setup, scratch);
                continue;
            }
            fullTable.compressQuadRows(full, full, width, q, q + 1, isa);
            shallowTable.compressQuadRows(shallow, shallow, width, q, q + 1, isa);
            alphaFusion(full, shallow, full, 2 * q, 2 * q + 2, width, alpha, beta);
            mapThroughTable(full + offset, static_cast<size_t>(2) * width, gammaTable, whiteLevel);
            greenAttenuation(full + offset, full + offset, width, 2, whiteLevel, tuning.bayerPattern);
            whiteBalance(full, full, 2 * q, 2 * q + 2, inverseRed, inverseBlue, width, whiteLevel,
                         tuning.bayerPattern);
            restoreBlackLevel(full + offset, width, 2, blackLevels, whiteLevel);
            std::memcpy(output + offset, full + offset, static_cast<size_t>(2) * width * sizeof(short));
        }
    });
}


float bracketGain(float exposureRatio, int k, int n) {
    if (k == n - 1) return exposureRatio;
    const double factor = k == n - 2 ? 0.5 : 0.25;
    return static_cast<float>(std::max(static_cast<double>(exposureRatio) * factor, 1.0));
}

void removeBlackLevelAndGain(short* frame, int width, int height, float gain, const int* blackLevels,
                             int whiteLevel) {
    if (gainProductsInRange(gain, blackLevels))
        gainRows(frame, width, height, gain, blackLevels, whiteLevel, PlainTrunc());
    else
        gainRows(frame, width, height, gain, blackLevels, whiteLevel, SaturatingTrunc());
}

float gammaExponent(int k) {
    static const float exponents[3] = {1.0f, 0.85f, 0.65f};
    return k >= 0 && k < 3 ? exponents[k] : 0.5f;
}

void mapThroughTable(short* image, size_t count, const short* table, int whiteLevel) {
    const int top = std::max(whiteLevel, 0);
    for (size_t p = 0; p < count; ++p) {
        int v = image[p];
        v = v < 0 ? 0 : v > top ? top : v;
        image[p] = table[v];
    }
}

int levelCountForSize(int width, int height) {
    const int dimension = width / 2 <= height / 2 ? width : height;
    const int half = dimension / 2;
    if (half < 1) return 1;
    const int levels = static_cast<int>(std::log(static_cast<double>(half)) / 0.6931471805599453);
    return std::max(levels, 1);
}

std::vector<std::array<int, 2>> levelSizesFor(int width, int height, int levelCount) {
    std::vector<std::array<int, 2>> sizes(static_cast<size_t>(std::max(levelCount, 0)));
    int h = height;
    int w = width;
    for (int i = 0; i < levelCount; ++i) {
        sizes[i] = {h, w};
        h /= 2;
        w /= 2;
        if (h % 2 != 0) h -= 1;
        if (w % 2 != 0) w -= 1;
    }
    return sizes;
}

int whiteBalanceStripeStart(int height, int k) {
    return k <= 0 ? 0 : (k * (height / 4)) & ~1;
}

int whiteBalanceStripeEnd(int height, int k) {
    return k >= 3 ? height : whiteBalanceStripeStart(height, k + 1);
}

void restoreBlackLevel(short* image, int width, int height, const int* blackLevels, int whiteLevel) {
    const float scale = restoreScale(blackLevels, whiteLevel);
    if (restoreInRange(scale, blackLevels))
        restoreRows(image, width, height, scale, blackLevels, whiteLevel, PlainTrunc());
    else
        restoreRows(image, width, height, scale, blackLevels, whiteLevel, SaturatingTrunc());
}

}  // namespace hdr_detail

void initializeParameter(Parameter* parameter) {
    parameter->laplacianGain0 = 1.0f;
    parameter->laplacianGain1 = 1.0f;
    parameter->laplacianGainMaxLevel = 6;
    parameter->whiteLevel = 1023;
    parameter->bayerPattern = 0;
    parameter->exposureCenter = 511;
    parameter->exposureWeightScale = 1.0f;
    parameter->reservedLevelCount = 10;
    parameter->shallowLevelCount = 6;
    parameter->pyramidBlendAlpha = 0.5f;
    parameter->rangeCompressionBlend = 0.7f;
    parameter->rangeCompressionRatio = 0.55f;
}

void hdrProcess(short* frameA, short* frameB, short* frameC, short* output, float redGain, float blueGain,
                int width, int height, float exposureRatio, int bayerPattern, int* blackLevels) {
    if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) return;
    const clock_t start = clock();
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);

    std::unique_ptr<Parameter[]> parameter(new Parameter[1]);
    initializeParameter(parameter.get());
    parameter[0].bayerPattern = bayerPattern;
    const Parameter& tuning = parameter[0];
    const int whiteLevel = tuning.whiteLevel;

    // The bracket: the brightest member is frameA gained by the full ratio, a
    // private copy of frameA takes the quarter ratio.
    // The fast path copies frameA into it band by band while preparing it.
    std::unique_ptr<short[]> copyOfA(new short[pixels]);
    if (!kUseFastPaths) std::memcpy(copyOfA.get(), frameA, pixels * sizeof(short));
    std::vector<short*> frames = {frameC, frameB, copyOfA.get(), frameA};
    const int n = static_cast<int>(frames.size());

    // Stages 4 to 6: black level and bracket gains, white balance, forward gamma.
    // The fast path runs all three a band of quad rows at a time on four workers.
    std::vector<short> gammaTable(static_cast<size_t>(whiteLevel) + 1);
    if (kUseFastPaths)
        hdr_detail::prepareFramesFused(frames, {frameC, frameB, frameA, frameA}, width, height, exposureRatio,
                                       blackLevels, redGain, blueGain, whiteLevel, tuning.bayerPattern,
                                       gammaTable.data(), bestKernelIsa());
    else
        hdr_detail::prepareFramesPlain(frames, width, height, exposureRatio, blackLevels, redGain, blueGain,
                                       whiteLevel, tuning.bayerPattern, gammaTable.data());
    const float lastExponent = n > 0 ? hdr_detail::gammaExponent(n - 1) : 1.0f;

    // Weight maps: intensities first, replaced in place by the fusion weights.
    std::vector<std::unique_ptr<unsigned short[]>> weightBuffers(static_cast<size_t>(n));
    std::vector<unsigned short*> weights(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        weightBuffers[k].reset(new unsigned short[pixels]);
        // Unknown pattern codes produce no intensities; start from zeros so that
        // nothing uninitialised flows into the weights.
        if (static_cast<unsigned>(tuning.bayerPattern) > 3u)
            std::memset(weightBuffers[k].get(), 0, pixels * sizeof(unsigned short));
        weights[k] = weightBuffers[k].get();
    }

    const int levelCount = hdr_detail::levelCountForSize(width, height);
    const int shallowLevelCount = std::min(tuning.shallowLevelCount, levelCount);
    std::vector<std::array<int, 2>> sizeStorage = hdr_detail::levelSizesFor(width, height, levelCount);
    std::vector<int*> levelSizes(static_cast<size_t>(levelCount));
    for (int i = 0; i < levelCount; ++i) levelSizes[i] = sizeStorage[i].data();

    // The fused pyramids start at zero; the fast fusion stores the first frame's
    // contributions instead of adding them to zeros, so it needs no clearing pass,
    // and until then the finest full level serves the weights as scratch.
    const bool skipZeroFill =
        exposure_fusion_detail::exposureFusionSkipsZeroFill(&levelSizes, height, width, levelCount);
    auto allocateLevels = [&](int count, std::vector<std::unique_ptr<short[]>>& owned, std::vector<short*>& levels) {
        owned.resize(static_cast<size_t>(count));
        levels.resize(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const size_t area = static_cast<size_t>(sizeStorage[i][0]) * static_cast<size_t>(sizeStorage[i][1]);
            owned[i].reset(skipZeroFill ? new short[area] : new short[area]());
            levels[i] = owned[i].get();
        }
    };
    std::vector<std::unique_ptr<short[]>> fullLevels, shallowLevels;
    std::vector<short*> fullPyramid, shallowPyramid;
    allocateLevels(levelCount, fullLevels, fullPyramid);
    allocateLevels(shallowLevelCount, shallowLevels, shallowPyramid);


    intensityEstimation(&frames, &weights, width, height, n, truncToInt(redGain), truncToInt(blueGain),
                        tuning.bayerPattern);
    if (!(kUseFastPaths && skipZeroFill &&
          fusion_detail::calculateWeightStreamed(&weights, &weights, width, height, n, tuning.exposureCenter,
                                                 whiteLevel, tuning.exposureWeightScale, bestKernelIsa(),
                                                 reinterpret_cast<unsigned short*>(fullPyramid[0]))))
        calculateWeight(&weights, &frames, &weights, width, height, n, tuning.exposureCenter, whiteLevel,
                        &levelSizes, levelCount, tuning.exposureWeightScale);

    if (kUseFastPaths)
        exposure_fusion_detail::exposureFusionInto(&weights, &frames, &fullPyramid, &shallowPyramid, &levelSizes,
                                                   height, width, n, levelCount, shallowLevelCount,
                                                   tuning.laplacianGain0, tuning.laplacianGain1,
                                                   tuning.laplacianGainMaxLevel, skipZeroFill, bestKernelIsa());
    else
        exposureFusion(&weights, &frames, &fullPyramid, &shallowPyramid, &levelSizes, height, width, redGain,
                       blueGain, n, levelCount, shallowLevelCount, tuning.laplacianGain0, tuning.laplacianGain1,
                       tuning.laplacianGainMaxLevel, whiteLevel);
    weightBuffers.clear();
    weights.clear();

    reconstructLaplacianPyramid(&fullPyramid, &levelSizes, levelCount, whiteLevel);
    reconstructLaplacianPyramid(&shallowPyramid, &levelSizes, shallowLevelCount, whiteLevel);
    // Stages 13 (range compression) to 19: per quad, so the fast path runs them all
    // a band of quad rows at a time on four workers.
    if (kUseFastPaths)
        hdr_detail::toneStagesFused(fullPyramid[0], shallowPyramid[0], output, width, height, redGain, blueGain,
                                    blackLevels, tuning, 1.0f / lastExponent, gammaTable.data(), bestKernelIsa());
    else
        hdr_detail::toneStagesPlain(fullPyramid[0], shallowPyramid[0], output, width, height, redGain, blueGain,
                                    blackLevels, tuning, 1.0f / lastExponent, gammaTable.data());

    parameter.reset();
    const clock_t now = clock();
    printf("total use %f seconds\n", static_cast<double>(now - start) / 1000000.0);
}
