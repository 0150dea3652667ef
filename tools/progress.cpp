#include "tools/progress.h"

#include "tools/failure.h"

#include <cstdio>
#include <unistd.h>

Progress::Progress(size_t total) : total_(total), visible_(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (visible_)
        std::fputs("\r\033[K", stderr);
}

void Progress::show(size_t done, const std::string& what) const {
    if (visible_)
        std::fprintf(stderr, "\r\033[K%zu/%zu %s", done + 1, total_, onOneLine(what).c_str());
}
