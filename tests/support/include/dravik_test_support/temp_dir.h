#pragma once

#include <string>

namespace dravik::testsupport {

// A new directory below the system's temporary directory ($TMPDIR or /tmp),
// removed with everything in it when the object goes. Tests and benchmarks
// keep their scratch files here, so nothing they read depends on the host.
class TempDir {
public:
    // Makes `<temporary directory>/<prefix>XXXXXX`; throws std::runtime_error
    // with the reason when it cannot.
    explicit TempDir(const std::string& prefix = "dravik_test_");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // The path of `name` inside the directory (the file need not exist).
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `bytes` to `name` inside the directory, replacing what was there,
    // and returns its path; throws std::runtime_error when it cannot.
    std::string write(const std::string& name, const std::string& bytes) const;
    // What `name` inside the directory holds; empty when it cannot be read.
    std::string read(const std::string& name) const;

private:
    std::string path_;
};

}  // namespace dravik::testsupport
