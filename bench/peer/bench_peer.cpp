// Library against a peer built from OpenCV, in one process, on the same
// synthetic 4000 x 3000 data:
//   night: qnNocturnPreProcess on an 8-frame burst, against area-resized guides,
//          goodFeaturesToTrack, pyramidal Lucas-Kanade, estimateAffine2D (RANSAC),
//          warpAffine of the four Bayer planes and the mean of the normal frames;
//   HDR:   hdrProcess on a three-exposure bracket, against a Laplacian exposure
//          fusion of the mosaic (4 frames, 10 levels, float Gaussian
//          well-exposedness weights) built from buildPyramid and pyrUp.
// Every path runs once to warm up, then 5 times; the table shows the medians
// (steady_clock, wall time). The peer runs with OpenCV's default thread count
// and again on one thread; the library's night path runs on the caller's thread.
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "hdr/hdr_process.h"
#include "registration/nocturn_entry.h"
#include "synthetic_scene.h"

namespace {

constexpr int kWidth = 4000;
constexpr int kHeight = 3000;
constexpr int kFrames = 8;
constexpr int kReference = 2;  // frames 0 and 1 are the short exposures
constexpr int kBlack = 64;
constexpr int kWhite = 1023;
constexpr int kRuns = 5;

using Frame = std::vector<short>;

// Median wall time in milliseconds of kRuns calls after one warm-up; `prepare`
// (untimed) restores whatever the timed call overwrites.
double medianMs(const std::function<void()>& prepare, const std::function<void()>& run) {
    std::vector<double> ms;
    for (int i = 0; i <= kRuns; ++i) {
        prepare();
        const auto start = std::chrono::steady_clock::now();
        run();
        const auto stop = std::chrono::steady_clock::now();
        if (i > 0) ms.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

// The library logs on every call (hdrProcess its processor time on stdout, the
// night path its progress on stderr); keep that out of the table while timing.
class Quiet {
public:
    Quiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        savedOut_ = dup(STDOUT_FILENO);
        savedErr_ = dup(STDERR_FILENO);
        std::FILE* sink = std::fopen("/dev/null", "w");
        if (sink != nullptr) {
            dup2(fileno(sink), STDOUT_FILENO);
            dup2(fileno(sink), STDERR_FILENO);
            std::fclose(sink);
        }
    }
    ~Quiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        restore(savedOut_, STDOUT_FILENO);
        restore(savedErr_, STDERR_FILENO);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    static void restore(int saved, int fd) {
        if (saved < 0) return;
        dup2(saved, fd);
        close(saved);
    }
    int savedOut_ = -1;
    int savedErr_ = -1;
};

// ---------------------------------------------------------------- night peer

// Views of the four Bayer planes of a mosaic (quarter-size, every other sample
// of every other row) as two 2-channel images: even rows and odd rows.
cv::Mat rowPairs(cv::Mat& mosaic, int firstRow) {
    return cv::Mat(mosaic.rows / 2, mosaic.cols / 2, CV_16UC2, mosaic.ptr(firstRow), mosaic.step[0] * 2);
}

void splitPlanes(cv::Mat mosaic, cv::Mat planes[4]) {
    cv::Mat evenRows[2], oddRows[2];
    cv::split(rowPairs(mosaic, 0), evenRows);
    cv::split(rowPairs(mosaic, 1), oddRows);
    planes[0] = evenRows[0];
    planes[1] = evenRows[1];
    planes[2] = oddRows[0];
    planes[3] = oddRows[1];
}

void mergePlanes(const cv::Mat planes[4], cv::Mat& mosaic) {
    cv::Mat even = rowPairs(mosaic, 0), odd = rowPairs(mosaic, 1);
    const cv::Mat evenPlanes[2] = {planes[0], planes[1]};
    const cv::Mat oddPlanes[2] = {planes[2], planes[3]};
    cv::merge(evenPlanes, 2, even);  // writes through the views (sizes and type match)
    cv::merge(oddPlanes, 2, odd);
}

// 8-bit guide at a quarter of the mosaic's size: 4 x 4 area means of all sites,
// black level removed, equalised.
cv::Mat guideOf(const cv::Mat& mosaic) {
    cv::Mat small, gray;
    cv::resize(mosaic, small, cv::Size(mosaic.cols / 4, mosaic.rows / 4), 0, 0, cv::INTER_AREA);
    const double scale = 255.0 / (kWhite - kBlack);
    small.convertTo(gray, CV_8U, scale, -kBlack * scale);
    cv::equalizeHist(gray, gray);
    return gray;
}

// Aligns every frame to the reference and writes the mean of the aligned normal
// frames (reference onward) to `output`; `aligned` receives every aligned frame.
void nightPeer(const std::vector<Frame>& frames, Frame& output, std::vector<Frame>& aligned) {
    std::vector<cv::Mat> mosaics(kFrames), guides(kFrames);
    for (int i = 0; i < kFrames; ++i) {
        mosaics[i] = cv::Mat(kHeight, kWidth, CV_16U, const_cast<short*>(frames[i].data()));
        guides[i] = guideOf(mosaics[i]);
    }
    std::vector<cv::Point2f> refPoints;
    cv::goodFeaturesToTrack(guides[kReference], refPoints, 640, 0.01, 8.0);

    cv::Mat sum[4];
    const cv::Size planeSize(kWidth / 2, kHeight / 2);
    for (cv::Mat& s : sum) s = cv::Mat::zeros(planeSize, CV_32F);
    for (int i = 0; i < kFrames; ++i) {
        cv::Mat planes[4];
        splitPlanes(mosaics[i], planes);
        cv::Mat warped[4];
        if (i == kReference) {
            for (int p = 0; p < 4; ++p) warped[p] = planes[p];
        } else {
            std::vector<cv::Point2f> curPoints;
            std::vector<unsigned char> status;
            std::vector<float> error;
            cv::calcOpticalFlowPyrLK(guides[kReference], guides[i], refPoints, curPoints, status, error,
                                     cv::Size(21, 21), 3);
            std::vector<cv::Point2f> from, to;
            for (size_t k = 0; k < status.size(); ++k) {
                if (status[k] == 0) continue;
                from.push_back(refPoints[k]);
                to.push_back(curPoints[k]);
            }
            // Reference guide -> frame guide; a plane is twice the guide's size,
            // so the translation doubles and the linear part stays.
            cv::Mat model = from.size() >= 3 ? cv::estimateAffine2D(from, to, cv::noArray(), cv::RANSAC, 1.5)
                                             : cv::Mat();
            if (model.empty()) model = (cv::Mat_<double>(2, 3) << 1, 0, 0, 0, 1, 0);
            model.at<double>(0, 2) *= 2.0;
            model.at<double>(1, 2) *= 2.0;
            for (int p = 0; p < 4; ++p)
                cv::warpAffine(planes[p], warped[p], model, planeSize, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                               cv::BORDER_REPLICATE);
        }
        cv::Mat alignedMosaic(kHeight, kWidth, CV_16U, aligned[i].data());
        mergePlanes(warped, alignedMosaic);
        if (i >= kReference)
            for (int p = 0; p < 4; ++p) cv::accumulate(warped[p], sum[p]);
    }
    cv::Mat mean[4];
    for (int p = 0; p < 4; ++p) sum[p].convertTo(mean[p], CV_16U, 1.0 / (kFrames - kReference));
    cv::Mat out(kHeight, kWidth, CV_16U, output.data());
    mergePlanes(mean, out);
}

// ------------------------------------------------------------------ HDR peer

constexpr int kHdrLevels = 10;
constexpr int kHdrMembers = 4;

// Laplacian exposure fusion of the mosaic as one plane. The members and their
// digital gains are the library's bracket: long, mid, the short exposure twice,
// gains max(r/4, 1), max(r/4, 1), max(r/2, 1), r; black removed, in [0, 1].
void hdrPeer(const Frame& shortFrame, const Frame& midFrame, const Frame& longFrame, float ratio, Frame& output) {
    const Frame* members[kHdrMembers] = {&longFrame, &midFrame, &shortFrame, &shortFrame};
    const double gains[kHdrMembers] = {std::max(ratio / 4.0, 1.0), std::max(ratio / 4.0, 1.0),
                                       std::max(ratio / 2.0, 1.0), static_cast<double>(ratio)};
    std::vector<cv::Mat> images(kHdrMembers), weights(kHdrMembers);
    cv::Mat weightSum = cv::Mat::zeros(kHeight, kWidth, CV_32F);
    for (int k = 0; k < kHdrMembers; ++k) {
        const cv::Mat raw(kHeight, kWidth, CV_16U, const_cast<short*>(members[k]->data()));
        const double scale = gains[k] / (kWhite - kBlack);
        raw.convertTo(images[k], CV_32F, scale, -kBlack * scale);
        cv::min(images[k], 1.0, images[k]);
        cv::max(images[k], 0.0, images[k]);
        // Gaussian well-exposedness around mid-grey (sigma 0.2).
        cv::Mat d;
        cv::subtract(images[k], 0.5, d);
        cv::multiply(d, d, d, -1.0 / (2 * 0.2 * 0.2));
        cv::exp(d, weights[k]);
        weights[k] += 1e-12;
        weightSum += weights[k];
    }
    std::vector<cv::Mat> fused;
    for (int k = 0; k < kHdrMembers; ++k) {
        cv::divide(weights[k], weightSum, weights[k]);
        std::vector<cv::Mat> gaussW, gaussI;
        cv::buildPyramid(weights[k], gaussW, kHdrLevels - 1);
        cv::buildPyramid(images[k], gaussI, kHdrLevels - 1);
        if (fused.empty())
            for (const cv::Mat& level : gaussI) fused.push_back(cv::Mat::zeros(level.size(), CV_32F));
        for (int l = 0; l < kHdrLevels; ++l) {
            cv::Mat laplace;
            if (l + 1 < kHdrLevels) {
                cv::pyrUp(gaussI[l + 1], laplace, gaussI[l].size());
                cv::subtract(gaussI[l], laplace, laplace);
            } else {
                laplace = gaussI[l];
            }
            cv::accumulateProduct(laplace, gaussW[l], fused[l]);
        }
    }
    cv::Mat result = fused[kHdrLevels - 1];
    for (int l = kHdrLevels - 2; l >= 0; --l) {
        cv::Mat up;
        cv::pyrUp(result, up, fused[l].size());
        result = up + fused[l];
    }
    cv::Mat out(kHeight, kWidth, CV_16U, output.data());
    result.convertTo(out, CV_16U, kWhite - kBlack, kBlack);
}

struct Row {
    const char* path;
    double library;
    double peer;
    double peerOneThread;
};

void printRow(const Row& r) {
    std::printf("| %-28s | %10.1f | %10.1f | %6.2f | %13.1f | %6.2f |\n", r.path, r.library, r.peer,
                r.library / r.peer, r.peerOneThread, r.library / r.peerOneThread);
}

}  // namespace

int main() {
    std::printf("building synthetic data (%d x %d)...\n", kWidth, kHeight);
    std::fflush(stdout);
    const kep::synth::Scene scene(kWidth, kHeight, 7);
    kep::synth::BurstOptions burstOptions;
    burstOptions.width = kWidth;
    burstOptions.height = kHeight;
    burstOptions.frames = kFrames;
    const kep::synth::Burst burst = kep::synth::makeNightBurst(scene, burstOptions);
    const kep::synth::HdrBracketOptions bracketOptions;
    const kep::synth::HdrBracket bracket = kep::synth::makeHdrBracket(scene, bracketOptions);
    const float ratio = static_cast<float>(bracketOptions.ratio);

    const size_t samples = static_cast<size_t>(kWidth) * kHeight;
    std::vector<Frame> frames = burst.frames;
    std::vector<short*> framePtrs(kFrames);
    Frame output(samples);
    std::vector<Frame> peerAligned(kFrames, Frame(samples));

    int usable = 0;
    USERZOOM zoom{};
    auto restoreBurst = [&] {
        for (int i = 0; i < kFrames; ++i) {
            std::memcpy(frames[i].data(), burst.frames[i].data(), samples * sizeof(short));
            framePtrs[i] = frames[i].data();
        }
    };
    auto nothing = [] {};
    auto libraryNight = [&] {
        usable = 0;
        zoom = USERZOOM{};
        qnNocturnPreProcess(framePtrs.data(), output.data(), kFrames, &usable, kWidth, kHeight, 1, 30, 0, &zoom, 0,
                            kBlack, kBlack, kBlack, 0.0f, 0.0f, 1.0f, 1.0f, 0.0f, 0.5f);
    };
    auto peerNight = [&] { nightPeer(burst.frames, output, peerAligned); };

    Frame a, b, c, fused(samples);
    int black[4] = {kBlack, kBlack, kBlack, kBlack};
    auto restoreBracket = [&] {
        a = bracket.shortFrame;
        b = bracket.midFrame;
        c = bracket.longFrame;
        black[0] = black[1] = black[2] = black[3] = kBlack;
    };
    auto libraryHdr = [&] {
        hdrProcess(a.data(), b.data(), c.data(), fused.data(), 1.0f, 1.0f, kWidth, kHeight, ratio, 0, black);
    };
    auto peerHdr = [&] { hdrPeer(bracket.shortFrame, bracket.midFrame, bracket.longFrame, ratio, fused); };

    const int defaultThreads = cv::getNumThreads();
    Row night{"night, 8 frames", 0, 0, 0};
    Row hdr{"HDR, 3 exposures", 0, 0, 0};
    {
        Quiet quiet;
        night.library = medianMs(restoreBurst, libraryNight);
    }
    const int libraryUsable = usable, libraryPoints = zoom.pointCount;
    // Both merges against the noiseless reference geometry, away from the edges:
    // the peer is a working alignment, not just the same amount of arithmetic.
    const int margin = 64;
    const double libraryPsnr =
        kep::synth::psnr(output.data(), burst.clean.data(), kWidth, margin, margin, kWidth - margin, kHeight - margin);
    night.peer = medianMs(nothing, peerNight);
    const double peerPsnr =
        kep::synth::psnr(output.data(), burst.clean.data(), kWidth, margin, margin, kWidth - margin, kHeight - margin);
    {
        Quiet quiet;
        hdr.library = medianMs(restoreBracket, libraryHdr);
    }
    hdr.peer = medianMs(nothing, peerHdr);
    cv::setNumThreads(1);
    night.peerOneThread = medianMs(nothing, peerNight);
    hdr.peerOneThread = medianMs(nothing, peerHdr);
    cv::setNumThreads(defaultThreads);

    std::printf("\n%d x %d, median of %d runs after one warm-up (wall, steady_clock)\n", kWidth, kHeight, kRuns);
    std::printf("night merge against the noiseless scene: library %.2f dB (%d usable frames, %d feature points), "
                "peer %.2f dB\n",
                libraryPsnr, libraryUsable, libraryPoints, peerPsnr);
    std::printf("OpenCV %s, default threads %d; hardware threads %u\n\n", CV_VERSION, defaultThreads,
                std::thread::hardware_concurrency());
    std::printf("| %-28s | %10s | %10s | %6s | %13s | %6s |\n", "path", "library ms", "peer ms", "ratio",
                "peer 1 thr ms", "ratio");
    std::printf("|%s|%s|%s|%s|%s|%s|\n", std::string(30, '-').c_str(), std::string(11, '-').append(":").c_str(),
                std::string(11, '-').append(":").c_str(), std::string(7, '-').append(":").c_str(),
                std::string(14, '-').append(":").c_str(), std::string(7, '-').append(":").c_str());
    printRow(night);
    printRow(hdr);
    return 0;
}
