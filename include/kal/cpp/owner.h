// The one shape of everything that closes itself: it moves and does not copy, ends its record when it goes, and gives
// the record to the plain calls.
//
// A kind of owner is told by its traits: the record's type and the call that ends it. Closing by hand tells the status
// that an end by itself cannot tell:
//
//     auto stream = kal::Stream::create("picture.dat");
//     KalPutStr(stream->get(), "hello");
//     if (const kal::Status status = stream->close(); !status.ok())
//         std::puts(status.text());
#ifndef KAL_CPP_OWNER_H
#define KAL_CPP_OWNER_H

#include <kal/cpp/expected.h>
#include <kal/heap.h>

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

namespace kal {

// Bytes to read from and to write to, whoever owns them.
using Bytes = std::span<const std::byte>;   // to read
using WritableBytes = std::span<std::byte>; // to change

// The bytes of a text, without a terminating zero.
inline Bytes bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}

// The text that bytes are, up to the first zero if there is one.
inline std::string_view textOf(Bytes bytes) {
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    const void* end = bytes.empty() ? nullptr : std::memchr(text, 0, bytes.size());
    return {text, end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - text) : bytes.size()};
}

// What traits begin with: a record that is gone after its close, whatever the status.
template <class T>
struct RecordTraits {
    using Record = T; // what is owned
    // Whether the record still stands after a close that gave this status.
    static bool survives(Status) { return false; }
    // Ends what still stands, whatever is lost.
    static void abandon(Record*) {}
};

// Traits of a record that one call ends.
template <class T, auto Close>
struct ClosedBy : RecordTraits<T> {
    // Ends the record; the call's status.
    static Status close(T* record) { return Close(record); }
};

// The owner of a record; see above. One that is empty, moved from or closed owns null.
template <class Traits>
class Owner {
public:
    using Record = typename Traits::Record; // what the plain calls take

    // Owns nothing.
    Owner() = default;
    // Owns this record from now on.
    explicit Owner(Record* record) noexcept : record_(record) {}
    // Takes the other's record; what was owned before is closed.
    Owner(Owner&& other) noexcept : record_(other.release()) {}
    Owner& operator=(Owner&& other) noexcept {
        if (this != &other) {
            end();
            record_ = other.release();
        }
        return *this;
    }
    ~Owner() { end(); }

    // Ends the record. Its status, or 0 where there is none. Where the traits say that a failed close leaves the
    // record whole, it is still owned then, to try again once there is room.
    Status close() {
        if (record_ == nullptr)
            return KAL_OK;
        const Status status = Traits::close(record_);
        if (!Traits::survives(status))
            record_ = nullptr;
        return status;
    }

    // The record, which stays owned; its fields; whether there is one.
    Record* get() const noexcept { return record_; }
    Record* operator->() const noexcept { return record_; }
    explicit operator bool() const noexcept { return record_ != nullptr; }

    // The record, which is the caller's from now on.
    Record* release() noexcept { return std::exchange(record_, nullptr); }

private:
    void end() noexcept {
        close();
        if (record_ != nullptr)
            Traits::abandon(release());
    }

    Record* record_ = nullptr;
};

// What `call` opened, which is given where to put the record and gives the status. A record that comes with a failure
// is closed.
template <class T, class Call>
Expected<T> opened(Call call) {
    typename T::Record* record = nullptr;
    const Status status = call(&record);
    T owner(record);
    if (!status.ok())
        return Unexpected{status};
    return owner;
}

// A block of small memory that a reader handed out.
class Block : public Owner<ClosedBy<void, KalFreeSMem>> {
public:
    using Owner::Owner;
    // Its bytes, as many as were asked for.
    Bytes bytes() const { return {static_cast<const std::byte*>(get()), KalSizeSMem(get())}; }
    WritableBytes bytes() { return {static_cast<std::byte*>(get()), KalSizeSMem(get())}; }
};

} // namespace kal

#endif
