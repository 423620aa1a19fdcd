#include "output_files.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "cli.h"

namespace kepraw {

namespace {

// Temporaries to remove if a signal ends the process. Kept in fixed storage so
// that the handler only calls unlink().
constexpr int kMaxTemps = 16;
char g_temps[kMaxTemps][PATH_MAX];
volatile sig_atomic_t g_tempUsed[kMaxTemps];

extern "C" void removeTempsAndDie(int sig) {
    for (int i = 0; i < kMaxTemps; ++i)
        if (g_tempUsed[i]) ::unlink(g_temps[i]);
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

void registerTemp(const std::string& path) {
    static bool handlersInstalled = false;
    if (!handlersInstalled) {
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) std::signal(sig, removeTempsAndDie);
        handlersInstalled = true;
    }
    for (int i = 0; i < kMaxTemps; ++i) {
        if (!g_tempUsed[i] && path.size() < PATH_MAX) {
            std::memcpy(g_temps[i], path.c_str(), path.size() + 1);
            g_tempUsed[i] = 1;
            return;
        }
    }
}

void unregisterTemp(const std::string& path) {
    for (int i = 0; i < kMaxTemps; ++i)
        if (g_tempUsed[i] && path == g_temps[i]) g_tempUsed[i] = 0;
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The path with its directory resolved, so that "./a.raw" and "a.raw" compare equal.
std::string canonicalTarget(const std::string& path) {
    char resolved[PATH_MAX];
    const std::string dir = directoryOf(path);
    if (!::realpath(dir.c_str(), resolved)) return path;
    return std::string(resolved) + "/" + baseName(path);
}

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

void writeBytes(const std::string& path, const void* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    const bool wrote = std::fwrite(data, 1, size, f) == size;
    const int savedErrno = errno;
    const bool closed = std::fclose(f) == 0;
    if (!wrote || !closed)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(wrote ? errno : savedErrno));
}

}  // namespace

OutputFiles::OutputFiles(const std::vector<std::string>& inputs) {
    for (const std::string& in : inputs) {
        struct stat st;
        if (::stat(in.c_str(), &st) == 0)
            inputs_.push_back(
                {in, static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino)});
    }
}

OutputFiles::~OutputFiles() {
    if (committed_) return;
    for (const Entry& e : entries_) {
        ::unlink(e.temp.c_str());
        unregisterTemp(e.temp);
    }
}

std::string OutputFiles::claim(const std::string& path, const std::string& option) {
    if (path.empty()) throw InputError(option + ": empty file name");
    if (path.back() == '/') throw InputError(option + ": " + path + " names a directory, not a file");
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) throw InputError(option + ": " + path + " is a directory");
        for (const Identity& in : inputs_)
            if (in.device == static_cast<unsigned long long>(st.st_dev) &&
                in.inode == static_cast<unsigned long long>(st.st_ino))
                throw InputError(option + ": " + path + " is the input file " + in.path +
                                 "; kepraw never overwrites its inputs, choose another output name");
        if (!S_ISREG(st.st_mode)) throw InputError(option + ": " + path + " is not a regular file");
    }
    const std::string canonical = canonicalTarget(path);
    for (const Entry& e : entries_)
        if (e.canonical == canonical) throw InputError(option + ": " + path + " is also the output of " + e.option);

    std::string temp = directoryOf(path) + "/." + baseName(path) + ".kepraw-XXXXXX";
    std::vector<char> buffer(temp.begin(), temp.end());
    buffer.push_back('\0');
    const int fd = ::mkstemp(buffer.data());
    if (fd < 0) throw InputError(option + ": cannot create " + path + ": " + std::strerror(errno));
    ::fchmod(fd, 0666 & ~currentUmask());
    ::close(fd);
    temp.assign(buffer.data());
    registerTemp(temp);
    entries_.push_back({path, canonical, temp, option});
    return temp;
}

void OutputFiles::commit() {
    for (const Entry& e : entries_) {
        if (::rename(e.temp.c_str(), e.target.c_str()) != 0)
            throw std::runtime_error("cannot write " + e.target + ": " + std::strerror(errno));
        unregisterTemp(e.temp);
    }
    committed_ = true;
}

void writeHeaderlessRaw(const std::string& path, const short* samples, size_t count) {
    std::vector<unsigned char> bytes(count * 2);
    for (size_t i = 0; i < count; ++i) {
        const unsigned short v = static_cast<unsigned short>(samples[i]);
        bytes[2 * i] = static_cast<unsigned char>(v & 0xff);
        bytes[2 * i + 1] = static_cast<unsigned char>(v >> 8);
    }
    writeBytes(path, bytes.data(), bytes.size());
}

void writeTextFile(const std::string& path, const std::string& text) {
    writeBytes(path, text.data(), text.size());
}

bool isDngPath(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return false;
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext == "dng";
}

}  // namespace kepraw
