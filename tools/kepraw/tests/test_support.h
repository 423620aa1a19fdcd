#pragma once

#include <map>
#include <string>
#include <vector>

#include "dng_writer.h"
#include "synthetic_scene.h"

// Helpers of the kepraw integration tests: running the built tool, scratch
// directories, fixture files and snapshots that prove inputs stay untouched.
namespace kepraw_test {

struct RunResult {
    int status = -1;  // exit status, or -signal when the tool died
    std::string out;
    std::string err;
};

// Runs the built kepraw with `args` in directory `cwd` (the test's own when empty).
RunResult runKepraw(const std::vector<std::string>& args, const std::string& cwd = "");

// A scratch directory removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::vector<std::string> list() const;  // names of the entries, sorted

private:
    std::string path_;
};

std::string readBytes(const std::string& path);
void writeBytes(const std::string& path, const std::string& bytes);
bool exists(const std::string& path);

void writeHeaderless(const std::string& path, const std::vector<short>& samples);
std::vector<short> readHeaderless(const std::string& path);

// Writes samples (any depth) as a CFA DNG.
void writeDngFile(const std::string& path, const std::vector<short>& samples, int width, int height,
                  const kepraw::DngOptions& options);

// Scales 10-bit samples to a deeper white level (the fixtures' 12-bit data).
std::vector<short> deepen(const std::vector<short>& samples, int white);

// Contents of every regular file in a directory, to check that a command changed nothing.
std::map<std::string, std::string> snapshot(const TempDir& dir);

// A small night burst of the synthetic scene.
kep::synth::Burst smallBurst(int width, int height, int frames, uint32_t seed = 5);

// Width and height from a PNG's header; false when it is not a PNG.
bool pngSize(const std::string& path, int& width, int& height);

}  // namespace kepraw_test
