// A value or the status that tells why there is none: what opening and making give.
//
// Expected<T> has the interface of the standard's expected, which C++20 lacks, with a Status as its error:
//
//     auto stream = kal::Stream::open("picture.dat");
//     if (!stream)
//         std::fprintf(stderr, "picture.dat: %s\n", stream.error().text());
//     else
//         stream->read(bytes);
//
// What stands in a temporary Expected is given as a value and not as a reference, so that a range-based for loop may
// run over `file.get(1).value()`.
#ifndef KAL_CPP_EXPECTED_H
#define KAL_CPP_EXPECTED_H

#include <kal/base.h>
#include <kal/status.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace kal {

// A status (see KalStatus) with its words.
class Status {
public:
    // Success, or what a call gave.
    constexpr Status() = default;
    constexpr Status(int16_t code) : code_(code) {}

    // The number as the calls give it; 0 is success.
    constexpr int16_t code() const { return code_; }
    // Whether it is success.
    constexpr bool ok() const { return code_ == KAL_OK; }
    // What it means, to stand behind a name in a message; never null.
    const char* text() const { return KalStatusText(code_); }

    // Statuses are equal when their numbers are.
    friend constexpr bool operator==(Status, Status) = default;
    friend constexpr bool operator==(Status left, int right) { return left.code_ == right; }

private:
    int16_t code_ = KAL_OK;
};

// What Expected::value throws where there is none and the program was built with exceptions.
class BadExpectedAccess : public std::exception {
public:
    // Carries the status.
    explicit BadExpectedAccess(Status error) : error_(error) {}
    // The status, and its words.
    Status error() const noexcept { return error_; }
    const char* what() const noexcept override { return error_.text(); }

private:
    Status error_;
};

// A status that is to become an Expected without a value.
struct Unexpected {
    Status error; // not success
};

// See above. Moving from one leaves it with a value that was moved from, as the standard's does.
template <class T>
class [[nodiscard]] Expected {
public:
    using value_type = T;      // what it may hold
    using error_type = Status; // what it holds else

    // With a value, or with a status.
    constexpr Expected(T value) : value_(std::move(value)) {}
    constexpr Expected(Unexpected unexpected) : error_(unexpected.error) {}

    // Whether there is a value.
    constexpr bool has_value() const { return value_.has_value(); }
    constexpr explicit operator bool() const { return value_.has_value(); }

    // The value, which must be there.
    constexpr T& operator*() & { return *value_; }
    constexpr const T& operator*() const& { return *value_; }
    constexpr T operator*() && { return *std::move(value_); }
    constexpr T* operator->() { return &*value_; }
    constexpr const T* operator->() const { return &*value_; }

    // The value; where there is none BadExpectedAccess is thrown, or in a program without exceptions the end.
    constexpr T& value() & { return check(), *value_; }
    constexpr const T& value() const& { return check(), *value_; }
    constexpr T value() && { return check(), *std::move(value_); }

    // The value, or `other` where there is none.
    template <class Other>
    constexpr T value_or(Other&& other) const& {
        return value_.value_or(std::forward<Other>(other));
    }
    template <class Other>
    constexpr T value_or(Other&& other) && {
        return std::move(value_).value_or(std::forward<Other>(other));
    }

    // The status; success where there is a value.
    constexpr Status error() const { return error_; }

    // What `next` makes of the value, an Expected of its own; the status goes on.
    template <class Next>
    constexpr auto and_then(Next&& next) && -> std::remove_cvref_t<std::invoke_result_t<Next, T>> {
        if (!value_)
            return Unexpected{error_};
        return std::invoke(std::forward<Next>(next), *std::move(value_));
    }

    // The same for a `next` that gives a plain value.
    template <class Next>
    constexpr auto transform(Next&& next) && -> Expected<std::remove_cv_t<std::invoke_result_t<Next, T>>> {
        if (!value_)
            return Unexpected{error_};
        return std::invoke(std::forward<Next>(next), *std::move(value_));
    }

    // This, or what `other` makes of the status, an Expected of this kind.
    template <class Other>
    constexpr Expected or_else(Other&& other) && {
        if (value_)
            return std::move(*this);
        return std::invoke(std::forward<Other>(other), error_);
    }

private:
    constexpr void check() const {
        if (value_)
            return;
#if defined(__cpp_exceptions)
        throw BadExpectedAccess(error_);
#else
        std::abort();
#endif
    }

    std::optional<T> value_;
    Status error_;
};

} // namespace kal

#endif
