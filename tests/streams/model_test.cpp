// Every kind of stream against one model: a vector of bytes, a position, and what the kinds do differently. Random
// sequences of all operations; positions, statuses, bytes and the record must agree after each.
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <kal/cfile.h>
#include <kal/heap.h>
#include <kal/mapping.h>
#include <kal/storage.h>
#include <kal/stream.h>
#include <kal/vmem.h>

#include <algorithm>
#include <random>
#include <unistd.h>

namespace {

constexpr uint32_t kAnyPosition = KAL_NO_POSITION;
constexpr int kNobodys = -1; // a byte that nobody put: whatever the memory held

struct Kind {
    const char* name;
    uint16_t mode;
    int endStatus;       // of a read that finds nothing
    int endChar;         // what get-character gives there
    int refusedSeek;     // the status of a seek to nowhere
    uint32_t mostAtOnce; // bytes in one call
    uint32_t capacity;   // bytes that it holds
    bool buffered;       // and without a buffer it is the file that holds the bytes
    bool compound = false;
    uint32_t base = 0;   // base offset
    uint32_t window = 0; // its end
};

constexpr uint32_t kMapped = 5000;
constexpr uint32_t kBefore = 100; // bytes of the file in front of a window or base offset
constexpr Kind kDisk = {"disk", 0, -256, -256, -257, UINT32_MAX, UINT32_MAX, true, false, kBefore};
constexpr Kind kMemory = {"memory", KAL_MODE_MEMORY, -255, -255, 0, UINT32_MAX, UINT32_MAX, false};
constexpr Kind kVMem = {"VMem", KAL_MODE_VMEM, -255, -255, -105, 65535, UINT32_MAX, false};
constexpr Kind kMapping = {"mapping", KAL_MODE_FILEMAP, -255, 0, -257, UINT32_MAX, kMapped, false};
constexpr Kind kCompound = {"compound", 0, -256, -256, -257, UINT32_MAX, UINT32_MAX, true, true};
constexpr Kind kWindow = {"window",   0,    -256,  -256,    -257,          UINT32_MAX,
                          UINT32_MAX, true, false, kBefore, kBefore + 1500};
constexpr Kind kKinds[] = {kDisk, kWindow, kCompound, kMemory, kVMem, kMapping};

bool is(const Kind& kind, const Kind& other) {
    return std::string(kind.name) == other.name;
}

class Model : public FolderTest {
protected:
    Model() : FolderTest(kInMemory) {}
    ~Model() override {
        KalCloseVMem();
        KalSetMaxVMem(0);
    }

    void open(const Kind& kind, uint16_t mode, uint32_t bufSize, uint32_t seed) {
        kind_ = &kind;
        random_.seed(seed);
        bytes_.clear();
        length_ = pos_ = 0;
        block_ = 1024;
        const std::string name = "model" + std::to_string(getpid());
        mode |= KAL_MODE_CREATE;
        ASSERT_EQ(kind.compound
                      ? KalOpenFileAsIStream(&s_, "f", "s", mode)
                      : KalOpenFile(&s_, kind.base > 0 ? "f" : name.c_str(), kind.mode | mode, kMapped + 4),
                  0);
        if (kind.base > 0) {
            write(kind.window > 0 ? kind.window + 300 : kind.base);
            ASSERT_EQ(KalFlushBuf(s_), 0);
        }
        if (kind.window > 0) {
            ASSERT_EQ(KalConstrainFile(s_, int32_t(kind.base), int32_t(kind.window)), 0);
            pos_ = kind.base;
        } else if (kind.base > 0) {
            ASSERT_EQ(KalSetOffset(s_, kind.base), 0);
        }
        ASSERT_EQ(KalSetBuf(s_, bufSize), 0);
        ASSERT_NO_FATAL_FAILURE(check());
    }

