// What ends a command: a wrong file, a missing picture, a damaged archive, a full disk.
#ifndef KAL_TOOLS_FAILURE_H
#define KAL_TOOLS_FAILURE_H

#include <kal.h>

#include <stdexcept>
#include <string>

// One line for the user: what failed, and why.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& why) : runtime_error(why) {}
    Failure(const std::string& what, const std::string& why)
        : runtime_error(what + ": " + why), named_(true) {}

    // The same, with the name of what failed unless it has one.
    Failure of(const std::string& what) const { return named_ ? *this : Failure(what, this->what()); }

private:
    bool named_ = false;
};

// What a stored picture was to be read from makes no sense; the text says why.
class Damaged : public Failure {
public:
    using Failure::Failure;
};

// Does something whose failures say why but not of what: they get the name.
template <class Action>
auto named(const std::string& name, Action action) {
    try {
        return action();
    } catch (const Failure& failure) {
        throw Failure(name, failure.what());
    }
}

// A library status and a host error number in words.
std::string statusText(int16_t status);
std::string hostErrorText(int error);
// Throws std::bad_alloc for the statuses that want of memory has.
void requireMemory(int16_t status);

// The text on one line: control characters give way to question marks.
std::string onOneLine(std::string text);
inline char onOneLine(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F ? '?' : c;
}

// What failed while the rest went on: the first of it ends the command, once all is done.
class Failures {
public:
    // Does something that may fail.
    template <class Action>
    void collect(Action action) {
        try {
            action();
        } catch (const Failure& failure) {
            if (count_++ == 0)
                first_ = failure.what();
        }
    }
    void add(const Failures& others) {
        first_ = count_ == 0 ? others.first_ : first_;
        count_ += others.count_;
    }
    // Throws a Failure if there was one.
    void end() const;

private:
    std::string first_;
    size_t count_ = 0;
};

#endif
