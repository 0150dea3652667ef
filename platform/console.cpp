#include "platform/console.h"

#include "platform/console_keys.h"
#include "platform/host_calls.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kInput = STDIN_FILENO;
constexpr int kInputOver = -1;
constexpr int kInterrupted = -2;

// How long the rest of a special key may take, in milliseconds; a lone Escape is known after that.
constexpr int kKeyGap = 50;

// Signals that may end or stop the process while it waits for a key.
constexpr int kSignals[] = {SIGINT,  SIGTERM, SIGHUP,  SIGQUIT, SIGTSTP,  SIGALRM,
                            SIGUSR1, SIGUSR2, SIGPIPE, SIGXCPU, SIGVTALRM};
constexpr int kSignalCount = int(sizeof kSignals / sizeof kSignals[0]);

std::mutex keyboard;      // one caller waits at a time; holds all that follows
uint8_t typed[kKeyBytes]; // bytes read and not yet made a key
size_t typedCount;
int specialCode = kInputOver; // the second half of a special key

volatile sig_atomic_t caughtSignal;
pthread_t waitingThread;

// Ends the wait; what the signal is to do happens when the terminal is back in order.
void catchSignal(int signal) {
    if (pthread_equal(pthread_self(), waitingThread) != 0)
        caughtSignal = signal;
    else
        hostCalls.pthread_kill(waitingThread, signal);
}

// While in scope the terminal gives single keys without echo, and the signals only end the wait, which is the
// one place where they come through. Then all is put back as it was.
class KeyMode {
public:
    KeyMode() {
        waitingThread = pthread_self();
        caughtSignal = 0;
        sigset_t blocked;
        sigemptyset(&blocked);
        for (int signal : kSignals)
            sigaddset(&blocked, signal);
        hostCalls.pthread_sigmask(SIG_BLOCK, &blocked, &waitMask_);
        struct sigaction action = {};
        action.sa_handler = catchSignal;
        sigfillset(&action.sa_mask);
        for (int i = 0; i < kSignalCount; i++) {
            hostCalls.sigaction(kSignals[i], nullptr, &actions_[i]);
            if (actions_[i].sa_handler != SIG_IGN)
                hostCalls.sigaction(kSignals[i], &action, nullptr);
        }
        hostCalls.tcgetattr(kInput, &terminal_);
        termios keys = terminal_;
        keys.c_lflag &= ~tcflag_t(ICANON | ECHO);
        keys.c_iflag &= ~tcflag_t(ICRNL | INLCR | IGNCR);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        hostCalls.tcsetattr(kInput, TCSANOW, &keys); // without a flush: what was typed ahead stays
    }
    ~KeyMode() {
        hostCalls.tcsetattr(kInput, TCSANOW, &terminal_);
        for (int i = 0; i < kSignalCount; i++)
            hostCalls.sigaction(kSignals[i], &actions_[i], nullptr);
        hostCalls.pthread_sigmask(SIG_SETMASK, &waitMask_, nullptr);
    }
    KeyMode(const KeyMode&) = delete;
    KeyMode& operator=(const KeyMode&) = delete;

    // Whether a byte has come within `limit` milliseconds, or at all (-1).
    bool waitForByte(int limit) const {
        pollfd input = {kInput, POLLIN, 0};
        const timespec gap = {0, long(kKeyGap) * 1'000'000};
        return hostCalls.ppoll(&input, 1, limit < 0 ? nullptr : &gap, &waitMask_) > 0;
    }

private:
    sigset_t waitMask_;
    struct sigaction actions_[kSignalCount];
    termios terminal_;
};

enum class Reading { byte, nothing, end };

Reading readByte(uint8_t* byte) {
    const ssize_t count = hostCalls.read(kInput, byte, 1);
    if (count == 1)
        return Reading::byte;
    return count < 0 && (errno == EINTR || errno == EAGAIN) ? Reading::nothing : Reading::end;
}

int takeKey(const ConsoleKey& key) {
    typedCount -= key.byteCount;
    std::memmove(typed, typed + key.byteCount, typedCount);
    if (key.code == 0)
        specialCode = key.specialCode;
    return key.code;
}

int readKey(const KeyMode& mode) {
    ConsoleKey key = {};
    while (typedCount == 0 || (key = decodeKey(typed, typedCount, false)).byteCount == 0) {
        const bool started = typedCount > 0;
        const bool ready = mode.waitForByte(started ? kKeyGap : -1);
        if (caughtSignal != 0)
            return kInterrupted;
        const Reading reading = ready ? readByte(typed + typedCount) : Reading::nothing;
        if (reading == Reading::byte) {
            typedCount++;
        } else if (started) {
            key = decodeKey(typed, typedCount, true);
            break;
        } else if (reading == Reading::end) {
            return kInputOver;
        }
    }
    return takeKey(key);
}

// A key from the terminal, or kInterrupted with the signal that ended the wait.
int keyFromTerminal(int* signal) {
    const std::lock_guard guard(keyboard);
    if (specialCode != kInputOver)
        return std::exchange(specialCode, kInputOver);
    int key;
    {
        const KeyMode mode;
        key = readKey(mode);
    }
    *signal = caughtSignal;
    return key;
}

int byteFromInput() {
    uint8_t byte = 0;
    for (;;) {
        pollfd input = {kInput, POLLIN, 0};
        hostCalls.poll(&input, 1, -1);
        switch (readByte(&byte)) {
        case Reading::byte:
            return byte;
        case Reading::end:
            return kInputOver;
        case Reading::nothing:
            break;
        }
    }
}

} // namespace

int _getch() {
    if (hostCalls.isatty(kInput) == 0)
        return byteFromInput();
    for (;;) {
        int signal = 0;
        const int key = keyFromTerminal(&signal);
        if (signal != 0) // it ends or stops the process now, or runs the handler that it has
            hostCalls.raise(signal);
        if (key != kInterrupted)
            return key;
    }
}