    void step() {
        switch (below(9)) {
        case 0:
            return read(below(4) == 0 ? below(90'000) : below(700));
        case 1:
            return write(below(40) == 0 ? below(70'000) : below(700));
        case 2:
            for (uint32_t i = below(50); i > 0 && !HasFatalFailure(); i--)
                getChar();
            return;
        case 3:
            for (uint32_t i = below(50); i > 0 && !HasFatalFailure(); i--)
                putChar();
            return;
        case 4:
        case 5:
            return seek(below(5) == 0);
        case 6:
            return getLine(1 + below(below(4) == 0 ? 3000 : 40));
        case 7:
            ASSERT_EQ(KalFlushBuf(s_), 0);
            ASSERT_EQ(val(s_->dirty), 0);
            if (is(*kind_, kDisk)) {
                ASSERT_EQ(readFile("f"), known());
            }
            return;
        default:
            if (below(10) == 0) { // another buffer now and then
                ASSERT_EQ(KalFlushBuf(s_), 0);
                ASSERT_EQ(KalSetBuf(s_, below(700)), 0);
            }
        }
    }

    // What must hold after every operation.
    void check() {
        ASSERT_EQ(val(s_->pos) - origin(), pos_);
        if (is(*kind_, kMemory)) {
            ASSERT_EQ(val(s_->osPos), length_) << "the length is kept lazily";
        } else if (!kind_->buffered) {
            ASSERT_EQ(val(s_->bufEnd) - origin(), bytes_.size());
        } else if (s_->bufSize == 0) {
            ASSERT_TRUE(s_->buf == nullptr && s_->bufEnd == KAL_NO_POSITION && s_->dirty == 0);
        } else {
            if (s_->bufEnd != 0) { // it is 0 in a fresh buffer, wherever that starts
                ASSERT_LE(s_->bufEnd - s_->bufStart, val(s_->bufSize));
            }
            if (s_->bufStart <= s_->pos && s_->pos < s_->bufEnd) {
                ASSERT_EQ(val(s_->bufPtr), s_->buf + (s_->pos - s_->bufStart));
            }
        }
        if (kind_->buffered && !kind_->compound) {
            ASSERT_EQ(uint32_t(::lseek(int(s_->handle), 0, SEEK_CUR)), val(s_->osPos))
                << "where the host's pointer stands";
        }
    }

    // Everything as the model has it, and the end.
    void close() {
        ASSERT_EQ(KalFlushBuf(s_), 0);
        KalUnconstrainFile(s_); // of a base offset too
        ASSERT_EQ(s_->seek(s_, 0, KAL_SEEK_START), 0);
        pos_ = 0;
        length_ = std::max(length_, uint32_t(is(*kind_, kMemory) ? s_->osPos : 0));
        Kind whole = *kind_;
        whole.window = 0;
        kind_ = &whole;
        while (pos_ < end()) {
            read(60'000);
            if (HasFatalFailure())
                return;
        }
        read(1);
        ASSERT_EQ(s_->close(s_), 0);
    }

private:
    uint32_t below(uint32_t n) { return uint32_t(random_() % n); }
    // Of positions in the record: a mapping's count from its first byte.
    uint32_t origin() const { return is(*kind_, kMapping) ? val(s_->offset) : 0; }
    uint32_t end() const {
        if (kind_->window > 0)
            return std::min(kind_->window, uint32_t(bytes_.size()));
        return is(*kind_, kMemory) ? std::min(length_, block_) : uint32_t(bytes_.size());
    }
    uint32_t ahead() const { return pos_ < end() ? end() - pos_ : 0; }
    int byteAt(uint32_t pos) const { return pos < bytes_.size() ? bytes_[pos] : kNobodys; }
    Bytes known() const { return Bytes(bytes_.begin(), bytes_.end()); }

    void expectByte(int got) {
        const int wanted = byteAt(pos_++);
        ASSERT_TRUE(wanted == kNobodys || wanted == got) << "byte " << pos_ - 1 << ": " << got;
    }

    void read(uint32_t count) {
        const uint32_t most = std::min(count, kind_->mostAtOnce);
        const uint32_t got = std::min(most, ahead());
        Bytes bytes(count);
        ASSERT_EQ(s_->read(s_, bytes.data(), count), int32_t(got)) << "of " << count;
        // Whether bytes from the buffer came before the end is seen by the bytes, not by the status.
        const bool found = val(s_->status) == (got == most ? 0
                                               : got == 0  ? kind_->endStatus
                                                           : -255) ||
                           (got > 0 && got < most && kind_->buffered && s_->status == -256);
        ASSERT_TRUE(found) << "status " << val(s_->status) << " of " << got << " bytes of " << most;
        for (uint32_t i = 0; i < got; i++)
            ASSERT_NO_FATAL_FAILURE(expectByte(bytes[i]));
    }

    void getChar() {
        const bool isEnd = ahead() == 0;
        const int got = below(2) == 0 ? s_->getChar(s_) : KalNextChar(s_);
        if (isEnd) {
            ASSERT_TRUE(got == kind_->endChar && s_->status == kind_->endStatus) << got;
        } else
            expectByte(got);
    }

    // The bytes in the model, as many as go in.
    uint32_t put(const uint8_t* bytes, uint32_t count) {
        count = std::min({count, kind_->mostAtOnce, kind_->capacity - std::min(pos_, kind_->capacity)});
        const uint32_t size = uint32_t(bytes_.size());
        if (count > 0 && pos_ > size)
            bytes_.resize(pos_, kind_->buffered ? 0 : kNobodys);
        if (pos_ + count > size && count > 0)
            bytes_.resize(pos_ + count);
        std::copy_n(bytes, count, bytes_.begin() + std::min<ptrdiff_t>(pos_, ptrdiff_t(bytes_.size())));
        const uint32_t room = (length_ + 1023) / 1024 * 1024; // a memory stream's length follows its block
        pos_ += count;
        if (is(*kind_, kMemory) && pos_ > std::min(room, block_)) {
            block_ = (pos_ + 1023) / 1024 * 1024;
            length_ = std::max(length_, pos_);
        }
        return count;
    }

    Bytes someBytes(uint32_t count) {
        Bytes bytes(count);
        for (uint8_t& byte : bytes) // with line ends among them
            byte = below(20) == 0 ? "\r\n"[below(2)] : uint8_t(random_());
        return bytes;
    }

    void write(uint32_t count) {
        const Bytes bytes = someBytes(count);
        const uint32_t most = std::min(count, kind_->mostAtOnce);
        const uint32_t taken = put(bytes.data(), count);
        ASSERT_EQ(s_->write(s_, bytes.data(), count), int32_t(taken)) << "of " << count;
        ASSERT_EQ(val(s_->status), taken == most ? 0 : -254);
        liftFull();
    }

    void putChar() {
        const Bytes byte = someBytes(1);
        ASSERT_EQ(s_->putChar(s_, char(byte[0])), put(byte.data(), 1) == 1 ? 0 : -254);
        liftFull();
    }

    void liftFull() {
        if (s_->status == -254)
            s_->status = 0;
    }

    void seek(bool refused) {
        const uint32_t origin = below(4);
        const bool backwards = origin == 2 && kind_->window > 0; // from a window's end one goes back
        const uint32_t length = is(*kind_, kMemory) ? std::max(length_, pos_)
                                : kind_->window > 0 ? kind_->window
                                                    : uint32_t(bytes_.size());
        const uint32_t from = origin == 1                        ? pos_
                              : origin == 2                      ? length
                              : origin == 0 || kind_->window > 0 ? kind_->base
                                                                 : 0;
        if (refused && is(*kind_, kMemory))
            return; // it goes anywhere
        const uint32_t most = kind_->window > 0 ? kind_->window : uint32_t(bytes_.size()) + 200;
        uint32_t target = below(most + 1);
        if (is(*kind_, kMapping))
            target = std::min(target, kMapped - 1);
        if (refused)
            target = kind_->window > 0 && below(2) == 0 ? kind_->window + 1 : uint32_t(-1);
        const auto distance = int32_t(target - from);
        if (origin == 3 && is(*kind_, kMapping))
            refused = true;
        const int before = s_->status;
        const int status = s_->seek(s_, backwards ? -distance : distance, origin);
        ASSERT_EQ(status, refused ? kind_->refusedSeek : 0) << "to " << target << " from origin " << origin;
        ASSERT_EQ(val(s_->status),
                  kind_->buffered || is(*kind_, kVMem) ? (refused ? status : val(s_->status)) : before);
        if (refused)
            return afterRefusedSeek();
        length_ = is(*kind_, kMemory) ? length : length_;
        pos_ = target;
        if (!kind_->buffered && !is(*kind_, kMemory) && pos_ > bytes_.size()) // the stream is longer at once
            bytes_.resize(pos_, kNobodys);
    }

    // A disk file's stream stands nowhere then, others where they stood.
    void afterRefusedSeek() {
        if (!kind_->buffered || kind_->window > 0) {
            s_->status = 0;
            return;
        }
        pos_ = KAL_NO_POSITION;
        ASSERT_NO_FATAL_FAILURE(check());
        uint8_t byte = 0;
        const bool writes = below(2) == 0;
        ASSERT_EQ(writes ? s_->write(s_, &byte, 1) : s_->read(s_, &byte, 1), 0);
        ASSERT_EQ(val(s_->status), -257);
        ASSERT_NO_FATAL_FAILURE(check());
        pos_ = below(uint32_t(bytes_.size()) + 1);
        ASSERT_EQ(s_->seek(s_, int32_t(pos_), 3), 0);
    }

    void getLine(uint32_t size) {
        std::string wanted;
        uint32_t pos = pos_;
        int status = 0;
        bool ended = false;
        while (wanted.size() + 1 < size && !ended && status == 0) {
            if (pos >= end()) {
                status = kind_->endStatus;
            } else if (byteAt(pos) == kNobodys) {
                return; // may be a line's end or not
            } else {
                const char c = char(byteAt(pos++));
                ended = c == '\r' || c == '\n';
                if (!ended)
                    wanted += c;
                if (c == '\r' && pos < end() && byteAt(pos) == kNobodys)
                    return;
                pos += c == '\r' && pos < end() && byteAt(pos) == '\n';
            }
        }
        wanted += char(status == 0 ? 0 : kind_->endChar);
        s_->status = 0;
        std::string line(size + 1, '#');
        ASSERT_EQ(KalGetStr(s_, line.data(), size), status);
        ASSERT_EQ(line.substr(0, wanted.size()), wanted);
        ASSERT_EQ(line[size], '#');
        pos_ = pos;
    }

    const Kind* kind_ = nullptr;
    SFILE* s_ = nullptr;
    std::mt19937 random_;
    std::vector<int> bytes_;
    uint32_t pos_ = 0;
    uint32_t length_ = 0, block_ = 1024; // of a memory stream: what it says, and its block
};

} // namespace

TEST_F(Model, AllKindsAgreeInRandomSequences) {
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const HeapBalance balance;
        KalSetMaxVMem(200'000); // six blocks of a stream, so that others are swapped out
        ASSERT_EQ(KalOpenVMem(0), 0);
        for (const uint32_t bufSize : {0u, 1u, 3u, 512u, 4096u})
            for (const uint16_t mode : {KAL_MODE_WRITE, KAL_MODE_UPDATE}) {
                if (mode == KAL_MODE_WRITE && (kind.compound || is(kind, kMapping)))
                    continue; // they only write then
                for (uint32_t seed = 1; seed <= 4; seed++) {
                    SCOPED_TRACE(std::string(kind.name) + " buffer " + std::to_string(bufSize) + " mode " +
                                 std::to_string(mode) + " seed " + std::to_string(seed));
                    open(kind, mode, bufSize, seed);
                    for (int i = 0; i < 300 && !HasFatalFailure(); i++) {
                        SCOPED_TRACE("step " + std::to_string(i));
                        step();
                        if (!HasFatalFailure())
                            check();
                    }
                    if (!HasFatalFailure())
                        close();
                    if (HasFatalFailure())
                        return;
                }
            }
        KalCloseVMem();
    }
}

// Bytes of a run are taken from where they lie; the stream then stands exactly behind the run.
TEST_F(Model, ACompressedRunIsReadBackFromEveryKindToItsEnd) {
    ASSERT_EQ(KalOpenVMem(0), 0);
    const Bytes bytes = randomBytes(60'000, 1); // across VMem blocks
    for (const Kind& kind : kKinds)
        for (const uint32_t bufSize : {0u, 1u, 512u}) {
            SCOPED_TRACE(std::string(kind.name) + " buffer " + std::to_string(bufSize));
            const uint16_t mode = kind.mode | KAL_MODE_CREATE | KAL_MODE_UPDATE;
            const std::string name = "run" + std::to_string(getpid());
            SFILE* s = nullptr;
            ASSERT_EQ(kind.compound ? KalOpenFileAsIStream(&s, "c", "s", mode)
                                    : KalOpenFile(&s, name.c_str(), mode, 200'000),
                      0);
            ASSERT_EQ(KalSetBuf(s, bufSize), 0);
            scfiletag* run = nullptr;
            ASSERT_EQ(KalMakeCFile(&run, s), 0);
            ASSERT_EQ(KalWriteCFile(run, bytes.data(), 60'000), 60'000);
            ASSERT_EQ(KalFreeCFile(run), 0);
            const uint32_t behind = val(s->pos) - s->offset;
            ASSERT_EQ(s->write(s, "~~~~~~~~~~", 10), 10);
            ASSERT_EQ(KalFlushBuf(s), 0);
            if (kind.window > 0) {
                ASSERT_EQ(KalConstrainFile(s, 0, int32_t(behind)), 0);
            }
            ASSERT_EQ(s->seek(s, 0, KAL_SEEK_START), 0);
            ASSERT_EQ(KalMakeCFile(&run, s), 0);
            Bytes back(60'000);
            for (uint32_t done = 0, piece = 1; done < back.size(); done += piece, piece = piece % 700 + 99) {
                piece = std::min(piece, uint32_t(back.size()) - done);
                ASSERT_EQ(KalReadCFile(run, &back[done], uint16_t(piece)), piece);
            }
            EXPECT_EQ(back, bytes);
            EXPECT_EQ(KalReadCFile(run, back.data(), 1), 0);
            EXPECT_EQ(val(run->status), KAL_ERR_RUN);
            EXPECT_EQ(val(s->pos) - s->offset, behind);
            EXPECT_EQ(val(s->status), 0);
            EXPECT_EQ(s->getChar(s), kind.window > 0 ? -256 : '~');
            KalFreeCFile(run);
            s->close(s);
        }
}
