// Operation lists and files of them that close themselves, and ops as a range:
//
//     auto list = kal::OperationList::temporary();
//     list->put(100, "hello");
//     for (kal::Op op : *list)
//         std::printf("type %u, %zu bytes\n", op.type, op.bytes.size());
#ifndef KAL_CPP_OPLIST_H
#define KAL_CPP_OPLIST_H

#include <kal/cpp/stream.h>
#include <kal/oplist.h>

#include <iterator>
#include <memory>

namespace kal {

// An op that was got. Its bytes stay until the iterator that showed it moves on.
struct Op {
    uint16_t type; // the caller's, or KAL_OP_DIB
    Bytes bytes;   // the payload

    // The payload as a text, up to its first zero.
    std::string_view text() const { return textOf(bytes); }
};

// Goes over the ops of a list, from where that stands, once. A failure ends it early; the list's status tells.
class OpIterator {
public:
    using value_type = Op;             // made for each look
    using difference_type = ptrdiff_t; // of ops

    // At the next op of the list.
    OpIterator() = default;
    explicit OpIterator(OpList* list) : list_(list), op_(KalGetOp(list)) {}

    // The op; see the standard's iterators.
    Op operator*() const {
        const auto* payload = static_cast<const std::byte*>(op_.get());
        return {KalOpType(payload), {payload, KalOpSize(payload)}};
    }
    OpIterator& operator++() {
        op_.reset(KalGetOp(list_));
        return *this;
    }
    void operator++(int) { ++*this; }
    // Whether there is no op any more.
    friend bool operator==(const OpIterator& at, std::default_sentinel_t) { return at.op_ == nullptr; }

private:
    struct Free {
        void operator()(void* op) const { KalFreeSMem(KalOpBlock(op)); }
    };
    OpList* list_ = nullptr;
    std::unique_ptr<void, Free> op_;
};

// The calls of every list, for the class that owns one and gives it as list().
template <class Self>
class ListCalls {
public:
    // Puts an op at the list's position. The op's position, or the list's status; KAL_ERR_WRITE for more than 65,535
    // bytes.
    Expected<uint32_t> put(uint16_t type, Bytes bytes) {
        const auto size = static_cast<uint32_t>(std::min<size_t>(bytes.size(), UINT32_MAX));
        const uint32_t position = KalPutOpData(list(), type, bytes.data(), size);
        if (position == KAL_OP_FAILED)
            return Unexpected{failure()};
        return position;
    }
    // The same with the characters of a text.
    Expected<uint32_t> put(uint16_t type, std::string_view text) { return put(type, bytesOf(text)); }

    // Puts all ops of a range. 0, or the status of the put that failed.
    template <class Ops>
    Status putAll(Ops&& ops) {
        for (const Op op : ops)
            if (const auto position = put(op.type, op.bytes); !position)
                return position.error();
        return KAL_OK;
    }

    // 0, or what went wrong with the list or its stream.
    Status status() const { return KalGetOpError(list()); }

private:
    OpList* list() const { return static_cast<const Self*>(this)->list(); }
    Status failure() const { return status().ok() ? Status(KAL_ERR_WRITE) : status(); }
};

// How a list ends: what it owes is written first, so that a failure is told.
struct OperationListTraits : RecordTraits<OpList> {
    // The first status that is not 0.
    static Status close(OpList* list) {
        int16_t status = list->status;
        if (list->stream != nullptr && list->putPending != 0) {
            const int16_t sought = KalSeekOp(list, 0);
            const int16_t flushed = KalFlushBuf(list->stream);
            status = status != 0 ? status : sought != 0 ? sought : flushed;
        }
        KalCloseOpList(list);
        return status;
    }
};

// A list of its own: in movable memory, which needs an open VMem, or in a file.
class OperationList : public Owner<OperationListTraits>, public ListCalls<OperationList> {
public:
    using Owner::Owner;

    // Open as KalOpenOpList and KalTempOpList do; their statuses.
    static Expected<OperationList> open(const char* name, uint16_t mode = 0) {
        return opened<OperationList>([&](OpList** list) { return KalOpenOpList(list, name, mode); });
    }
    static Expected<OperationList> temporary(uint16_t flags = 0) {
        return opened<OperationList>([&](OpList** list) { return KalTempOpList(list, flags); });
    }
    static Expected<OperationList> inMemory() { return temporary(KAL_OPL_VMEM); }

    // Another list of the same ops in movable memory. The statuses of KalCloneOpList.
    Expected<OperationList> clone() const {
        return opened<OperationList>([&](OpList** list) { return KalCloneOpList(get(), list); });
    }

