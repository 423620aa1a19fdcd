#pragma once

#include <string>
#include <vector>

// Output files that never lose a user's data: every output is written to a
// temporary next to its target and renamed over it only when the whole command
// has succeeded; temporaries are removed on every other path (errors,
// exceptions, SIGINT/SIGTERM/SIGHUP). Outputs naming an input file are refused.
namespace kepraw {

class OutputFiles {
public:
    // `inputs`: the files the command reads; no output may name one of them.
    explicit OutputFiles(const std::vector<std::string>& inputs);
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Claims `path` for the output given by `option` ("-o", "--png", ...) and
    // creates its temporary at once, so that an unwritable location is reported
    // before any work is done. Returns the temporary's path, to be written in full.
    // Throws InputError for an input file, a path claimed twice, a directory or a
    // place where no file can be created.
    std::string claim(const std::string& path, const std::string& option);

    // Renames every temporary over its target (the command's last step).
    void commit();

private:
    struct Entry {
        std::string target;
        std::string canonical;
        std::string temp;
        std::string option;
    };
    struct Identity {
        std::string path;
        unsigned long long device;
        unsigned long long inode;
    };
    std::vector<Identity> inputs_;
    std::vector<Entry> entries_;
    bool committed_ = false;
};

// Writes samples as headerless little-endian 16-bit raw (the library's raw-file
// layout, values as they are). Throws std::runtime_error on I/O errors.
void writeHeaderlessRaw(const std::string& path, const short* samples, size_t count);

// Writes text (a JSON report) to `path`. Throws std::runtime_error on I/O errors.
void writeTextFile(const std::string& path, const std::string& text);

// Whether the output path names a DNG (by extension, any case).
bool isDngPath(const std::string& path);

}  // namespace kepraw
