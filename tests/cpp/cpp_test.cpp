#include "tests/support/faults.h"
#include "tests/support/registry_test.h"
#include "tests/support/trouble.h"

#include <kal/cpp.h>

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <iostream>
#include <map>
#include <random>
#include <ranges>

namespace {

using namespace std::ranges;
static_assert(input_range<const kal::OperationList> && input_range<const kal::GetList>);
static_assert(input_range<const kal::Settings> && input_range<kal::SettingRange> && view<kal::Rows>);
static_assert(forward_range<const kal::ItemFile> && forward_range<const kal::ResourceFile>);
static_assert(random_access_range<kal::Rows> && sized_range<kal::Rows>);

template <class... Owners>
constexpr bool moveOnly = ((std::movable<Owners> && !std::is_copy_constructible_v<Owners>)&&...);
static_assert(
    moveOnly<kal::Stream, kal::ItemFile, kal::ResourceFile, kal::OperationList, kal::OperationListFile,
             kal::PutList, kal::GetList, kal::CompressedStream, kal::Settings, kal::Draft, kal::VMem,
             kal::VMemBlock, kal::Lock, kal::ReadLock, kal::Bitmap, kal::Block>);

constexpr kal::Expected<int> half(int whole) {
    return whole % 2 == 0 ? kal::Expected<int>(whole / 2) : kal::Unexpected{KAL_ERR_FORMAT};
}
static_assert(half(8).and_then(half).transform([](int n) { return n + 1; }).value() == 3 && *half(4) == 2);
static_assert(half(6).and_then(half).error() == KAL_ERR_FORMAT && !half(1) && half(2).error().ok());
static_assert(half(1).value_or(9) == 9 && half(4).value_or(9) == 2 &&
              *half(1).or_else([](kal::Status) { return half(6); }) == 3);

std::string textOfSeed(size_t size, uint32_t seed) {
    const Bytes bytes = randomBytes(size, seed);
    return {bytes.begin(), bytes.end()};
}

void must(kal::Status status) {
    if (!status.ok())
        throw kal::BadExpectedAccess(status);
}

class CppFace : public RegistryTest {
protected:
    CppFace() : manager_(kal::VMem::open(1 << 20)) {}
    ~CppFace() override {
        KalSetMaxVMem(0);
        forgetRegistry(); // whose tree a process keeps
    }
    HeapBalance balance_;
    kal::Expected<kal::VMem> manager_;
};

// What was owned before a move assignment is closed; what was moved from is empty; nothing is closed twice. A close that
// finds no room leaves the stream to try again; going for good gives it up without a leak.
TEST_F(CppFace, OwnersCloseOnceWhereverTheyMoveAndAgainWhenThereIsRoom) {
    auto first = kal::Stream::create("first").value(), second = kal::Stream::create("second").value();
    first.write(kal::bytesOf("one"));
    second.write(kal::bytesOf("two"));
    first = std::move(second);
    EXPECT_EQ(readFile("first"), bytesOf("one"));
    EXPECT_EQ(readFile("second"), Bytes());
    EXPECT_TRUE(!second && second.close().ok() && first.close().ok());
    EXPECT_EQ(readFile("second"), bytesOf("two"));
    for (const bool again : {true, false}) {
        {
            FileSizeLimit limit(10);
            auto stream = kal::Stream::create("full").value();
            stream.write(kal::bytesOf(std::string(100, 'x')));
            EXPECT_EQ(stream.close(), KAL_ERR_DISK_FULL);
            if (again)
                limit.lift();
            EXPECT_TRUE(stream && stream.close().ok() == again);
        }
        EXPECT_EQ(readFile("full").size(), again ? 100U : 10U);
    }
    const auto missing = kal::Stream::open("missing");
    EXPECT_EQ(missing.error(), KAL_ERR_OPEN - ENOENT);
    EXPECT_STREQ(missing.error().text(), KalStatusText(KAL_ERR_OPEN - ENOENT));
    EXPECT_THROW(missing.value(), kal::BadExpectedAccess);
}

// Random reads, writes and seeks through a streambuf do what they do to a string.
TEST_F(CppFace, StreambufDoesWhatAStringDoes) {
    auto items = kal::ItemFile::create("items").value();
    must(items.write(1, kal::bytesOf("before")));
    constexpr uint16_t update = KAL_MODE_CREATE | KAL_MODE_UPDATE;
    kal::Expected<kal::Stream> streams[] = {
        kal::Stream::create("disk"),
        kal::Stream::open("", KAL_MODE_MEMORY | KAL_MODE_WRITE),
        kal::Stream::open("", KAL_MODE_VMEM | KAL_MODE_WRITE),
        kal::Stream::open("kal-cpp-test", KAL_MODE_FILEMAP | update, 60004),
        kal::Stream::inCompoundFile("compound", "Text", update),
        kal::Unexpected{KAL_ERR_NULL_STREAM}};
    for (auto& over : streams) {
        SCOPED_TRACE(&over - streams);
        const auto buffer =
            over ? std::make_unique<kal::streambuf>(*over) : std::make_unique<kal::streambuf>(items, 2);
        std::string model;
        std::mt19937 random(7);
        size_t at = 0;
        for (uint32_t step = 0; step < 3000; step++) {
            const size_t size = random() % (step % 50 == 0 ? 20000 : 40);
            if (const uint32_t what = random() % 8; what < 3) {
                const std::string text = textOfSeed(std::min<size_t>(size, 60000 - at), step);
                const auto count = std::streamsize(text.size());
                ASSERT_EQ(buffer->sputn(text.data(), count), count);
                model.replace(at, std::min(text.size(), model.size() - at), text);
                at += text.size();
            } else if (what < 6) {
                std::string text(size, '\0');
                text.resize(size_t(buffer->sgetn(text.data(), std::streamsize(size))));
                ASSERT_EQ(text, model.substr(at, size)) << "step " << step;
                at += text.size();
            } else if (what == 6 && at > 0) {
                ASSERT_EQ(buffer->sungetc(), uint8_t(model[--at])) << "step " << step;
            } else {
                at = random() % (model.size() + 1);
                const auto from = step % 2 == 0 ? std::ios::beg : std::ios::end;
                const auto offset = std::streamoff(at) - std::streamoff(step % 2 == 0 ? 0 : model.size());
                ASSERT_EQ(buffer->pubseekoff(offset, from), std::streampos(std::streamoff(at)));
            }
            ASSERT_EQ(buffer->pubseekoff(0, std::ios::cur), std::streampos(std::streamoff(at)));
        }
        ASSERT_GT(model.size(), 50000U);
        EXPECT_EQ(buffer->pubsync(), 0);
        EXPECT_TRUE(over || equal(items.read(2).value().bytes(), kal::bytesOf(model)));
    }
    // The first item cannot grow any more: the second lies behind it.
    kal::streambuf first(items, 1);
    EXPECT_EQ(first.sputn("1234567", 7) + first.pubsync(), 6);
    EXPECT_EQ(kal::textOf(items.read(1).value().bytes()), "123456");
}

TEST_F(CppFace, StreambufReadsACompressedRunFromAnywhere) {
    auto stream = kal::Stream::create("run").value();
    auto run = kal::CompressedStream::over(stream).value();
    kal::streambuf buffer(run);
    std::iostream io(&buffer);
    for (int i = 0; i < 20000; i++)
        io << "line " << i << '\n';
    const std::streamoff end = io.tellp();
    std::string word;
    int number = 0;
    for (const auto& [line, place] :
         {std::pair{19999, end - 11}, {0, std::streamoff(0)}, {12345, std::streamoff(124685)}}) {
        ASSERT_TRUE(io.seekg(place) >> word >> number) << place;
        EXPECT_EQ(number, line);
    }
    EXPECT_EQ(io.seekg(0, std::ios::end).tellg(), end);
    EXPECT_TRUE(run.close().ok());
    EXPECT_LT(stream.position(), end / 2);
}

TEST_F(CppFace, ItemsAndResourcesAreRanges) {
    for (const uint16_t format : Words{0, KAL_ITEMS_WIDE}) {
        auto items = kal::ItemFile::create("items", format).value();
        EXPECT_EQ(items.begin(), items.end());
        for (const uint16_t id : Words{3, 1, 2})
            must(items.write(id, kal::bytesOf(std::string(id, 'x'))));
        must(items.write(1, kal::bytesOf("longer than it was"))); // which leaves a free entry
        must(items.append(5, kal::bytesOf({"Open\0Close\0\0none", 16})));
        std::map<uint16_t, uint32_t> seen;
        for (const auto& entry : items)
            seen[entry.id] = entry.size;
        EXPECT_EQ(seen, (std::map<uint16_t, uint32_t>{{1, 18}, {2, 2}, {3, 3}, {5, 16}}));
        EXPECT_EQ(items.write(4, kal::bytesOf(std::string(70000, 'x'))).ok(), format != 0);
        EXPECT_EQ(items.read(9).error(), KAL_ERR_RESOURCE);
        EXPECT_TRUE(items.close().ok());
        const auto resources = kal::ResourceFile::open("items").value();
        EXPECT_EQ(kal::textOf(resources.read(1).value().bytes()), "longer than it was");
        EXPECT_EQ(resources.texts(5).value(), (std::vector<std::string>{"Open", "Close"}));
    }
}

TEST_F(CppFace, ListsAreRangesOfOps) {
    auto file = kal::OperationListFile::create("lists").value();
    const auto told = [](auto& ops) {
        std::string text;
        for (kal::Op op : ops)
            text += std::to_string(op.type) + ":" + std::to_string(op.text().size()) + " ";
        return text;
    };
    for (const uint16_t flags : Words{0, KAL_OPL_VMEM}) {
        auto list = kal::OperationList::temporary(flags).value();
        std::string expected;
        for (uint16_t type = 1; type <= 300; type++) {
            list.put(type, std::string(type, 'a')).value();
            expected += std::to_string(type) + ":" + std::to_string(type) + " ";
        }
        EXPECT_EQ(told(list) + told(list), expected + expected);
        EXPECT_TRUE(file.store(flags + 1, list).ok());
        const auto stored = file.get(flags + 1).value();
        EXPECT_EQ(file.get(flags + 1).error(), KAL_ERR_SERVICE); // one at a time
        EXPECT_EQ(told(stored), expected);
        EXPECT_EQ(list.put(1, std::string(70000, 'x')).error(), KAL_ERR_WRITE);
    }
    EXPECT_EQ(file.get(99).error(), KAL_ERR_RESOURCE);
}

TEST_F(CppFace, SettingsAreARangeAndDraftsAreKeptOrDropped) {
    const std::string longValue(5000, 'v');
    {
        auto settings = kal::Settings::open("Cpp\\App").value();
        must(settings.set("View.Unit", "inch"));
        must(settings.set("View.Note", longValue));
        auto dropped = settings.draft();
        must(settings.set("View.Unit", "point"));
        EXPECT_EQ(settings.get("View.Unit").value(), "point");
        dropped->close();
        EXPECT_EQ(settings.get("View.Unit").value(), "inch");
        auto draft = settings.draft();
        must(settings.set("View.Unit", "mm"));
        EXPECT_TRUE(draft->keep().ok());
        kal::Settings::open("Cpp\\Child").value().set("Parent", "Cpp\\App");
    }
    const auto child = kal::Settings::open("Cpp\\Child").value(); // which opens its parent
    EXPECT_EQ(child.get("missing").error(), KAL_ERR_TAG_MISSING);
    std::map<std::string, std::string> seen;
    for (auto [name, value] : child.withPrefix("View."))
        seen.emplace(name, value);
    EXPECT_EQ(seen, (std::map<std::string, std::string>{{"Note", longValue}, {"Unit", "mm"}}));
}

TEST_F(CppFace, LocksShowWhatWasSwappedOut) {
    std::vector<kal::VMemBlock> blocks;
    for (uint32_t i = 0; i < 120; i++) {
        if (i < 40)
            blocks.push_back(kal::VMemBlock::allocate(100000).value());
        else
            ASSERT_EQ(count(blocks[i % 40].lockToRead().value().bytes(), std::byte(i - 40)), 100000);
        fill(blocks[i % 40].lock().value().bytes(), std::byte(i)); // a copy swapped out is old now
    }
}

kal::Bitmap pictureOf(uint16_t width, uint16_t height, uint16_t bits) {
    auto made = kal::Bitmap::create(width, height, bits).value();
    must(made.setPalette(std::vector<kal::Colour>(bits == 24 ? 0 : 1U << bits, kal::Colour{1, 2, 3, 4})));
    // A stored band has no room for what pads a row of some depths.
    const size_t used = bits == 24 ? width * 3U : KalDIBLineBytes(width, bits);
    for (uint32_t y = height; y-- > height / 4U;)
        must(made.put(y, kal::bytesOf(textOfSeed(used, y))));
    return made;
}

bool same(const kal::Bitmap& left, const kal::Bitmap& right) {
    const auto equalBytes = [](const kal::Row& a, const kal::Row& b) { return equal(a.bytes(), b.bytes()); };
    return left.bits() == right.bits() && left.width() == right.width() &&
           equal(std::as_bytes(left.palette()), std::as_bytes(right.palette())) &&
           equal(left.rows(), right.rows(), equalBytes);
}

TEST_F(CppFace, BitmapsComeBackFromAFile) {
    auto file = kal::OperationListFile::create("album").value();
    for (const uint16_t bits : Words{1, 4, 8, 24}) {
        SCOPED_TRACE(bits);
        const auto picture = pictureOf(1001, 600, bits); // of 24 bits larger than the memory there is
        const auto rows = picture.rows();
        EXPECT_EQ(kal::textOf(rows[599].bytes().first(8)), textOfSeed(8, 599).c_str());
        EXPECT_EQ(count(rows[3].bytes(), std::byte{0}), picture.rowBytes());
        EXPECT_TRUE(picture.store(file, bits).ok());
        EXPECT_TRUE(same(picture, kal::Bitmap::load(file, bits).value()));
        EXPECT_TRUE(same(picture, picture.clone().value()));
    }
    // Lists that are no pictures, or not whole.
    std::vector<std::pair<uint16_t, std::vector<std::byte>>> ops;
    for (kal::Op op : file.get(8).value())
        ops.emplace_back(op.type, std::vector(op.bytes.begin(), op.bytes.end()));
    const auto loaded = [&](size_t first, size_t count) {
        auto bad = file.put(99).value();
        for (const auto& [type, bytes] : std::span(ops).subspan(first, count))
            bad.put(type, kal::Bytes(bytes)).value();
        bad.close();
        const auto status = kal::Bitmap::load(file, 99).error();
        KalFindItem(file->ifile, 99)->wide.id = KAL_ITEM_FREE;
        return status;
    };
    EXPECT_EQ(loaded(0, ops.size()), KAL_OK);
    EXPECT_EQ(loaded(0, ops.size() - 1), KAL_ERR_SHORT_READ);
    EXPECT_EQ(loaded(1, 1), KAL_ERR_FORMAT);
    for (const size_t at : {2U, 4U, 6U, 8U}) { // the band's line, width, lines, bits
        ops[1].second[at] ^= std::byte{1};
        EXPECT_NE(loaded(0, ops.size()), KAL_OK) << at;
        ops[1].second[at] ^= std::byte{1};
    }
    auto picture = kal::Bitmap::create(3, 2, 8).value();
    must(picture.setPalette(std::vector<kal::Colour>{{0, 0, 0, 0}, {255, 255, 255, 0}}));
    must(picture.put(0, kal::bytesOf({"\1\0\1", 3})));
    must(picture.put(1, kal::bytesOf({"\0\1\0", 3})));
    auto plain = kal::OperationListFile::create("plain", 0).value();
    must(picture.store(plain, 1));
    must(plain.close());
    const auto item = kal::ItemFile::open("plain").value().read(1).value();
    const Bytes described = hexExample("docs/formats/bitmap.md");
    EXPECT_TRUE(equal(item.bytes(), std::as_bytes(std::span(described))));
}

// Whatever fails, no memory is lost and no failure goes untold.
TEST_F(CppFace, TellsEveryTrouble) {
    manager_ = kal::Unexpected{KAL_OK};
    const auto work = []() -> int {
        try {
            const auto manager = kal::VMem::open(1 << 20).value();
            auto file = kal::OperationListFile::create("album").value();
            must(pictureOf(30, 20, 8).store(file, 1));
            kal::Bitmap::load(file, 1).value();
            auto list = kal::OperationList::open("list", KAL_MODE_CREATE | KAL_MODE_UPDATE).value();
            list.put(7, "text").value();
            must(list.close());
            return file.close().code();
        } catch (const kal::BadExpectedAccess& bad) {
            return bad.error().code();
        }
    };
    walkTrouble(
        {.run = work,
         .statuses = {KAL_ERR_MEMORY, KAL_ERR_VMEM, KAL_ERR_BUFFER, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_SEEK,
                      KAL_ERR_CLOSE, KAL_ERR_DISK_FULL, KAL_ERR_OPEN - EIO, KAL_ERR_OPEN - ENOSPC},
         .unfinished = {"album", "list"}},
        kNoMemory | kHostFails | kDiskFull);
}

} // namespace
