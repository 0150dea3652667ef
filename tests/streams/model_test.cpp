// Every kind of stream against one model: a vector of bytes, a position, and what the kinds do differently. Random
// sequences of all operations; positions, statuses, bytes and the record must agree after each. What is kept when the
// stream is closed is looked at from outside, and the stream is opened again with another access.
#include "tests/streams/streams.h"
#include "tests/support/storage.h"

#include <fcntl.h>

namespace {

constexpr int kNobodys = -1; // a byte that nobody put: whatever the memory held

struct Kind {
    const char* name;
    uint16_t mode; // the bit that chooses it
    bool compound;
    int endStatus, endChar; // of a read that finds nothing, and what get-character gives there
    int refusedSeek;
    // Bytes in one call, where positions end, where the bytes of the test start.
    uint32_t mostAtOnce, capacity, first;
    bool buffered() const { return mode == 0; } // and without a buffer it is the file that holds the bytes
    bool onDisk() const { return mode == 0 && !compound; }
    bool isMemory() const { return mode == KAL_MODE_MEMORY; }
    bool isVMem() const { return mode == KAL_MODE_VMEM; }
    bool isMapping() const { return mode == KAL_MODE_FILEMAP; }
};

constexpr int kEnd = KAL_ERR_END, kShort = KAL_ERR_SHORT_READ;
constexpr uint32_t kAny = UINT32_MAX, kLast = KAL_NO_POSITION - 1;
constexpr Kind kKinds[] = {
    {"disk", 0, false, kEnd, kEnd, KAL_ERR_SEEK, kAny, kLast, 0},
    {"disk at 2 GiB", 0, false, kEnd, kEnd, KAL_ERR_SEEK, kAny, kLast, 0x7FFFFE00},
    {"disk at 4 GiB", 0, false, kEnd, kEnd, KAL_ERR_SEEK, kAny, kLast, 0xFFFFF000},
    {"compound", 0, true, kEnd, kEnd, KAL_ERR_SEEK, kAny, kLast, 0},
    {"memory", KAL_MODE_MEMORY, false, kShort, kShort, KAL_OK, kAny, kLast, 0},
    {"VMem", KAL_MODE_VMEM, false, kShort, kShort, KAL_ERR_BUFFER, 65535, kLast, 0},
    {"mapping", KAL_MODE_FILEMAP, false, kShort, 0, KAL_ERR_SEEK, kAny, 5000, 0},
};

class Model : public FolderTest {
protected:
    Model() : FolderTest(kInMemory) {}

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
        ASSERT_NO_FATAL_FAILURE(open(mode));
        ASSERT_EQ(KalFlushBuf(s_) | KalSetBuf(s_, bufSize), KAL_OK);
        for (int i = 0; i < 100; i++) {
            SCOPED_TRACE(::testing::Message() << "mode " << mode << " step " << i);
            ASSERT_NO_FATAL_FAILURE(step());
            ASSERT_NO_FATAL_FAILURE(check());
        }
        close();
    }

