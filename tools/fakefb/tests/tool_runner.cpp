#include "tool_runner.h"

#include <fstream>
#include <iterator>

namespace fakefb::testsupport {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace fakefb::testsupport
