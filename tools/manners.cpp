#include "tools/manners.h"

#include "tools/failure.h"
#include "tools/progress.h"

#include <cstdio>

void tell(const std::string& message) {
    if (asked.quiet)
        return;
    Progress::hide();
    std::fputs("kal: ", stderr);
    for (const char c : message)
        std::fputc(onOneLine(c), stderr);
    std::fputc('\n', stderr);
}

std::string humanBytes(uint64_t bytes) {
    constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    auto number = static_cast<double>(bytes);
    size_t unit = 0;
    for (; number >= 1023.95 && unit < 4; unit++)
        number /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", number, units[unit]);
    return text;
}

std::string shownBytes(uint64_t bytes) {
    return asked.human ? humanBytes(bytes) : std::to_string(bytes);
}