    // The ops from the first on. A list of which a file holds the bytes compressed is gone over once.
    OpIterator begin() const {
        KalSeekOp(get(), 0);
        return OpIterator(get());
    }
    static std::default_sentinel_t end() { return {}; }

    // Moves to a position that a put gave, or to the end, where the next op is put. The status.
    Status seek(uint32_t position) { return KalSeekOp(get(), static_cast<int32_t>(position)); }
    Status seekEnd() { return KalSeekEndOp(get()); }

    // Gives back memory that is not used.
    void shrink() { KalShrinkOpList(get()); }

    // The record, as get() gives it.
    OpList* list() const { return get(); }
};

// How a list that is being stored ends.
struct PutListTraits : RecordTraits<IOPFILE> {
    // 0, or what went wrong with the list.
    static Status close(IOPFILE* file) {
        const int16_t status = KalGetOpError(file->putList);
        const int16_t closed = KalClosePutIOpList(file);
        return status != 0 ? status : closed;
    }
};
// A list that is being stored in an operation-list file. Closing it makes it an item.
class PutList : public Owner<PutListTraits>, public ListCalls<PutList> {
public:
    using Owner::Owner;
    // What to put to by the plain calls.
    OpList* list() const { return get()->putList; }
};

// A list that is being read from an operation-list file, once: a range of ops.
class GetList : public Owner<ClosedBy<IOPFILE, KalCloseGetIOpList>> {
public:
    using Owner::Owner;
    // The ops from where the list stands.
    OpIterator begin() const { return OpIterator(list()); }
    static std::default_sentinel_t end() { return {}; }
    // 0, or what ended the ops early.
    Status status() const { return KalGetOpError(list()); }
    // What to get from by the plain calls.
    OpList* list() const { return get()->getList; }
};

// A file of lists.
class OperationListFile : public Owner<ClosedBy<IOPFILE, KalCloseIOpFile>> {
public:
    using Owner::Owner;

    // Open as KalOpenIOpFile and KalOpenTempIOpFile do, or over a stream, which the file then owns; their statuses.
    static Expected<OperationListFile> open(const char* name, uint16_t mode = 0, uint16_t format = 0) {
        return opened<OperationListFile>(
            [&](IOPFILE** out) { return KalOpenIOpFile(out, name, mode, format); });
    }
    static Expected<OperationListFile> create(const char* name,
                                              uint16_t format = KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED) {
        return open(name, KAL_MODE_CREATE | KAL_MODE_UPDATE, format);
    }
    static Expected<OperationListFile> temporary() {
        return opened<OperationListFile>([&](IOPFILE** out) { return KalOpenTempIOpFile(out); });
    }
    static Expected<OperationListFile> over(Stream stream, uint16_t format = 0) {
        return opened<OperationListFile>([&](IOPFILE** out) {
            const int16_t status = KalMakeIOpFile(out, stream.get(), format);
            if (status == KAL_OK)
                stream.release();
            return status;
        });
    }

    // Start a new item of that id, or reading the first that there is. The statuses of KalOpenPutIOpList and
    // KalOpenGetIOpList; KAL_ERR_RESOURCE where there is none, KAL_ERR_SERVICE while another is being stored or read.
    Expected<PutList> put(uint16_t id) {
        return opened<PutList>(
            [&](IOPFILE** out) { return start(out, &KalOpenPutIOpList, get()->putList, id); });
    }
    Expected<GetList> get(uint16_t id) const {
        return opened<GetList>(
            [&](IOPFILE** out) { return start(out, &KalOpenGetIOpList, get()->getList, id); });
    }
    using Owner::get;

    // Makes room for an index of so many lists before large ones are stored. The statuses of KalReserveItems.
    Status reserve(uint16_t lists) { return KalReserveItems(get()->ifile, lists); }

    // Stores all ops of a range as item `id`. 0, or what went wrong with the range's list or this file; the item then
    // holds what came through.
    template <class Ops>
    Status store(uint16_t id, Ops&& ops) {
        auto item = put(id);
        if (!item)
            return item.error();
        const Status put = item->putAll(ops);
        const Status closed = item->close();
        return !put.ok() ? put : !ops.status().ok() ? ops.status() : closed;
    }

private:
    int16_t start(IOPFILE** out, int16_t (*call)(IOPFILE*, uint16_t, OpList**), OpList* other,
                  uint16_t id) const {
        OpList* list = nullptr;
        const int16_t status = other != nullptr ? int16_t{KAL_ERR_SERVICE} : call(get(), id, &list);
        *out = status == KAL_OK ? get() : nullptr;
        return status == 1 ? int16_t{KAL_ERR_RESOURCE} : status;
    }
};

static_assert(std::input_iterator<OpIterator> && std::sentinel_for<std::default_sentinel_t, OpIterator>);

} // namespace kal

#endif
