#include "platform/compound/buffer.h"

namespace compound {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

} // namespace

bool Buffer::flush() {
    const size_t count = dirtyEnd_ - dirtyBegin_;
    if (count == 0)
        return true;
    if (chain_.write(start_ + dirtyBegin_, bytes_.data() + dirtyBegin_, count).count != count)
        return false;
    dirtyBegin_ = dirtyEnd_ = 0;
    return true;
}

bool Buffer::moveTo(uint64_t position) {
    const uint64_t start = position / kBufferSize * kBufferSize;
    if (start == start_ && !bytes_.empty())
        return true;
    if (!flush() || (bytes_.empty() && !bytes_.resize(kBufferSize)))
        return false;
    start_ = start;
    valid_ = 0;
    const Moved moved = chain_.read(start, bytes_.data(), kBufferSize);
    valid_ = moved.count;
    return !moved.failed;
}

Moved Buffer::read(uint64_t position, void* destination, size_t count) {
    auto* to = static_cast<uint8_t*>(destination);
    Moved moved;
    while (moved.count < count) {
        if (!moveTo(position + moved.count)) {
            moved.failed = true;
            break;
        }
        const auto at = static_cast<size_t>(position + moved.count - start_);
        if (at >= valid_)
            break;
        const size_t step = std::min(count - moved.count, valid_ - at);
        std::memcpy(to + moved.count, bytes_.data() + at, step);
        moved.count += step;
    }
    return moved;
}

Moved Buffer::write(uint64_t position, const void* source, size_t count) {
    const auto* from = static_cast<const uint8_t*>(source);
    Moved moved;
    while (moved.count < count) {
        if (!moveTo(position + moved.count)) {
            moved.failed = true;
            break;
        }
        const auto at = static_cast<size_t>(position + moved.count - start_);
        const size_t step = std::min(count - moved.count, kBufferSize - at);
        if (at > valid_)
            std::memset(bytes_.data() + valid_, 0, at - valid_);
        std::memcpy(bytes_.data() + at, from + moved.count, step);
        valid_ = std::max(valid_, at + step);
        dirtyBegin_ = dirtyEnd_ == 0 ? at : std::min(dirtyBegin_, at);
        dirtyEnd_ = std::max(dirtyEnd_, at + step);
        moved.count += step;
    }
    return moved;
}

} // namespace compound
