#pragma once

#include <string>

namespace dravik::bench {

// A scratch directory under /tmp, removed with everything in it when the
// object goes. Benchmarks write their input files here so that nothing they
// read depends on the machine's own configuration.
class TempDir {
public:
    // Throws std::runtime_error when the directory cannot be made.
    explicit TempDir(const std::string& prefix);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // Writes `text` to `name` inside the directory and returns its full path;
    // throws std::runtime_error when the file cannot be written.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

}  // namespace dravik::bench
