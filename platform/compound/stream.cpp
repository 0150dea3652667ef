#include "platform/compound/stream.h"

#include "platform/compound/content.h"
#include "platform/compound/part.h"

namespace compound {

namespace {

constexpr uint32_t kAccess = 3;

class Stream final : public Part<IStream> {
public:
    Stream(CompoundFile& file, uint32_t entry, uint32_t mode)
        : Part(file), entry_(entry), access_(mode & kAccess), content_(file, entry) {}

    Content& content() { return content_; }

    HRESULT Read(void* destination, uint32_t count, uint32_t* read) override {
        uint32_t ignored;
        uint32_t& got = read != nullptr ? *read : ignored;
        got = 0;
        if (access_ == STGM_WRITE)
            return STG_E_ACCESSDENIED;
        const Moved moved = content_.read(position_, destination, count);
        got = static_cast<uint32_t>(moved.count);
        position_ += got;
        if (moved.failed)
            return STG_E_READFAULT;
        const bool lost = got == 0 && count > 0 && position_ < content_.size();
        return lost ? STG_E_DOCFILECORRUPT : S_OK;
    }

    HRESULT Write(const void* source, uint32_t count, uint32_t* written) override {
        uint32_t ignored;
        uint32_t& taken = written != nullptr ? *written : ignored;
        taken = 0;
        if (!writable())
            return STG_E_ACCESSDENIED;
        const Moved moved = content_.write(position_, source, count);
        taken = static_cast<uint32_t>(moved.count);
        position_ += taken;
        return moved.failed ? STG_E_WRITEFAULT : S_OK;
    }

    HRESULT Seek(int64_t offset, uint32_t origin, uint64_t* position) override {
        if (origin > STREAM_SEEK_END)
            return STG_E_INVALIDFUNCTION;
        const uint64_t from = origin == STREAM_SEEK_SET   ? 0
                              : origin == STREAM_SEEK_CUR ? position_
                                                          : content_.size();
        // Below zero in either direction of overflow.
        const uint64_t target = from + static_cast<uint64_t>(offset);
        if (target > INT64_MAX)
            return STG_E_INVALIDFUNCTION;
        position_ = target;
        if (position != nullptr)
            *position = target;
        return S_OK;
    }

    HRESULT SetSize(uint64_t size) override {
        if (!writable())
            return STG_E_ACCESSDENIED;
        return content_.setSize(size) ? S_OK : STG_E_MEDIUMFULL;
    }

private:
    ~Stream() override { file_.markClosed(entry_); }
    bool writable() const { return file_.writable() && access_ != STGM_READ; }

    uint32_t entry_;
    uint32_t access_;
    uint64_t position_ = 0;
    Content content_;
};

} // namespace

HRESULT openStream(CompoundFile& file, uint32_t entry, uint32_t mode, bool emptied, IStream** stream) {
    *stream = nullptr;
    if ((mode & kAccess) != STGM_READ && !file.writable())
        return STG_E_ACCESSDENIED;
    if (((mode & kAccess) != STGM_READ || emptied) && file.isDamaged(entry))
        return STG_E_DOCFILECORRUPT;
    if (!file.markOpen(entry))
        return STG_E_ACCESSDENIED;
    auto* fresh = new Stream(file, entry, mode);
    if (fresh == nullptr) {
        file.markClosed(entry);
        return STG_E_INSUFFICIENTMEMORY;
    }
    if (!fresh->content().load() || (emptied && !fresh->content().setSize(0))) {
        fresh->Release();
        return STG_E_DOCFILECORRUPT;
    }
    *stream = fresh;
    return S_OK;
}

} // namespace compound