    void open(uint16_t mode) {
        const std::string name = kind_->isMapping() ? "model" + std::to_string(getpid()) : "f";
        const bool creates = (mode & KAL_MODE_CREATE) != 0, appends = (mode & KAL_MODE_APPEND) != 0;
        const uint16_t access = mode & (KAL_MODE_WRITE | KAL_MODE_UPDATE);
        const bool twoWays = !kind_->compound && !kind_->isMapping();
        reads_ = twoWays || (mode & KAL_MODE_WRITE) == 0;
        writes_ = access != 0 || (kind_->onDisk() ? appends : twoWays);
        base_ = window_ = 0;
        if (kind_->isMapping() && !creates) {
            capacity_ = uint32_t(bytes_.size());
            if (writes_)
                bytes_.clear();
        }
        pos_ = appends && kind_->buffered() ? end() : 0;
        if (kind_->onDisk() && !appends && below(4) == 0) {
            KalMakeSFile(&s_, ::open("f", O_RDWR | (creates ? O_CREAT | O_TRUNC : 0), 0600));
            ASSERT_EQ(s_->write(s_, "x", 1), KAL_ERR_WRITE) << "until the mode allows it";
            ASSERT_TRUE(s_->mode == 0 && s_->name == nullptr);
            s_->mode = mode;
            s_->status = KAL_OK;
        } else {
            s_ = openStream(name.c_str(), kind_->mode | mode, KAL_OK, kind_->compound ? "s" : nullptr, 5004);
            const bool adds = appends && access == 0 && kind_->buffered();
            ASSERT_EQ(val(s_->mode), kind_->mode | mode | (adds ? KAL_MODE_WRITE : 0));
            ASSERT_EQ(kind_->buffered() ? std::string(s_->name) : name, name);
        }
        ASSERT_TRUE(s_->status == KAL_OK && s_->dirty == 0 && s_->tempName == nullptr);
        if (kind_->buffered()) {
            ASSERT_TRUE(s_->osPos == pos_ && s_->bufStart == pos_ && s_->offset == 0 &&
                        s_->bufPtr == s_->buf);
            ASSERT_TRUE(kind_->compound ? s_->bufSize == 0 && s_->bufEnd == KAL_NO_POSITION
                                        : s_->bufSize == 512 && s_->bufEnd == 0);
        }
        ASSERT_NO_FATAL_FAILURE(check());
        if (pos_ < kind_->first) {
            ASSERT_EQ(s_->seek(s_, int32_t(pos_ = kind_->first), 3), KAL_OK);
            if (creates)
                write(700);
        }
    }

