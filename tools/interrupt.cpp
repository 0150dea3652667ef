#include "tools/interrupt.h"

#include "tools/progress.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t caught = 0;

void note(int number) {
    caught = number;
}

} // namespace

void catchInterrupts() {
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler == SIG_IGN) // as nohup wants it
            continue;
        action = {};
        action.sa_handler = note; // without SA_RESTART, so that waiting for a lock ends
        sigaction(number, &action, nullptr);
    }
}

bool isInterrupted() {
    return caught != 0;
}

void throwIfInterrupted() {
    Progress::show();
    if (caught != 0)
        throw Interrupted{static_cast<int>(caught)};
}

void endByInterrupt(const Interrupted& interrupted) {
    std::signal(interrupted.signal, SIG_DFL);
    std::raise(interrupted.signal);
    std::_Exit(128 + interrupted.signal);
}
