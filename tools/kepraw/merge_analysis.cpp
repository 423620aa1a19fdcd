#include "merge_analysis.h"

#include <algorithm>
#include <cmath>

#include "cli.h"

namespace kepraw {

namespace {

constexpr int kReference = 2;
constexpr long kMaxSubsets = 20000;
constexpr int kProbeCount = 256;

struct Region {
    int top, left, bottom, right;  // bottom and right exclusive
};

// The value the entry stores for a merged mean m at a site with black level b.
int brighten(int mean, float gain, int black) {
    if (!(gain >= 1.0f)) return mean;
    const float v = static_cast<float>(mean - black) * gain + static_cast<float>(black);
    return static_cast<short>(static_cast<int>(v));  // |v| <= 1023 * 64: in int range
}

bool matches(const NightCall& call, const std::vector<int>& members, const Region& r, long step) {
    const int k = static_cast<int>(members.size());
    const long w = r.right - r.left, h = r.bottom - r.top, total = w * h;
    for (long n = 0; n < total; n += step) {
        const int y = r.top + static_cast<int>(n / w), x = r.left + static_cast<int>(n % w);
        const size_t p = static_cast<size_t>(y) * call.width + x;
        int sum = 0;
        for (int i : members) sum += (*call.after)[i][p];
        const int mean = (sum + k - 1) / k;
        if (brighten(mean, call.gain, call.siteBlack[(y & 1) * 2 + (x & 1)]) != call.output[p]) return false;
    }
    return true;
}

// Finds the frames of index >= 3 that, with the reference, were averaged into
// the output; empty when no subset of the expected size reproduces it.
bool identifyMerged(const NightCall& call, std::vector<int>& merged) {
    const Region r{std::max(0, call.zoom.top), std::max(0, call.zoom.left), std::min(call.height, call.zoom.bottom),
                   std::min(call.width, call.zoom.right)};
    if (r.bottom <= r.top || r.right <= r.left) return false;
    const long area = static_cast<long>(r.bottom - r.top) * (r.right - r.left);
    const int frames = static_cast<int>(call.after->size());
    const int others = frames - 3, pick = call.usable - 1;
    if (pick < 0 || pick > others) return false;

    std::vector<int> index(static_cast<size_t>(pick));
    for (int i = 0; i < pick; ++i) index[static_cast<size_t>(i)] = i;
    for (long tried = 0; tried < kMaxSubsets; ++tried) {
        std::vector<int> members{kReference};
        for (int i : index) members.push_back(3 + i);
        if (matches(call, members, r, std::max(1L, area / kProbeCount)) && matches(call, members, r, 1)) {
            merged.assign(members.begin() + 1, members.end());
            return true;
        }
        // Next combination of `pick` out of `others` in lexicographic order.
        int i = pick - 1;
        while (i >= 0 && index[static_cast<size_t>(i)] == others - pick + i) --i;
        if (i < 0) break;
        ++index[static_cast<size_t>(i)];
        for (int j = i + 1; j < pick; ++j) index[static_cast<size_t>(j)] = index[static_cast<size_t>(j - 1)] + 1;
    }
    return false;
}

}  // namespace

const char* outcomeCode(FrameOutcome outcome) {
    switch (outcome) {
        case FrameOutcome::Reference:
            return "reference";
        case FrameOutcome::Merged:
            return "merged";
        case FrameOutcome::AlignedShort:
            return "aligned-short";
        case FrameOutcome::RejectedAlignment:
            return "rejected-alignment";
        case FrameOutcome::RejectedBlur:
            return "rejected-blur";
        case FrameOutcome::NotAligned:
            return "not-aligned";
        case FrameOutcome::Aligned:
            return "aligned";
    }
    return "?";
}

const char* outcomeText(FrameOutcome outcome) {
    switch (outcome) {
        case FrameOutcome::Reference:
            return "reference";
        case FrameOutcome::Merged:
            return "aligned, merged";
        case FrameOutcome::AlignedShort:
            return "aligned (short exposure, never merged)";
        case FrameOutcome::RejectedAlignment:
            return "rejected: alignment failed";
        case FrameOutcome::RejectedBlur:
            return "rejected: not sharp enough";
        case FrameOutcome::NotAligned:
            return "not aligned";
        case FrameOutcome::Aligned:
            return "aligned";
    }
    return "?";
}

NightAnalysis analyseNightResult(const NightCall& call) {
    NightAnalysis a;
    const int frames = static_cast<int>(call.after->size());
    std::vector<bool> changed(static_cast<size_t>(frames));
    bool anyChanged = false;
    for (int i = 0; i < frames; ++i) {
        changed[static_cast<size_t>(i)] =
            (*call.after)[static_cast<size_t>(i)] != (*call.before)[static_cast<size_t>(i)];
        anyChanged = anyChanged || changed[static_cast<size_t>(i)];
    }
    a.outcomes.assign(static_cast<size_t>(frames), FrameOutcome::NotAligned);
    if (frames > kReference) a.outcomes[kReference] = FrameOutcome::Reference;

    const USERZOOM& z = call.zoom;
    a.fellBack =
        call.usable <= 1 && z.top == 0 && z.left == 0 && z.right == call.width - 1 && z.bottom == call.height - 1;
    if (a.fellBack && !anyChanged) {
        const bool fewPoints = z.pointCount < call.minFeatureCount;
        a.fallbackReason = fewPoints ? format("too few feature points on the reference (%d, --min-features %d)",
                                              z.pointCount, call.minFeatureCount)
                                     : "no other frame passed the sharpness test";
        if (!fewPoints)
            for (int i = 3; i < frames; ++i) a.outcomes[static_cast<size_t>(i)] = FrameOutcome::RejectedBlur;
        return a;
    }
    for (int i = 0; i < std::min(frames, 2); ++i) a.outcomes[static_cast<size_t>(i)] = FrameOutcome::AlignedShort;
    if (a.fellBack) {
        a.fallbackReason = "no frame could be aligned to the reference";
        for (int i = 3; i < frames; ++i)
            a.outcomes[static_cast<size_t>(i)] =
                changed[static_cast<size_t>(i)] ? FrameOutcome::RejectedAlignment : FrameOutcome::RejectedBlur;
        return a;
    }
    std::vector<int> merged;
    a.mergeIdentified = identifyMerged(call, merged);
    for (int i = 3; i < frames; ++i) {
        FrameOutcome o;
        if (a.mergeIdentified && std::find(merged.begin(), merged.end(), i) != merged.end())
            o = FrameOutcome::Merged;
        else if (!changed[static_cast<size_t>(i)])
            o = FrameOutcome::RejectedBlur;
        else
            o = a.mergeIdentified ? FrameOutcome::RejectedAlignment : FrameOutcome::Aligned;
        a.outcomes[static_cast<size_t>(i)] = o;
    }
    return a;
}

}  // namespace kepraw
