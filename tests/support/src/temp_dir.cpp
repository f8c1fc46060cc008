#include "dravik_test_support/temp_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace dravik::testsupport {

TempDir::TempDir(const std::string& prefix) {
    std::error_code error;
    const std::filesystem::path base = std::filesystem::temp_directory_path(error);
    if (error) {
        throw std::runtime_error("no temporary directory: " + error.message());
    }
    std::string pattern = (base / (prefix + "XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;  // a leftover in the temporary directory is harmless
    (void)std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    const std::string path = file(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
    return path;
}

std::string TempDir::read(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace dravik::testsupport
