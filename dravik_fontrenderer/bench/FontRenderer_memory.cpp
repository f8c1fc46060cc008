// Memory the font renderer holds as lines of more scripts are drawn: the heap
// in use (glibc's mallinfo2), the process's anonymous resident pages
// (/proc/self/status) and the resident pages of the font files it has mapped
// (/proc/self/smaps), after init() and after each line, so that the cost of
// each fallback face shows when the first line that needs it opens it. Prints
// one row per step; exits 1 when a line cannot be drawn.
#include <malloc.h>

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "dravik_fontrenderer/FontRenderer.h"

namespace {

struct Usage {
    long heapKiB = 0;
    long rssAnonKiB = 0;
    long fontPagesKiB = 0;
};

bool isFontFile(const std::string& path) {
    for (const char* suffix : {".ttf", ".ttc", ".otf"}) {
        const std::string s(suffix);
        if (path.size() >= s.size() && path.compare(path.size() - s.size(), s.size(), s) == 0) {
            return true;
        }
    }
    return false;
}

// Resident KiB of every mapping of a font file. A mapping's header line names
// its file last; its "Rss:" line follows.
long fontPages() {
    std::ifstream smaps("/proc/self/smaps");
    std::string line;
    bool inFont = false;
    long total = 0;
    while (std::getline(smaps, line)) {
        if (line.compare(0, 4, "Rss:") == 0) {
            total += inFont ? std::stol(line.substr(4)) : 0;
        } else if (line.find(' ') != std::string::npos && line.find(':') > line.find(' ')) {
            inFont = isFontFile(line.substr(line.find_last_of(' ') + 1));
        }
    }
    return total;
}

long statusField(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key) {
        if (key == name + ":") {
            long value = 0;
            status >> value;
            return value;
        }
        std::getline(status, key);
    }
    return -1;
}

Usage usage() {
    Usage u;
    const struct mallinfo2 info = mallinfo2();
    u.heapKiB = long((info.uordblks + info.hblkhd) / 1024);
    u.rssAnonKiB = statusField("RssAnon");
    u.fontPagesKiB = fontPages();
    return u;
}

void report(const char* step, const Usage& now, const Usage& before) {
    std::printf("%-34s %9ld %+8ld %9ld %+8ld %9ld %+8ld\n", step, now.heapKiB,
                now.heapKiB - before.heapKiB, now.rssAnonKiB, now.rssAnonKiB - before.rssAnonKiB,
                now.fontPagesKiB, now.fontPagesKiB - before.fontPagesKiB);
}

bool draw(FontRenderer& renderer, const std::string& text, unsigned size) {
    unsigned lineHeight = 0;
    unsigned width = 0;
    unsigned height = 0;
    if (!renderer.maxLineHeight(size, lineHeight) ||
        !renderer.lineRender(text, size, nullptr, 320, lineHeight, 320, true, width, height)) {
        return false;
    }
    std::vector<unsigned char> buffer(std::size_t(width) * height);
    return renderer.lineRender(text, size, buffer.data(), 320, 240, width, false, width, height);
}

struct Step {
    const char* name;
    const char* text;
};
const Step kSteps[] = {
    {"latin line", "Firmware 2.1 is ready: restart in 00:30."},
    {"arabic line (DejaVu Sans)", "مرحبا بالعالم"},
    {"hebrew line (DejaVu Sans)", "עדכון תוכנה"},
    {"devanagari line (opens Noto)", "नमस्ते"},
    {"thai line (opens Noto)", "กำลังอัปเดต"},
    {"chinese line (opens WenQuanYi)", "正在更新固件"},
    {"japanese line", "ファームウェア更新中"},
    {"korean line", "펌웨어 업데이트"},
    {"emoji line (tries every face)", "Done ✓ 😀 🎉"},
    {"all lines again at size 48", nullptr},
};

}  // namespace

int main() {
    const unsigned size = 24;
    std::printf("%-34s %9s %8s %9s %8s %9s %8s\n", "after", "heap KiB", "change", "anon KiB",
                "change", "font KiB", "change");
    Usage before = usage();
    report("start", before, before);
    FontRenderer renderer;
    if (!renderer.init()) {
        return 1;
    }
    Usage now = usage();
    report("init()", now, before);
    for (const auto& step : kSteps) {
        before = now;
        bool drawn = true;
        if (step.text != nullptr) {
            drawn = draw(renderer, step.text, size);
        } else {
            for (const auto& again : kSteps) {
                drawn = drawn && (again.text == nullptr || draw(renderer, again.text, 2 * size));
            }
        }
        if (!drawn) {
            std::fprintf(stderr, "cannot draw the %s\n", step.name);
            return 1;
        }
        now = usage();
        report(step.name, now, before);
    }
    return 0;
}
