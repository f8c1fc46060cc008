// make_image_corpus DIR: writes the image corpus that the corpus test decodes
// through both decoders, and prints one line per file: its name, what every
// decoder should make of it, and what it covers.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "image_corpus.h"

namespace {

const char* outcomeName(dravik::image::corpus::Outcome outcome) {
    switch (outcome) {
        case dravik::image::corpus::Outcome::kDecoded:
            return "decoded";
        case dravik::image::corpus::Outcome::kRefused:
            return "refused";
        case dravik::image::corpus::Outcome::kEither:
            return "either";
    }
    return "?";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr,
                     "usage: %s DIR\n"
                     "Writes the image corpus into DIR (made when missing).\n",
                     argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    try {
        std::filesystem::create_directories(dir);
        uintmax_t bytes = 0;
        const auto files = dravik::image::corpus::writeImageCorpus(dir);
        for (const auto& file : files) {
            bytes += std::filesystem::file_size(dir + "/" + file.name);
            std::printf("%-44s %-8s %s\n", file.name.c_str(), outcomeName(file.outcome),
                        file.describe().c_str());
        }
        std::printf("%zu files, %ju bytes (outcomes under a bound of %ju pixels)\n", files.size(),
                    bytes, static_cast<uintmax_t>(dravik::image::corpus::kPixelBound));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    return 0;
}
