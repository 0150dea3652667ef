// Every kind of stream against one model: a vector of bytes, a position, and what the kinds do differently. Random
// sequences of all operations; positions, statuses, bytes and the record must agree after each. What is kept when the
// stream is closed is looked at from outside, and the stream is opened again with another access.
#include "tests/support/faults.h"
#include "tests/support/storage.h"

#include <kal/mapping.h>
#include <kal/storage.h>
#include <kal/stream.h>
#include <kal/vmem.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <unistd.h>

namespace {

constexpr int kNobodys = -1; // a byte that nobody put: whatever the memory held
constexpr uint32_t kPiece = 60'000;

struct Kind {
    const char* name;
    uint16_t mode = 0; // the bit that chooses it
    bool compound = false;
    int endStatus = KAL_ERR_END; // of a read that finds nothing
    int endChar = KAL_ERR_END;   // what get-character gives there
    int refusedSeek = KAL_ERR_SEEK;
    uint32_t mostAtOnce = UINT32_MAX;           // bytes in one call
    uint32_t capacity = KAL_NO_POSITION - 1;    // where positions end
    uint32_t first = 0;                         // where the bytes of the test start
    uint32_t base = 0;                          // base offset
    uint32_t window = 0;                        // its end
    bool buffered() const { return mode == 0; } // and without a buffer it is the file that holds the bytes
    bool onDisk() const { return mode == 0 && !compound; }
    bool isMemory() const { return mode == KAL_MODE_MEMORY; }
    bool isVMem() const { return mode == KAL_MODE_VMEM; }
    bool isMapping() const { return mode == KAL_MODE_FILEMAP; }
};

constexpr Kind kKinds[] = {
    {.name = "disk", .base = 100},
    {.name = "disk, last positions", .first = 0xFFFFF000, .base = 0xFFFFF064},
    {.name = "window", .base = 100, .window = 1600},
    {.name = "window at 2 GiB", .first = 0x7FFFFF9C, .base = 0x80000000, .window = 0x80000500},
    {.name = "compound", .compound = true},
    {.name = "memory",
     .mode = KAL_MODE_MEMORY,
     .endStatus = KAL_ERR_SHORT_READ,
     .endChar = KAL_ERR_SHORT_READ},
    {.name = "VMem",
     .mode = KAL_MODE_VMEM,
     .endStatus = KAL_ERR_SHORT_READ,
     .endChar = KAL_ERR_SHORT_READ,
     .refusedSeek = KAL_ERR_BUFFER,
     .mostAtOnce = 65535},
    {.name = "mapping",
     .mode = KAL_MODE_FILEMAP,
     .endStatus = KAL_ERR_SHORT_READ,
     .endChar = 0,
     .capacity = 5000},
};

class Model : public FolderTest {
protected:
    Model() : FolderTest(kInMemory) {}
    ~Model() override {
        KalCloseVMem();
        KalSetMaxVMem(0);
    }

