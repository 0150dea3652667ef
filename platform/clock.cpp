#include "platform/clock.h"

#include <algorithm>
#include <chrono>

namespace {

using namespace std::chrono;

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kNanosecondsPerUnit = 100;
constexpr int64_t kEpochGap = 11'644'473'600; // seconds from 1601 to 1970

constexpr int kFirstYear = 1980;
constexpr sys_seconds kFirst = sys_days(year(kFirstYear) / 1 / 1);
constexpr sys_seconds kLast =
    sys_days(year(kFirstYear + 127) / 12 / 31) + hours(23) + minutes(59) + seconds(58);

} // namespace

void _ftime(_timeb* now) {
    const auto sinceEpoch = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    const auto whole = floor<seconds>(sinceEpoch);
    now->time = whole.count();
    now->millitm = static_cast<uint16_t>((sinceEpoch - whole).count());
}

FILETIME toFileTime(int64_t wholeSeconds, int64_t nanoseconds) {
    constexpr int64_t most = INT64_MAX / kUnitsPerSecond - kEpochGap - 1;
    const int64_t since1601 = std::clamp(wholeSeconds, -kEpochGap, most) + kEpochGap;
    const auto units = static_cast<uint64_t>(since1601 * kUnitsPerSecond + nanoseconds / kNanosecondsPerUnit);
    return {static_cast<uint32_t>(units), static_cast<uint32_t>(units >> 32)};
}

int FileTimeToDosDateTime(const FILETIME* time, uint16_t* date, uint16_t* timeOfDay) {
    const uint64_t units = (uint64_t(time->dwHighDateTime) << 32) | time->dwLowDateTime;
    const sys_seconds given{seconds(static_cast<int64_t>(units / kUnitsPerSecond) - kEpochGap)};
    const sys_seconds held = std::clamp(given, kFirst, kLast);
    const auto day = floor<days>(held);
    const year_month_day calendar(day);
    const hh_mm_ss clock(held - day);
    *date = static_cast<uint16_t>(unsigned(int(calendar.year()) - kFirstYear) << 9 |
                                  unsigned(calendar.month()) << 5 | unsigned(calendar.day()));
    *timeOfDay = static_cast<uint16_t>(clock.hours().count() << 11 | clock.minutes().count() << 5 |
                                       clock.seconds().count() / 2);
    return 1;
}
