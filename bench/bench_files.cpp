#include "bench_files.h"

#include <ftw.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace dravik::bench {

namespace {

int removeEntry(const char* path, const struct stat* /*info*/, int /*flag*/, struct FTW* /*ftw*/) {
    (void)remove(path);  // best effort: only scratch files live here
    return 0;
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "_XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    (void)nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::write(const std::string& name, const std::string& text) const {
    std::string file = path_ + "/" + name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + file);
    }
    return file;
}

}  // namespace dravik::bench