    void step() {
        switch (below(10)) {
        case 0:
            return read(someCount());
        case 1:
            return write(someCount());
        case 2:
        case 3:
            return characters(below(50), below(2) == 0);
        case 4:
        case 5:
            return seek();
        case 6:
            return getLine(below(below(4) == 0 ? 3000 : 40));
        case 7:
            return putText(below(99) == 0 ? 65'600 : below(300));
        case 8:
            ASSERT_EQ(KalFlushBuf(s_) | s_->dirty, KAL_OK);
            if (kind_->onDisk())
                expectStored();
            return;
        default:
            if (below(5) == 0)
                setBuf(below(700));
            if (kind_->onDisk())
                return constrain();
            const SFILE before = *s_;
            ASSERT_EQ(KalConstrainFile(s_, 1, 5), 1);
            KalUnconstrainFile(s_);
            ASSERT_EQ(std::memcmp(&before, s_, sizeof before), 0) << "what takes no window stays as it was";
        }
    }

    // What must hold after every operation: of the end, which is 0 in a fresh buffer, wherever that starts, and where the
    // host's pointer stands. A memory stream's length is kept lazily.
    void check() {
        ASSERT_EQ(val(s_->pos) - origin(), pos_);
        ASSERT_TRUE(kind_->isMemory()    ? s_->osPos == length_
                    : !kind_->buffered() ? s_->bufEnd - origin() == end() && s_->bufSize == 0
                    : s_->bufSize == 0 ? s_->buf == nullptr && s_->bufEnd == KAL_NO_POSITION && s_->dirty == 0
                    : s_->bufEnd != 0  ? s_->bufEnd - s_->bufStart <= s_->bufSize
                                       : true)
            << val(s_->osPos) << ", " << val(s_->bufStart) << " to " << val(s_->bufEnd);
        ASSERT_TRUE(held() == 0 || s_->bufPtr == s_->buf + (s_->pos - s_->bufStart));
        ASSERT_TRUE(!kind_->onDisk() || uint32_t(::lseek(int(s_->handle), 0, SEEK_CUR)) == s_->osPos);
    }

    // Without memory for it the old size stays.
    void setBuf(uint32_t size) {
        const uint32_t oldSize = s_->bufSize;
        const bool fails = size > 0 && below(2) == 0 && !kind_->isVMem() && !kind_->isMapping();
        ASSERT_EQ(KalFlushBuf(s_), KAL_OK);
        failHeapAllocation(fails ? 1 : 0);
        ASSERT_EQ(KalSetBuf(s_, size), fails ? KAL_ERR_BUFFER : KAL_OK);
        failHeapAllocation(0);
        ASSERT_TRUE(!kind_->buffered() || s_->bufSize == (fails ? oldSize : size));
    }

    void close() {
        if (kind_->isMemory() || kind_->isVMem()) { // now or never
            ASSERT_EQ(s_->seek(s_, 0, KAL_SEEK_START), KAL_OK);
            length_ = std::max(length_, std::exchange(pos_, 0u));
            while (pos_ < end())
                ASSERT_NO_FATAL_FAILURE(read(60'000));
            read(1);
        }
        ASSERT_EQ(s_->close(s_), KAL_OK);
        if (kind_->buffered())
            expectStored();
    }

    // As others read it.
    void expectStored() {
        Bytes stored(bytes_.size() + 1);
        if (kind_->compound) {
            Streams streams;
            ASSERT_TRUE(readStreams("f", streams));
            stored = streams[L"s"];
        } else {
            const int file = ::open("f", O_RDONLY);
            stored.resize(size_t(::pread(file, stored.data(), stored.size(), off_t(kind_->first))));
            ::close(file);
        }
        ASSERT_TRUE(std::equal(stored.begin(), stored.end(), bytes_.begin(), bytes_.end())) << "other bytes";
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
        return std::min(window_ > 0 ? window_ : kAny, kind_->isMemory() ? std::min(length_, block_) : end());
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

    void characters(uint32_t count, bool areRead) {
        while (count-- > 0 && !HasFatalFailure())
            areRead ? read(1) : write(1);
    }

    // One byte often as a character.
    void read(uint32_t count) {
        Bytes bytes(count + 1);
        const bool asCharacter = count == 1 && below(3) > 0;
        const uint32_t most = std::min(count, kind_->mostAtOnce);
        const uint32_t got = std::min(most, ahead());
        const uint32_t fromBuffer = held();
        const bool isThere = kind_->onDisk() && s_->osPos == pos_ && s_->dirty == 0; // the host's pointer
        const int64_t calls = HostCallCounter::all(), seeks = HostCallCounter::seeks();
        const int32_t result = !asCharacter               ? s_->read(s_, bytes.data(), count)
                               : !reads_ || below(2) == 0 ? s_->getChar(s_)
                                                          : KalNextChar(s_);
        if (!reads_)
            return expectRefused(result, 0, KAL_ERR_READ);
        bytes[0] = asCharacter ? uint8_t(result) : bytes[0];
        ASSERT_EQ(result, !asCharacter ? int32_t(got)
                          : got == 1   ? bytes[0]
                                       : kind_->endChar)
            << "of " << count;
        ASSERT_TRUE(count > fromBuffer || count == 0 || HostCallCounter::all() == calls);
        ASSERT_TRUE(!isThere || HostCallCounter::seeks() == seeks);
        const bool whole = got == most && (!kind_->isMemory() || pos_ + got <= readEnd());
        const bool isCut = window_ > 0 && (pos_ >= window_ || count > window_ - pos_);
        const bool hostEnds = kind_->buffered() && !isCut && got == fromBuffer;
        const int early = got == 0 ? kind_->endStatus : hostEnds ? kEnd : kShort;
        if (!whole || !asCharacter || !kind_->buffered()) { // which leaves the status alone in the buffer
            ASSERT_EQ(val(s_->status), whole ? KAL_OK : early);
        }
        expectBytes(bytes.data(), got);
    }

    void expectRefused(int result, int wanted, int status) {
        ASSERT_TRUE(result == wanted && s_->status == status) << result << " status " << val(s_->status);
        s_->status = KAL_OK;
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
        const bool asCharacter = count == 1 && below(3) > 0;
        const uint32_t intoBuffer = room();
        const int64_t calls = HostCallCounter::all();
        const int32_t result =
            asCharacter ? s_->putChar(s_, char(bytes[0])) : s_->write(s_, bytes.data(), count);
        if (!writes_)
            return expectRefused(result, kind_->onDisk() ? +KAL_ERR_WRITE : 0, KAL_ERR_WRITE);
        const uint32_t taken = put(bytes.data(), count);
        const int status = taken == std::min(count, kind_->mostAtOnce) ? KAL_OK : KAL_ERR_DISK_FULL;
        ASSERT_EQ(result, asCharacter ? status : int32_t(taken)) << "of " << count;
        ASSERT_TRUE(count > intoBuffer || count == 0 || HostCallCounter::all() == calls);
        ASSERT_EQ(val(s_->status), status);
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
            return expectRefused(KalPutStr(s_, string), KAL_ERR_WRITE, KAL_ERR_WRITE);
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

    // A window, a base offset alone, or the whole file again.
    void constrain() {
        ASSERT_EQ(KalFlushBuf(s_), KAL_OK);
        window_ = base_ = 0;
        if (below(3) == 0)
            return KalUnconstrainFile(s_);
        base_ = kind_->first + below(uint32_t(bytes_.size()) + 1);
        const uint32_t end = base_ + std::min(below(2000), kLast - base_) - 300;
        ASSERT_EQ(KalConstrainFile(s_, int32_t(base_), int32_t(end)), 0);
        if (int32_t(end) > int32_t(base_)) {
            window_ = end;
            pos_ = base_;
        }
    }

    void seek() {
        const bool backwards = window_ > 0; // from a window's end one goes back
        const uint32_t length = window_ > 0 ? window_ : kind_->isMemory() ? std::max(length_, pos_) : end();
        const uint32_t most = window_ > 0 ? window_ : std::min(length, kLast - 200) + 200;
        const auto refuses = [&](uint32_t to) { // a memory stream goes anywhere
            return (to == KAL_NO_POSITION && !kind_->isMemory()) || (window_ > 0 && to > window_) ||
                   (kind_->isVMem() && to >= 0x80000000) || (kind_->isMapping() && to >= capacity_);
        };
        const uint32_t edges[] = {pos_ - 1,        s_->bufEnd, s_->osPos, window_ + 1,
                                  KAL_NO_POSITION, 0x80000000, capacity_};
        const uint32_t edge = edges[below(7)];
        const bool takesEdge = below(2) == 0 && edge >= kind_->first && (edge <= most || refuses(edge));
        const uint32_t target = takesEdge ? edge : kind_->first + below(most - kind_->first + 1);
        const uint32_t origin = target == pos_ - 1 ? KAL_SEEK_CURRENT : below(4);
        const bool refused = refuses(target) || (kind_->isMapping() && origin == 3);
        const uint32_t from[] = {base_, pos_, length, window_ > 0 ? base_ : 0};
        const auto distance = int32_t(target - from[origin]);
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
        if (!kind_->buffered() || window_ > 0) {
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
    uint32_t pos_ = 0, capacity_ = 0, base_ = 0, window_ = 0; // a window's end, or 0
    uint32_t length_ = 0, block_ = 0; // of a memory stream: what it says, and its block
};

} // namespace

TEST_F(Model, AllKindsAgreeInRandomSequences) {
    constexpr uint16_t kNoAccess = 0x4; // a bit that opens nothing for writing
    constexpr uint16_t kLater[] = {
        0, KAL_MODE_WRITE, KAL_MODE_UPDATE, KAL_MODE_APPEND, kNoAccess, KAL_MODE_APPEND | KAL_MODE_UPDATE};
    constexpr uint32_t kBufSizes[] = {0, 1, 3, 512, 4096};
    for (const Kind& kind : kKinds) {
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

TEST_F(Model, NothingIsReadPastTheLastPositionAndAStandingStatusEndsALine) {
    writeFile("f", bytesOf("abc\rdef"));
    fs::resize_file("f", 0x100000010); // by others
    SFILE* s = openStream("f", 0);
    EXPECT_EQ(s->getChar(s), 'a');
    s->status = KAL_ERR_SEEK; // as a refused seek leaves it, with bytes still in the buffer
    char line[] = "########";
    EXPECT_EQ(KalGetStr(s, line, 8), KAL_ERR_SEEK);
    EXPECT_STREQ(line, "b#######") << "after one character";
    EXPECT_EQ(s->seek(s, 0, KAL_SEEK_END), KAL_ERR_SEEK);
    EXPECT_EQ(::lseek(int(s->handle), 0, SEEK_CUR), val(s->osPos));
    for (const uint32_t bufSize : {0u, 512u}) {
        KalSetBuf(s, bufSize);
        EXPECT_EQ(s->seek(s, int32_t(0xFFFFFFFA), KAL_SEEK_START), KAL_OK);
        EXPECT_EQ(s->read(s, line, 8), 4);
    }
    EXPECT_EQ(s->close(s), KAL_OK);
    EXPECT_EQ(KalConstrainFile(nullptr, 1, 5), 1);
}