    void run(const Kind& kind, uint16_t mode, uint16_t later, uint32_t bufSize, uint32_t seed) {
        kind_ = &kind;
        random_.seed(seed);
        bytes_.clear();
        length_ = pos_ = 0;
        block_ = 1024;
        capacity_ = kind.capacity;
        ASSERT_NO_FATAL_FAILURE(session(mode | KAL_MODE_CREATE, bufSize));
        if (!kind.isMemory() && !kind.isVMem())
            session(later, bufSize);
    }

private:
    void session(uint16_t mode, uint32_t bufSize) {
        ASSERT_NO_FATAL_FAILURE(open(mode, bufSize));
        for (int i = 0; i < 100; i++) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << " step " << i);
            ASSERT_NO_FATAL_FAILURE(step());
            ASSERT_NO_FATAL_FAILURE(check());
        }
        close();
    }

    void open(uint16_t mode, uint32_t bufSize) {
        const std::string name = kind_->isMapping() ? "model" + std::to_string(getpid()) : "f";
        const bool creates = (mode & KAL_MODE_CREATE) != 0;
        const bool appends = (mode & KAL_MODE_APPEND) != 0;
        const uint16_t access = mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE);
        const bool twoWays = kind_->onDisk() || kind_->isMemory() || kind_->isVMem();
        reads_ = twoWays || (mode & KAL_MODE_WRITE) == 0;
        writes_ = kind_->onDisk() ? access != 0 || appends : twoWays || access != 0;
        if (kind_->isMapping() && !creates) {
            capacity_ = uint32_t(bytes_.size());
            if (writes_)
                bytes_.clear();
        }
        ASSERT_EQ(kind_->compound ? KalOpenFileAsIStream(&s_, name.c_str(), "s", mode)
                                  : KalOpenFile(&s_, name.c_str(), kind_->mode | mode, 5004),
                  KAL_OK);
        pos_ = appends && kind_->buffered() ? end() : 0;
        const bool adds = appends && access == 0 && kind_->buffered();
        ASSERT_EQ(val(s_->mode), kind_->mode | mode | (adds ? KAL_MODE_WRITE : 0));
        ASSERT_TRUE(s_->status == KAL_OK && s_->dirty == 0 && s_->tempName == nullptr);
        if (kind_->buffered()) {
            ASSERT_STREQ(val(s_->name), "f");
            ASSERT_TRUE(s_->osPos == pos_ && s_->bufStart == pos_ && s_->offset == 0 &&
                        s_->bufPtr == s_->buf);
            ASSERT_EQ(val(s_->bufSize), kind_->compound ? 0u : 512u);
            ASSERT_EQ(val(s_->bufEnd), kind_->compound ? KAL_NO_POSITION : 0);
        }
        ASSERT_NO_FATAL_FAILURE(check());
        if (kind_->base > 0) {
            if (creates) {
                ASSERT_EQ(s_->seek(s_, int32_t(pos_ = kind_->first), 3), KAL_OK);
                write(kind_->window > 0 ? kind_->window + 300 - pos_ : kind_->base - pos_);
                ASSERT_EQ(KalFlushBuf(s_), KAL_OK);
            }
            if (kind_->window > 0) {
                ASSERT_EQ(KalConstrainFile(s_, int32_t(kind_->base), int32_t(kind_->window)), 0);
                pos_ = kind_->base;
            } else
                ASSERT_EQ(KalSetOffset(s_, kind_->base), KAL_OK);
            if (pos_ < kind_->first) {
                ASSERT_EQ(s_->seek(s_, 0, KAL_SEEK_START), KAL_OK);
                pos_ = kind_->base;
            }
        }
        ASSERT_EQ(KalSetBuf(s_, bufSize), KAL_OK);
        check();
    }

    void step() {
        switch (below(10)) {
        case 0:
            return read(someCount());
        case 1:
            return write(someCount());
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
            return seek();
        case 6:
            return getLine(below(below(4) == 0 ? 3000 : 40));
        case 7:
            return putText(below(99) == 0 ? 65'600 : below(300));
        case 8:
            ASSERT_EQ(KalFlushBuf(s_), KAL_OK);
            ASSERT_EQ(val(s_->dirty), 0);
            if (kind_->buffered() && !kind_->compound)
                expectStored(hostBytes());
            return;
        default:
            if (below(5) == 0) { // another buffer now and then
                ASSERT_EQ(KalFlushBuf(s_), KAL_OK);
                ASSERT_EQ(KalSetBuf(s_, below(700)), KAL_OK);
            }
            if (!kind_->onDisk()) { // what takes no window stays as it was
                const SFILE before = *s_;
                ASSERT_EQ(KalConstrainFile(s_, 1, 5), 1);
                KalUnconstrainFile(s_);
                ASSERT_EQ(std::memcmp(&before, s_, sizeof before), 0);
            }
        }
    }

    // What must hold after every operation.
    void check() {
        ASSERT_EQ(val(s_->pos) - origin(), pos_);
        if (kind_->isMemory()) {
            ASSERT_EQ(val(s_->osPos), length_) << "the length is kept lazily";
        } else if (!kind_->buffered()) {
            ASSERT_EQ(val(s_->bufEnd) - origin(), end());
            ASSERT_EQ(val(s_->bufSize), 0u);
        } else if (s_->bufSize == 0) {
            ASSERT_TRUE(s_->buf == nullptr && s_->bufEnd == KAL_NO_POSITION && s_->dirty == 0);
        } else {
            if (s_->bufEnd != 0) { // it is 0 in a fresh buffer, wherever that starts
                ASSERT_LE(s_->bufEnd - s_->bufStart, val(s_->bufSize));
            }
            if (held() > 0) {
                ASSERT_EQ(val(s_->bufPtr), s_->buf + (s_->pos - s_->bufStart));
            }
        }
        if (kind_->onDisk()) {
            ASSERT_EQ(uint32_t(::lseek(int(s_->handle), 0, SEEK_CUR)), val(s_->osPos))
                << "where the host's pointer stands";
        }
    }

    void close() {
        if (!kind_->buffered() && !kind_->isMapping()) { // now or never
            ASSERT_EQ(s_->seek(s_, 0, KAL_SEEK_START), KAL_OK);
            length_ = std::max(length_, std::exchange(pos_, 0u));
            while (pos_ < end())
                ASSERT_NO_FATAL_FAILURE(read(kPiece));
            read(1);
        }
        ASSERT_EQ(s_->close(s_), KAL_OK);
        if (kind_->onDisk())
            return expectStored(hostBytes());
        if (kind_->compound) {
            Streams streams;
            ASSERT_TRUE(readStreams("f", streams));
            expectStored(streams[L"s"]);
        }
    }

    Bytes hostBytes() {
        Bytes bytes(bytes_.size() + 1);
        std::ifstream file("f", std::ios::binary);
        file.seekg(kind_->first);
        file.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size()));
        bytes.resize(size_t(file.gcount()));
        return bytes;
    }

    void expectStored(const Bytes& stored) { // where nobody's bytes are zeros
        ASSERT_EQ(stored.size(), bytes_.size());
        ASSERT_TRUE(std::equal(stored.begin(), stored.end(), bytes_.begin()))
            << "other bytes are in the file";
    }

    uint32_t below(uint32_t n) { return n == 0 ? 0 : uint32_t(random_() % n); }
    // Often up to where something ends: the buffer, the bytes, a block.
    uint32_t someCount() {
        const uint32_t counts[] = {
            below(700),       below(700),  below(700),         below(90'000),       held(), room(), ahead(),
            capacity_ - pos_, s_->bufSize, 1024 - pos_ % 1024, 32768 - pos_ % 32768};
        return std::min(counts[below(std::size(counts))], 90'000u);
    }
    // Of positions in the record: a mapping's count from its first byte.
    uint32_t origin() const { return kind_->isMapping() ? val(s_->offset) : 0; }
    // Where the bytes end, and where reading does.
    uint32_t end() const { return kind_->first + uint32_t(bytes_.size()); }
    uint32_t readEnd() const {
        if (kind_->isMemory())
            return std::min(length_, block_);
        return kind_->window > 0 ? std::min(end(), kind_->window) : end();
    }
    uint32_t ahead() const { return pos_ < readEnd() ? readEnd() - pos_ : 0; }
    int byteAt(uint32_t pos) const { return pos < end() ? bytes_[pos - kind_->first] : kNobodys; }
    // The bytes that the buffer has from here on, and those that go into it: taking and putting them asks nothing of
    // the host.
    uint32_t held() const {
        return s_->bufSize > 0 && s_->bufStart <= s_->pos && s_->pos < s_->bufEnd ? s_->bufEnd - s_->pos : 0;
    }
    uint32_t room() const {
        const bool fits = s_->bufSize > 0 && s_->bufStart <= s_->pos && s_->pos <= s_->bufEnd;
        return fits ? s_->bufStart + s_->bufSize - s_->pos : 0;
    }

    void expectBytes(const uint8_t* got, uint32_t count) {
        for (uint32_t i = 0; i < count; i++)
            if (const int wanted = byteAt(pos_++); wanted != kNobodys && wanted != got[i])
                FAIL() << "byte " << pos_ - 1 << " is " << int(got[i]) << " and not " << wanted;
    }

    void expectRefused(bool done, int status) {
        ASSERT_TRUE(done);
        ASSERT_EQ(val(s_->status), status);
        s_->status = KAL_OK;
    }

    void read(uint32_t count) {
        Bytes bytes(count + 1);
        if (!reads_)
            return expectRefused(s_->read(s_, bytes.data(), count) == 0, KAL_ERR_READ);
        const uint32_t most = std::min(count, kind_->mostAtOnce);
        const uint32_t got = std::min(most, ahead());
        const uint32_t fromBuffer = held();
        const int64_t calls = HostCallCounter::all();
        ASSERT_EQ(s_->read(s_, bytes.data(), count), int32_t(got)) << "of " << count;
        ASSERT_TRUE(count > fromBuffer || count == 0 || HostCallCounter::all() == calls);
        const bool whole = got == most && (!kind_->isMemory() || pos_ + got <= readEnd());
        const bool hostEnds = kind_->buffered() && kind_->window == 0 && got == fromBuffer;
        const int early = got == 0 ? kind_->endStatus : hostEnds ? KAL_ERR_END : KAL_ERR_SHORT_READ;
        ASSERT_EQ(val(s_->status), whole ? KAL_OK : early);
        expectBytes(bytes.data(), got);
    }

    void getChar() {
        if (!reads_)
            return expectRefused(s_->getChar(s_) == 0, KAL_ERR_READ);
        const bool isEnd = ahead() == 0;
        const int got = below(2) == 0 ? s_->getChar(s_) : KalNextChar(s_);
        const auto byte = uint8_t(got);
        if (!isEnd && got == byte)
            return expectBytes(&byte, 1);
        ASSERT_TRUE(isEnd && got == kind_->endChar && s_->status == kind_->endStatus) << got;
    }

    // The bytes in the model, as many as go in.
    uint32_t put(const uint8_t* bytes, uint32_t count) {
        count = std::min({count, kind_->mostAtOnce, capacity_ - std::min(pos_, capacity_)});
        if (count == 0 && !kind_->isMemory()) // whose block grows all the same
            return 0;
        const uint32_t at = pos_ - kind_->first;
        if (at > bytes_.size())
            bytes_.resize(at, kind_->buffered() ? 0 : kNobodys);
        bytes_.resize(std::max<size_t>(bytes_.size(), at + count));
        std::copy_n(bytes, count, bytes_.begin() + at);
        pos_ += count;
        const uint32_t whole = (length_ + 1023) / 1024 * 1024; // a memory stream's length follows its block
        if (kind_->isMemory() && pos_ > std::min(whole, block_)) {
            block_ = (pos_ + 1023) / 1024 * 1024;
            length_ = std::max(length_, pos_);
        }
        return count;
    }

    Bytes someBytes(uint32_t count) {
        Bytes bytes(count);
        for (uint8_t& byte : bytes) { // with line ends among them
            const auto number = uint32_t(random_());
            byte = number % 20 == 0 ? "\r\n"[number >> 31] : uint8_t(number >> 8);
        }
        return bytes;
    }

    void write(uint32_t count) {
        const Bytes bytes = someBytes(count);
        if (!writes_)
            return expectRefused(s_->write(s_, bytes.data(), count) == (kind_->onDisk() ? KAL_ERR_WRITE : 0),
                                 KAL_ERR_WRITE);
        const uint32_t most = std::min(count, kind_->mostAtOnce);
        const uint32_t intoBuffer = room();
        const int64_t calls = HostCallCounter::all();
        const uint32_t taken = put(bytes.data(), count);
        ASSERT_EQ(s_->write(s_, bytes.data(), count), int32_t(taken)) << "of " << count;
        ASSERT_TRUE(count > intoBuffer || count == 0 || HostCallCounter::all() == calls);
        ASSERT_EQ(val(s_->status), taken == most ? KAL_OK : KAL_ERR_DISK_FULL);
        expectBlocked();
    }

    void putChar() {
        const Bytes byte = someBytes(1);
        if (!writes_)
            return expectRefused(s_->putChar(s_, 'x') == (kind_->onDisk() ? KAL_ERR_WRITE : 0),
                                 KAL_ERR_WRITE);
        ASSERT_EQ(s_->putChar(s_, char(byte[0])), put(byte.data(), 1) == 1 ? KAL_OK : KAL_ERR_DISK_FULL);
        expectBlocked();
    }

    void putText(uint32_t count) {
        Bytes text = someBytes(count), wanted;
        std::replace(text.begin(), text.end(), uint8_t(0), uint8_t('\n'));
        const bool convert = below(2) == 0;
        for (const uint8_t c : text) {
            if (convert && c == '\n')
                wanted.push_back('\r');
            wanted.push_back(c);
        }
        text.push_back(0);
        const auto* string = reinterpret_cast<const char*>(text.data());
        if (!writes_)
            return expectRefused(KalPutStr(s_, string) == KAL_ERR_WRITE, KAL_ERR_WRITE);
        if (!convert)
            wanted.resize(std::min<size_t>(wanted.size(), 65'535));
        uint32_t taken = 0;
        while (convert && taken < wanted.size() && put(&wanted[taken], 1) == 1) // byte by byte
            taken++;
        if (!convert)
            taken = put(wanted.data(), uint32_t(wanted.size()));
        ASSERT_EQ(convert ? KalPutStrX(s_, string) : KalPutStr(s_, string),
                  taken == wanted.size() ? KAL_OK : KAL_ERR_DISK_FULL);
        expectBlocked();
    }

    // A full disk takes nothing more and goes nowhere until something succeeds.
    void expectBlocked() {
        if (s_->status != KAL_ERR_DISK_FULL)
            return;
        if (kind_->buffered()) {
            ASSERT_EQ(s_->write(s_, "x", 1), 0);
            ASSERT_EQ(s_->seek(s_, 0, KAL_SEEK_START), KAL_ERR_DISK_FULL);
        }
        s_->status = KAL_OK;
    }

    void seek() {
        const bool backwards = kind_->window > 0; // from a window's end one goes back
        const uint32_t length = kind_->isMemory()   ? std::max(length_, pos_)
                                : kind_->window > 0 ? kind_->window
                                                    : end();
        uint32_t origin = below(4);
        uint32_t target = kind_->first + below(std::min(length, KAL_NO_POSITION - 200) + 200 - kind_->first);
        target = kind_->window > 0 ? std::min(target, kind_->window) : target;
        if (below(8) == 0 && pos_ > kind_->first) { // a character back
            origin = KAL_SEEK_CURRENT;
            target = pos_ - 1;
        } else if (below(5) == 0 && !kind_->isMemory()) // that goes anywhere
            target = below(2) == 0        ? KAL_NO_POSITION
                     : kind_->window > 0  ? kind_->window + 1
                     : kind_->isVMem()    ? 0x80000000
                     : kind_->isMapping() ? capacity_
                                          : KAL_NO_POSITION;
        const uint32_t from = origin == KAL_SEEK_CURRENT                      ? pos_
                              : origin == KAL_SEEK_END                        ? length
                              : origin == KAL_SEEK_START || kind_->window > 0 ? kind_->base
                                                                              : 0;
        const bool refused = target == KAL_NO_POSITION || (kind_->window > 0 && target > kind_->window) ||
                             (kind_->isVMem() && target >= 0x80000000) ||
                             (kind_->isMapping() && (origin == 3 || target >= capacity_));
        const auto distance = int32_t(target - from);
        const int before = s_->status;
        const bool inBuffer = s_->bufSize > 0 && s_->bufStart <= target && target < s_->bufEnd;
        const int64_t calls = HostCallCounter::all();
        const int status =
            origin == KAL_SEEK_CURRENT && distance == -1
                ? KalUnGetChar(s_)
                : s_->seek(s_, backwards && origin == KAL_SEEK_END ? -distance : distance, origin);
        ASSERT_EQ(status, refused ? kind_->refusedSeek : KAL_OK)
            << "to " << target << " from origin " << origin;
        ASSERT_TRUE(!inBuffer || (origin == KAL_SEEK_END && !backwards) || HostCallCounter::all() == calls);
        ASSERT_EQ(val(s_->status), kind_->buffered() || (kind_->isVMem() && refused) ? status : before);
        if (refused)
            return afterRefusedSeek();
        ASSERT_TRUE(s_->bufSize == 0 || inBuffer || !kind_->buffered() || s_->bufStart == target);
        length_ = kind_->isMemory() ? length : length_;
        pos_ = target;
        if (!kind_->buffered() && !kind_->isMemory() && pos_ > end()) // the stream is longer at once
            bytes_.resize(pos_, kNobodys);
    }

    // A disk file's stream stands nowhere then, others where they stood.
    void afterRefusedSeek() {
        if (!kind_->buffered() || kind_->window > 0) {
            s_->status = KAL_OK;
            return;
        }
        pos_ = KAL_NO_POSITION;
        ASSERT_NO_FATAL_FAILURE(check());
        uint8_t byte = 0;
        const bool writes = !reads_ || (writes_ && below(2) == 0);
        ASSERT_EQ(writes ? s_->write(s_, &byte, 1) : s_->read(s_, &byte, 1), 0);
        ASSERT_EQ(val(s_->status), KAL_ERR_SEEK);
        ASSERT_NO_FATAL_FAILURE(check());
        pos_ = kind_->first + below(uint32_t(bytes_.size()) + 1);
        ASSERT_EQ(s_->seek(s_, int32_t(pos_), 3), KAL_OK);
    }

    void getLine(uint32_t size) {
        if (!reads_)
            return;
        std::string wanted;
        uint32_t pos = pos_;
        int status = KAL_OK;
        bool ended = false;
        while (wanted.size() + 1 < size && !ended && status == KAL_OK) {
            if (pos >= readEnd()) {
                status = kind_->endStatus;
            } else if (byteAt(pos) == kNobodys) {
                return; // may be a line's end or not
            } else {
                const char c = char(byteAt(pos++));
                ended = c == '\r' || c == '\n';
                if (!ended)
                    wanted += c;
                if (c == '\r' && pos < readEnd() && byteAt(pos) == kNobodys)
                    return;
                pos += c == '\r' && pos < readEnd() && byteAt(pos) == '\n';
            }
        }
        if (size > 0)
            wanted += char(status == KAL_OK ? 0 : kind_->endChar);
        s_->status = KAL_OK;
        std::string line(size + 1, '#');
        ASSERT_EQ(KalGetStr(s_, line.data(), size), status);
        ASSERT_EQ(line.substr(0, wanted.size()), wanted);
        ASSERT_EQ(line[size], '#');
        pos_ = pos;
    }

    const HostCallCounter counter_;
    const Kind* kind_ = nullptr;
    SFILE* s_ = nullptr;
    bool reads_ = false, writes_ = false;
    std::mt19937 random_;
    std::vector<int> bytes_;
    uint32_t pos_ = 0, capacity_ = 0;
    uint32_t length_ = 0, block_ = 0; // of a memory stream: what it says, and its block
};

} // namespace

TEST_F(Model, AllKindsAgreeInRandomSequences) {
    constexpr uint16_t kLater[] = {0,
                                   KAL_MODE_WRITE,
                                   KAL_MODE_UPDATE,
                                   KAL_MODE_APPEND,
                                   0x4, // writes nothing, since it opens nothing for writing
                                   KAL_MODE_APPEND | KAL_MODE_UPDATE};
    constexpr uint32_t kBufSizes[] = {0, 1, 3, 512, 4096};
    for (const Kind& kind : kKinds) {
        const HeapBalance balance;
        KalSetMaxVMem(200'000); // six blocks of a stream, so that others are swapped out
        ASSERT_EQ(KalOpenVMem(0), KAL_OK);
        for (uint32_t seed = firstSeed(), end = seed + 60; seed != end; seed++) {
            const uint16_t mode = seed % 2 == 0 ? KAL_MODE_UPDATE : KAL_MODE_WRITE;
            const uint16_t later = kLater[seed / 2 % 6];
            const uint32_t bufSize = kBufSizes[seed % 5];
            SCOPED_TRACE(::testing::Message() << kind.name << ", buffer " << bufSize << ", created with "
                                              << mode << ", then " << later << ", seed " << seed);
            run(kind, mode, later, bufSize, seed);
            if (HasFailure())
                return;
        }
        KalCloseVMem();
    }
}
