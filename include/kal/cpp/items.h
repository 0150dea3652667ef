// Item and resource files that close themselves, and their items as ranges.
//
//     auto items = kal::ItemFile::create("notes.itm");
//     items->write(1, kal::bytesOf("hello"));
//     for (const auto& entry : *items)
//         std::printf("item %u: %u bytes\n", entry.id, entry.size);
//     items->close();
#ifndef KAL_CPP_ITEMS_H
#define KAL_CPP_ITEMS_H

#include <kal/cpp/stream.h>
#include <kal/item.h>
#include <kal/resource.h>

#include <iterator>
#include <string>
#include <vector>

namespace kal {

// What the index says of an item.
struct Entry {
    uint16_t id;     // its name
    uint32_t size;   // in bytes
    uint32_t offset; // logical position of its first byte in the stream

    // Entries are equal when all that they say is.
    friend bool operator==(const Entry&, const Entry&) = default;
};

// Whether the file's entries are wide, and what the entry that lies there says.
inline bool isWide(const IFILE* file) {
    return (file->formatFlags & KAL_ITEMS_WIDE) != 0;
}
inline Entry entryAt(const IFILE* file, const void* place) {
    const auto* entry = static_cast<const ItemIndex*>(place);
    return isWide(file) ? Entry{entry->wide.id, entry->wide.size, entry->wide.offset}
                        : Entry{entry->narrow.id, entry->narrow.size, entry->narrow.offset};
}

// Goes over the items of a file in the order of the index; free entries are passed over. Valid until an item is added.
class EntryIterator {
public:
    using value_type = Entry;                           // made for each look
    using difference_type = ptrdiff_t;                  // of places in the index
    using reference = Entry;                            // a value, not a place
    using iterator_concept = std::forward_iterator_tag; // what C++20 takes it for
    using iterator_category = std::input_iterator_tag;  // and what older algorithms do

    // At the first item from place `place` of the index on.
    EntryIterator() = default;
    EntryIterator(const IFILE* file, uint32_t place) : file_(file), place_(place) { passFree(); }

    // The item; see the standard's iterators.
    Entry operator*() const {
        const size_t bytes = isWide(file_) ? sizeof(ItemIndexWide) : sizeof(ItemIndexNarrow);
        return entryAt(file_, reinterpret_cast<const uint8_t*>(file_->index) + place_ * bytes);
    }
    EntryIterator& operator++() {
        place_++;
        passFree();
        return *this;
    }
    EntryIterator operator++(int) {
        EntryIterator before = *this;
        ++*this;
        return before;
    }
    // Iterators are equal at the same place.
    friend bool operator==(const EntryIterator&, const EntryIterator&) = default;

private:
    void passFree() {
        while (place_ < file_->count && (**this).id == KAL_ITEM_FREE)
            place_++;
    }

    const IFILE* file_ = nullptr;
    uint32_t place_ = 0;
};

// The calls that item and resource files share, for the class that owns one.
template <class Traits>
class ItemReader : public Owner<Traits> {
public:
    using Owner<Traits>::Owner;

    // The items, and how the index names one of them; KAL_ERR_RESOURCE where there is none of that id.
    EntryIterator begin() const { return {this->get(), 0}; }
    EntryIterator end() const { return {this->get(), this->get()->count}; }
    Expected<Entry> find(uint16_t id) const {
        const ItemIndex* entry = KalFindItem(this->get(), id);
        if (entry == nullptr || id == KAL_ITEM_FREE)
            return Unexpected{KAL_ERR_RESOURCE};
        return entryAt(this->get(), entry);
    }

    // The whole item. KAL_ERR_RESOURCE where there is none; the stream's status; KAL_ERR_BUFFER when memory is short,
    // or the item does not lie in the stream.
    Expected<Block> read(uint16_t id) const {
        int32_t size = 0;
        if (char* bytes = KalGetItem(this->get(), id, &size); bytes != nullptr)
            return Block(bytes);
        if (const auto entry = find(id); !entry)
            return Unexpected{entry.error()};
        const Status status = this->get()->stream->status;
        return Unexpected{status.ok() ? Status(KAL_ERR_BUFFER) : status};
    }
};

// An item file.
class ItemFile : public ItemReader<ClosedBy<IFILE, KalCloseIFile>> {
public:
    using ItemReader::ItemReader;

    // Open as KalOpenIFile and KalOpenTempIFile do, or over a stream, which the file then owns; their statuses.
    static Expected<ItemFile> open(const char* name, uint16_t mode = 0, uint16_t format = 0) {
        return opened<ItemFile>([&](IFILE** out) { return KalOpenIFile(out, name, mode, format); });
    }
    static Expected<ItemFile> create(const char* name, uint16_t format = KAL_ITEMS_WIDE) {
        return open(name, KAL_MODE_CREATE | KAL_MODE_UPDATE, format);
    }
    static Expected<ItemFile> temporary() {
        return opened<ItemFile>([&](IFILE** out) { return KalOpenTempIFile(out); });
    }
    static Expected<ItemFile> over(Stream stream, uint16_t format = 0) {
        return opened<ItemFile>([&](IFILE** out) {
            const int16_t status = KalMakeIFile(out, stream.get(), format);
            if (status == KAL_OK)
                stream.release();
            return status;
        });
    }

    // Store an item in place of any of that id, or add to its end where it lies. The stream's status; KAL_ERR_SERVICE
    // when the id or size is none for this file, or something lies behind the item to which is added.
    Status write(uint16_t id, Bytes bytes) {
        if (id == KAL_ITEM_FREE || bytes.size() > most())
            return KAL_ERR_SERVICE;
        return stored(KalWriteIFile(get(), bytes.data(), static_cast<uint32_t>(bytes.size()), id), bytes);
    }
    Status append(uint16_t id, Bytes bytes) {
        if (id == KAL_ITEM_FREE || bytes.size() > most())
            return KAL_ERR_SERVICE;
        return stored(KalAddIFile(get(), bytes.data(), static_cast<uint32_t>(bytes.size()), id), bytes);
    }

    // Make room for an index of so many entries before large items are stored, or write the index. The statuses of
    // KalReserveItems and KalFlushIFile.
    Status reserve(uint16_t entries) { return KalReserveItems(get(), entries); }
    Status flush() { return KalFlushIFile(get()); }

private:
    size_t most() const { return isWide(get()) ? UINT32_MAX : UINT16_MAX; }

    Status stored(uint32_t count, Bytes bytes) const {
        if (count == bytes.size())
            return KAL_OK;
        return get()->stream->status != KAL_OK ? get()->stream->status : int16_t{KAL_ERR_SERVICE};
    }
};

// A resource file, found along the search text and only read.
class ResourceFile : public ItemReader<ClosedBy<IFILE, KalCloseRes>> {
public:
    using ItemReader::ItemReader;

    // Opens as KalOpenRes does; its statuses.
    static Expected<ResourceFile> open(const char* name, uint16_t format = 0) {
        return opened<ResourceFile>([&](IFILE** out) { return KalOpenRes(out, name, format); });
    }

    // The texts of a text resource. The statuses of read.
    Expected<std::vector<std::string>> texts(uint16_t id) const {
        return read(id).transform([](const Block& block) {
            std::vector<std::string> found;
            Bytes rest = block.bytes();
            do {
                found.emplace_back(textOf(rest));
                rest = rest.subspan(std::min(rest.size(), found.back().size() + 1));
            } while (!rest.empty() && rest[0] != std::byte{0});
            return found;
        });
    }
};

static_assert(std::forward_iterator<EntryIterator>);

} // namespace kal

#endif
