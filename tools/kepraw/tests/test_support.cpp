#include "test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kepraw_test {

RunResult runKepraw(const std::vector<std::string>& args, const std::string& cwd) {
    TempDir capture;
    const std::string outPath = capture.file("stdout"), errPath = capture.file("stderr");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    std::vector<std::string> storage{KEPRAW_EXE};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : storage) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, KEPRAW_EXE, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " KEPRAW_EXE);
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    r.out = readBytes(outPath);
    r.err = readBytes(errPath);
    return r;
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kepraw-test-XXXXXX";
    if (!mkdtemp(&pattern[0])) throw std::runtime_error("cannot create a scratch directory");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::vector<std::string> TempDir::list() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

void writeHeaderless(const std::string& path, const std::vector<short>& samples) {
    std::string bytes(samples.size() * 2, '\0');
    for (size_t i = 0; i < samples.size(); ++i) {
        bytes[2 * i] = static_cast<char>(samples[i] & 0xff);
        bytes[2 * i + 1] = static_cast<char>((static_cast<unsigned short>(samples[i]) >> 8) & 0xff);
    }
    writeBytes(path, bytes);
}

std::vector<short> readHeaderless(const std::string& path) {
    const std::string bytes = readBytes(path);
    std::vector<short> samples(bytes.size() / 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<short>(static_cast<unsigned char>(bytes[2 * i]) |
                                        (static_cast<unsigned char>(bytes[2 * i + 1]) << 8));
    return samples;
}

void writeDngFile(const std::string& path, const std::vector<short>& samples, int width, int height,
                  const kepraw::DngOptions& options) {
    std::vector<unsigned short> stored(samples.begin(), samples.end());
    kepraw::writeDng(path, stored.data(), width, height, options);
}

std::vector<short> deepen(const std::vector<short>& samples, int white) {
    std::vector<short> out(samples.size());
    for (size_t i = 0; i < samples.size(); ++i)
        out[i] = static_cast<short>(static_cast<long>(samples[i]) * white / 1023);
    return out;
}

std::map<std::string, std::string> snapshot(const TempDir& dir) {
    std::map<std::string, std::string> files;
    for (const std::string& name : dir.list())
        if (std::filesystem::is_regular_file(dir.file(name))) files[name] = readBytes(dir.file(name));
    return files;
}

kep::synth::Burst smallBurst(int width, int height, int frames, uint32_t seed) {
    const kep::synth::Scene scene(width, height, seed);
    kep::synth::BurstOptions options;
    options.width = width;
    options.height = height;
    options.frames = frames;
    options.seed = seed;
    return kep::synth::makeNightBurst(scene, options);
}

bool pngSize(const std::string& path, int& width, int& height) {
    const std::string b = readBytes(path);
    if (b.size() < 24 || b.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 || b.compare(12, 4, "IHDR") != 0) return false;
    auto be32 = [&](size_t at) {
        return (static_cast<unsigned char>(b[at]) << 24) | (static_cast<unsigned char>(b[at + 1]) << 16) |
               (static_cast<unsigned char>(b[at + 2]) << 8) | static_cast<unsigned char>(b[at + 3]);
    };
    width = be32(16);
    height = be32(20);
    return true;
}

}  // namespace kepraw_test
