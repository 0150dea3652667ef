#include "tools/progress.h"

#include "tools/failure.h"
#include "tools/manners.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace std::chrono_literals;

std::atomic<Progress*> current = nullptr;
std::atomic<uint64_t> done; // bytes

constexpr size_t barWidth = 20;
constexpr size_t usualColumns = 80;

size_t columns() {
    winsize size = {};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usualColumns;
}

std::string minutes(double seconds) {
    char text[48];
    const auto whole = static_cast<unsigned long>(std::min(seconds + 0.5, 1e9));
    std::snprintf(text, sizeof text, "%lu:%02lu", whole / 60, whole % 60);
    return text;
}

} // namespace

Progress::Progress(uint64_t totalBytes) : total_(totalBytes), start_(Clock::now()), next_(start_ + 500ms) {
    done = 0;
    if (!asked.quiet && ::isatty(STDERR_FILENO) == 1)
        current = this;
}

Progress::~Progress() {
    hide();
    current = nullptr;
}

void Progress::of(const std::string& what) {
    if (Progress* const shown = current)
        shown->what_ = onOneLine(what);
}

void Progress::add(uint64_t bytes) {
    done.fetch_add(bytes, std::memory_order_relaxed);
}

void Progress::show() {
    Progress* const shown = current;
    if (shown == nullptr || shown->thread_ != std::this_thread::get_id())
        return;
    if (const auto now = Clock::now(); now >= shown->next_)
        shown->draw(now);
}

void Progress::hide() {
    if (Progress* const shown = current; shown != nullptr && std::exchange(shown->drawn_, false))
        std::fputs("\r\033[K", stderr);
}

void Progress::draw(Clock::time_point now) {
    const uint64_t bytes = done;
    const double rate = static_cast<double>(bytes) / std::chrono::duration<double>(now - start_).count();
    std::string line;
    if (total_ > 0) {
        const double part = std::min(static_cast<double>(bytes) / static_cast<double>(total_), 1.0);
        const auto filled = static_cast<size_t>(part * barWidth);
        char percent[16];
        std::snprintf(percent, sizeof percent, "] %3.0f%%  ", part * 100);
        line = '[' + std::string(filled, '#') + std::string(barWidth - filled, '-') + percent;
    }
    line += humanBytes(bytes) + "  " + humanBytes(static_cast<uint64_t>(rate)) + "/s";
    if (total_ > 0 && rate > 0)
        line += "  " + minutes(static_cast<double>(total_ - std::min(bytes, total_)) / rate) + " left";
    line += "  " + what_;
    line.resize(std::min(line.size(), columns() - 1));
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    drawn_ = true;
    next_ = now + 100ms;
}
