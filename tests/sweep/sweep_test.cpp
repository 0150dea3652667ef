// Every exported function, with each allocation and each host call on its way failing: once, and from there on. The status
// is one that is expected, nothing is leaked or left open, and the same calls work afterwards.
//
// A row calls functions of one family; what fails is told once, to `told`. An exported function that is called in no row
// fails scripts/check-sweep, which CTest runs.
#include "platform/global_memory.h"
#include "streams/close.h"
#include "tests/support/registry_test.h"
#include "tests/support/trouble.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <type_traits>
#include <unistd.h>

namespace {

constexpr int kNone = -1; // null, 0 or no answer, where that is all that the function says
constexpr uint16_t kNew = KAL_MODE_NEW_FILE;

template <class... Statuses>
std::set<int> setOf(Statuses... statuses) {
    return {int{statuses}...};
}
const std::set<int> kTold =
    setOf(kNone, KAL_ERR_MEMORY, KAL_ERR_VMEM, KAL_ERR_BUFFER, KAL_ERR_GLOBAL, KAL_ERR_STORAGE,
          KAL_ERR_SERVICE, KAL_ERR_WRITE, KAL_ERR_READ, KAL_ERR_CLOSE, KAL_ERR_DISK_FULL, KAL_ERR_SEEK,
          KAL_ERR_SHORT_READ, KAL_ERR_RUN, KAL_ERR_EXAMINE, KAL_ERR_CURRENT_DIR, KAL_ERR_TAG_KEY,
          KAL_ERR_TAG_WRITE, KAL_ERR_TAG_MISSING, KAL_ERR_OPEN - EIO, KAL_ERR_OPEN - ENOSPC,
          KAL_ERR_OPEN - ENOMEM, STG_E_INSUFFICIENTMEMORY, STG_E_WRITEFAULT, STG_E_MEDIUMFULL,
          STG_E_ACCESSDENIED, STG_E_SHAREVIOLATION, STG_E_DOCFILECORRUPT);

int told; // what failed first

bool ok(int status) {
    told = told == KAL_OK ? status : told;
    return status == KAL_OK;
}
bool held(bool answer) {
    return ok(answer ? KAL_OK : kNone);
}
template <class T>
T* had(T* given) {
    held(given != nullptr);
    return given;
}
// As many as wanted came, or the record's status says why not.
template <class Record>
void came(int64_t count, int64_t wanted, const Record* record) {
    ok(count == wanted ? int{KAL_OK} : record->status != KAL_OK ? record->status : kNone);
}
void freed(void* block) {
    if (block != nullptr)
        ok(KalFreeSMem(block));
}
void freedOp(void* op) {
    if (op != nullptr)
        freed(KalOpBlock(op));
}
// Null where it cannot be opened; of a list a record that tells why.
template <class Record, class... Arguments>
Record* opened(int16_t (*open)(Record**, Arguments...), std::type_identity_t<Arguments>... arguments) {
    Record* record = nullptr;
    const int16_t status = open(&record, arguments...);
    EXPECT_TRUE(ok(status) == (record != nullptr) || (std::is_same_v<Record, OpList>));
    return record;
}
void closed(SFILE* stream) {
    if (stream != nullptr)
        ok(closeForGood(stream));
}
template <class Work>
void withVMem(Work work) {
    KalSetMaxVMem(20000);
    if (ok(KalOpenVMem(0))) {
        work();
        KalCloseVMem();
    }
}

void useMemory() {
    void* block = had(KalAllocSMem(10));
    void* more = had(KalReAllocSMem(block, 100000));
    block = more != nullptr ? more : block;
    held(KalSizeSMem(block) == 100000 && KalIsValidFarPointer(block) == 1);
    freed(block);
    KalFailedSMem();
    if (void* global = had(GlobalAlloc(GMEM_MOVEABLE, 10))) {
        had(KalGlobalReAlloc(global, 300000, GMEM_MOVEABLE));
        GlobalFree(global);
    }
    KalSetTaskData(&told, 20);
    held(KalGetTaskData(20) == &told);
    KalRemoveTaskData(20);
    ZEPObject::operator delete(had(ZEPObject::operator new(8)));
    listhd* group = nullptr;
    had(KalGroupMem(&group, 10)), had(KalGroupSMem(&group, 10)), KalGroupFree(&group);
    for (const auto asMuch : {KalAsMuchMem, KalAsMuchSMem}) {
        uint32_t size = 1000; // half of it will do
        freed(had(asMuch(&size))), held(size == 1000);
    }
}

void useBytes() {
    char text[40] = "img9", other[40];
    KalHMemCpy(other, text, 40);
    KalQSort(text, 40, 1, [](const void* a, const void* b) { return KalMemCmp(a, b, 1); });
    KalCenterString(toupper(other), 20, '*'), IncrString(other, 39), KalIncrementName(other);
    KalStatusName(KAL_ERR_READ), KalStatusText(KAL_ERR_READ);
    int ends[2], cursor = 0; // a key typed
    ASSERT_TRUE(::pipe(ends) == 0 && ::write(ends[1], "x", 1) == 1 && ::dup2(ends[0], 0) == 0);
    ::close(ends[0]), ::close(ends[1]);
    held(KalEditStr(other, 39, &cursor, 0) == 'x');
    const int file = ::open("handle", O_RDWR | O_CREAT | O_TRUNC, 0600);
    held(KalHWrite(file, text, 40) == 40 && ::lseek(file, 0, SEEK_SET) == 0 &&
         KalHRead(file, other, 40) == 40);
    ::close(file);
}

void useLists() {
    const KalPeekCallback any = [](void*, void*) { return uint16_t{1}; };
    int16_t status;
    ok(KalDestroyList(had(KalCreateList()))), ok(KalSDestroyList(had(KalSCreateList())));
    if (listhd* list = KalCreateListE(&status); ok(status)) {
        for (const auto add : {KalAddHead, KalAddTail, KalAddTail})
            add(list, had(KalCreateNode(10)));
        if (void* last = KalReversePeekList(list, any, nullptr); KalCountList(list) == 3)
            KalExtractNode(list, last), KalInsertNode(list, KalPeekList(list, any, nullptr), last);
        KalNextNode(KalPrevNode(KalDeleteHead(nullptr))), KalSizeList(list);
        for (const auto remove : {KalDeleteHead, KalDeleteTail})
            KalDestroyNode(remove(list));
        ok(KalDestroyList(list));
    }
    if (slisthd* list = KalSCreateListE(&status); ok(status)) {
        for (const auto add : {KalSAddHead, KalSAddTail, KalSAddTail})
            add(list, had(KalSCreateNode(10)));
        if (void* last = KalSReversePeekList(list, any, nullptr); KalSCountList(list) == 3)
            KalSExtractNode(list, last), KalSInsertNode(list, KalSPeekList(list, any, nullptr), last);
        held(KalIsSListGood(list) == 1), KalSPrevNode(nullptr);
        for (const auto remove : {KalSDeleteHead, KalSDeleteTail})
            KalSDestroyNode(remove(list));
        ok(KalSDestroyList(list));
    }
}

// The six operations of a kind of stream.
struct StreamCalls {
    int32_t (*read)(SFILE*, void*, uint32_t);
    int32_t (*getChar)(SFILE*);
    int32_t (*write)(SFILE*, const void*, uint32_t);
    int16_t (*putChar)(SFILE*, char);
    int16_t (*seek)(SFILE*, int32_t, uint32_t);
    int16_t (*close)(SFILE*);

    void use(SFILE* stream) const {
        const Bytes bytes = randomBytes(900, 1);
        Bytes back(900);
        if (stream == nullptr)
            return;
        came(write(stream, bytes.data(), 900), 900, stream);
        ok(putChar(stream, '!')), ok(seek(stream, 0, KAL_SEEK_START));
        came(read(stream, back.data(), 900), 900, stream);
        EXPECT_TRUE(told != KAL_OK || back == bytes);
        came(getChar(stream), '!', stream);
        EXPECT_EQ(stream->close, close);
        closed(stream);
    }
};

void useStreamsByCalls() {
    const std::string mapping = "sweep" + std::to_string(::getpid());
    StreamCalls{KalReadDiskFile, KalGetDiskChar, KalWriteDiskFile,
                KalPutDiskChar,  KalSeekDiskPos, KalCloseDiskFile}
        .use(opened(KalOpenFile, "disk", kNew, 0));
    StreamCalls{KalReadMemFile, KalGetMemChar, KalWriteMemFile, KalPutMemChar, KalSeekMemPos, KalCloseMemFile}
        .use(opened(KalOpenFile, nullptr, KAL_MODE_MEMORY, 0));
    StreamCalls{KalFMRead, KalFMGetChar, KalFMWrite, KalFMPutChar, KalFMSeek, KalFMClose}.use(
        opened(KalOpenFile, mapping.c_str(), KAL_MODE_FILEMAP | KAL_MODE_CREATE | KAL_MODE_UPDATE, 2000));
    StreamCalls{KalFOLE2Read, KalFOLE2GetChar, KalFOLE2Write, KalFOLE2PutChar, KalFOLE2Seek, KalFOLE2Close}
        .use(opened(KalOpenFileAsIStream, "compound", "s", kNew));
}

void useVMemStreams() {
    withVMem([] {
        StreamCalls{KalReadVMemFile, KalGetVMemChar, KalWriteVMemFile,
                    KalPutVMemChar,  KalSeekVMemPos, KalCloseVMemFile}
            .use(opened(KalOpenFile, nullptr, KAL_MODE_VMEM, 0));
    });
}

void useStreamsMore() {
    char bytes[300] = "a line\nand more";
    if (SFILE* s = opened(KalOpenFile, "more", kNew, 0)) {
        ok(KalPutStr(s, bytes)), ok(KalPutStrX(s, bytes)), ok(KalFlushBuf(s)), ok(KalSetBuf(s, 16));
        ok(KalConstrainFile(s, 2, 9)), ok(ConstSeekDiskPos(s, 0, KAL_SEEK_START));
        came(ConstReadDiskFile(s, bytes, 3), 3, s), came(ConstGetDiskChar(s), 'e', s);
        KalUnconstrainFile(s);
        ok(KalSetOffset(s, 0)), ok(s->seek(s, 1, KAL_SEEK_START)), ok(KalUnGetChar(s)),
            ok(KalGetStr(s, bytes, 300));
        KalFileCat(s, "old"); // errors of its reads are not told
        closed(s);
    }
    char home[] = ".";
    KalSetHomeStr(home), closed(opened(KalOpenFile, "nowhere\\old", KAL_MODE_SEARCH | KAL_MODE_UPDATE, 0));
    KalSetHomeStr(nullptr);
    closed(opened(KalOpenTempFile, kNew, 0)), closed(opened(KalOpenTempFile, kNew, 1));
    KalCopyFile("copy", "old"); // nor those of a copy's writes
    held(KalExistsFile("old") == 1);
    const int file = ::open("old", O_RDONLY);
    SFILE *made = opened(KalMakeSFile, file), record = {};
    made != nullptr ? closed(made) : void(::close(file));
    SFM(&record, "no mapping", 0);
    KalNoFMRead(&record, bytes, 1), KalNoFMGetChar(&record);
    KalNoFMWrite(&record, bytes, 1), KalNoFMPutChar(&record, 'x');
    KalNoFOLE2Read(&record, bytes, 1), KalNoFOLE2GetChar(&record);
    KalNoFOLE2Write(&record, bytes, 1), KalNoFOLE2PutChar(&record, 'x');
}

void useCompoundFiles() {
    constexpr uint32_t kUpdate = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    IStorage* storage = nullptr;
    IStream* stream = nullptr;
    SFILE* s = nullptr;
    if (ok(StgCreateDocfile(L"doc", STGM_CREATE | kUpdate, 0, &storage))) {
        ok(storage->CreateStream(L"s", kUpdate, 0, 0, &stream));
        SFOLE2* owner = stream != nullptr ? had(new SFOLE2(&s, storage, stream, KAL_MODE_UPDATE)) : nullptr;
        if (s != nullptr) {
            char byte;
            held(owner->_lwrite("bytes", 5) == 5 && owner->_llseek(0, 0) == 0 &&
                 owner->_lread(&byte, 1) == 1);
            ok(owner->KalFlushBuf()), closed(s);
        } else { // who opened them keeps them
            delete owner;
            held(stream == nullptr || stream->Release() != 0), storage->Release();
        }
    }
    IEnumSTATSTG* elements;
    STATSTG element = {};
    if (!ok(StgOpenStorage(L"doc", nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, &storage)))
        return;
    if (ok(storage->EnumElements(0, nullptr, 0, &elements))) {
        ok(elements->Next(1, &element, nullptr)), elements->Release();
        CoTaskMemFree(element.pwcsName);
    }
    storage->Release();
}

void useRuns() {
    readlzw decoder = {};
    readlzw_q quick = {};
    if (ok(KalInitReadLZW(&decoder, 256)))
        KalDecodeLZW(&decoder), ok(KalDestroyReadLZW(&decoder));
    if (ok(KalInitReadLZW(&quick, 256)))
        ok(KalDestroyReadLZW(&quick));
    SFILE* s = opened(KalOpenFile, nullptr, KAL_MODE_MEMORY, 0);
    if (s == nullptr)
        return;
    auto* encoder = static_cast<TAGWRITELZW*>(had(KalAllocSMem(sizeof(TAGWRITELZW))));
    if (encoder != nullptr && ok(KalInitWriteLZW(encoder, 256))) {
        if (KalFindString(encoder) == 0)
            ok(KalAddTreeEntry(encoder));
        ok(KalWriteLZWCode(encoder, s)), ok(KalDestroyWriteLZW(encoder));
    } else {
        freed(encoder);
    }
    uint8_t bytes[200] = {};
    ok(s->seek(s, 0, KAL_SEEK_START));
    if (scfiletag* run = opened(KalMakeCFile, s)) {
        came(KalWriteCFile(run, bytes, 200), 200, run);
        ok(KalFlushCFile(run)), ok(s->seek(s, 0, KAL_SEEK_START));
        came(KalReadCFile(run, bytes, 200), 200, run), ok(KalFreeCFile(run));
    }
    closed(s);
}

void useVMem() {
    KalSetVMemTemp(testFolder().c_str()), KalSetMemManOptions(nullptr), KalGetFreeSystemMemory();
    withVMem([] {
        void* blocks[4] = {};
        KalSetVMemErrorHandler([] {});
        for (uint8_t i = 0; i < 8; i++) { // and each comes back with its bytes
            void*& block = blocks[i % 4];
            block = i < 4 ? had(KalAllocVMem(2, 6000)) : block;
            auto* bytes = static_cast<uint8_t*>(had(KalLockVMem(block)));
            EXPECT_TRUE(i < 4 || bytes == nullptr || (bytes[0] == i - 4 && bytes[5999] == i - 4));
            if (bytes != nullptr)
                std::memset(bytes, i, 6000);
            KalMarkDirtyVMem(block), KalUnLockVMem(block);
        }
        had(KalReAllocVMem(blocks[0], 9000)), had(KalLockVMem(blocks[0]));
        ok(KalFreeVMem(blocks[0])), ok(KalDeleteLRU(blocks[1])), ok(KalAddLRU(blocks[1]));
        const auto* state = static_cast<vmemstate*>(KalGetTaskData(6));
        had(KalSPeekList(state->lruList, KalFindLRUNode, &blocks[1]));
        ok(KalLRUNewest(blocks[1])), ok(KalDiscardLRUOldest());
        held(KalMaxVMem() >= KalVMemUsed() && KalGetVMemSize() > 0);
        ok(KalCloseLRUVList()), ok(KalOpenLRUVList());
    });
    char bytes[100] = {};
    if (vfile* file = opened(KalOpenTempVFile)) {
        held(KalWriteVFile(file, bytes, 100, 1) == 100);
        if (vitem* item = had(KalFindVItem(file, 1)))
            held(KalReadVFile(file, item, bytes) == 100);
        ok(KalCloseVFile(file));
    }
    KalSetVMemTemp(nullptr);
}

void useItems() {
    char bytes[100] = "an item";
    int32_t size;
    if (IFILE* file = opened(KalOpenTempIFile))
        had(KalAppendItemIndex(file)), ok(KalCloseIFile(file));
    if (SFILE* s = opened(KalOpenFile, nullptr, KAL_MODE_MEMORY | kNew, 0)) {
        if (IFILE* file = opened(KalMakeIFile, s, KAL_ITEMS_WIDE))
            ok(KalFreeIFile(file));
        closed(s);
    }
    IFILE* file = opened(KalOpenIFile, "items", kNew, 0);
    if (file == nullptr)
        return;
    came(KalWriteIFile(file, bytes, 100, 1), 100, file->stream),
        came(KalAddIFile(file, bytes, 9, 1), 9, file->stream);
    ok(KalReserveItems(file, 20)), ok(KalFlushIFile(file));
    if (ItemIndex* entry = had(KalFindItem(file, 1))) {
        held(KalGetItemSize(file, 1) == 109);
        came(KalWriteItem(file, entry, std::string(109, 'x').data()), 109, file->stream);
        came(KalReadItem(file, entry, bytes, 100), 100, file->stream);
        came(KalReadIFile(file, bytes, 100, 1), 100, file->stream);
        came(KalIncReadItem(file, entry, bytes, 5), 5, file->stream);
        came(KalIncReadIFile(file, bytes, 4, 1), 4, file->stream);
        freed(had(KalGetItem(file, 1, &size)));
    }
    ok(KalCloseIFile(file));
}

void useResources() {
    void* block = nullptr;
    char** texts;
    IFILE* file = opened(KalOpenRes, "whole resources", 0);
    if (file == nullptr)
        return;
    ok(KalGetRes(file, 1, KAL_RES_BYTES, &block)), freed(block), block = nullptr;
    if (ok(KalGetSRes(file, 1, KAL_RES_WORDS, &block)))
        ok(KalDestroyRes(block)), block = nullptr;
    freed(block), block = nullptr;
    for (const auto get :
         {KalReadByteResData, KalReadWordResData, KalReadSByteResData, KalReadSWordResData}) {
        if (ok(get(file, 1, &block)))
            ok(KalDestroySRes(block)), block = nullptr;
        freed(block), block = nullptr;
    }
    if (ok(KalGetTextResData(file, 1, &texts)))
        ok(KalDestroyTextRes(texts));
    if (ok(KalGetSTextResData(file, 1, &texts)))
        ok(KalDestroyTextSRes(texts));
    ok(KalCloseRes(file));
}

struct : FilterOps {
    void FilterOp(void*, uint16_t, uint16_t) override {}
} filter;

void fill(OpList* list) {
    KalSetOpListFilter(list, filter);
    KalPutOpData(list, 7, "bytes", 5);
    if (void* op = had(KalCreateOp(7, 100)))
        KalPutOp(list, op), freedOp(op);
    ok(KalSeekEndOp(list)), ok(KalSeekOp(list, 0)), held(KalIsOpListEmpty(list) == 0);
    freedOp(had(KalGetOp(list)));
    KalShrinkOpList(list), ok(KalGetOpError(list)), ok(KalSeekOp(list, 0));
}

void useOperationLists() {
    for (const uint16_t mode : {uint16_t{0}, KAL_OPL_COMPRESSED})
        if (OpList* list = opened(KalOpenOpList, "list", kNew | mode))
            fill(list), KalCloseOpList(list);
    IFILE* file = opened(KalOpenTempIFile);
    if (file == nullptr)
        return;
    file->mode = 0;
    if (OpList* over = had(KalMakeOpList(file))) // closes the item file's stream
        KalCloseOpList(over), ok(KalFreeIFile(file));
    else
        KalCloseIFile(file);
}

void useVMemLists() {
    withVMem([] {
        OpList *list = opened(KalOpenOpList, nullptr, KAL_OPL_VMEM), *copy = nullptr;
        if (list != nullptr)
            fill(list);
        if (list != nullptr && list->status == KAL_OK)
            ok(KalCloneOpList(list, &copy)), KalCloseOpList(copy);
        KalCloseOpList(list);
    });
}

void useBitmaps() {
    withVMem([] {
        OpList *list = opened(KalTempOpList, KAL_OPL_VMEM_DIB), *copy = nullptr;
        if (list != nullptr)
            list->blockSize = 1000;
        if (list != nullptr && ok(KalSetupOpList(list, 0, 0, 50, 40, 24, 0, 2000))) {
            Bytes row(152);
            KalPutDIBOpData(list, row.data(), 152);
            ok(list->status), ok(KalSeekDIBOp(list, 0)), ok(KalGetDIBOpData(list, row.data(), 152));
            if (void* band = had(KalCreateOp(KAL_OP_DIB, KAL_DIB_OP_HEADER + 200))) {
                const uint16_t words[] = {0, 1, 50, 1, 24};
                std::memcpy(band, words, sizeof words);
                KalPutDIBOp(list, band), ok(list->status), freedOp(band);
            }
            for (const auto get : {KalGetDIBOp, KalGet24DIBOp})
                ok(KalSeekDIBScanLineOffset(list, 0, 0)), freedOp(get(list)), ok(list->status);
            KalDIBPosToLineNumber(list), KalShrinkDIBOpList(list);
            ok(KalSeekOp(list, 0)), ok(KalCloneDIBOpList(list, &copy)), KalCloseOpList(copy);
        }
        KalCloseOpList(list);
    });
}

void useListFiles() {
    OpList* list;
    if (IOPFILE* file = opened(KalOpenTempIOpFile))
        ok(KalCloseIOpFile(file));
    if (SFILE* s = opened(KalOpenFile, nullptr, KAL_MODE_MEMORY | kNew, 0)) {
        if (IOPFILE* file = opened(KalMakeIOpFile, s, KAL_ITEMS_WIDE))
            ok(KalFreeIOpFile(file));
        closed(s);
    }
    IOPFILE* file = opened(KalOpenIOpFile, "lists", kNew, KAL_ITEMS_WIDE | KAL_IOP_COMPRESSED);
    if (file == nullptr)
        return;
    if (ok(KalOpenPutIOpList(file, 1, &list)))
        KalPutOpData(list, 7, "bytes", 5), ok(list->status), ok(KalClosePutIOpList(file));
    if (ok(KalOpenGetIOpList(file, 1, &list)))
        freedOp(had(KalGetOp(list))), ok(KalCloseGetIOpList(file));
    if (OpList* other = opened(KalOpenOpList, nullptr, KAL_MODE_MEMORY)) {
        held(KalGetIOpList(file, 1, other) == 0), ok(KalSeekOp(other, 0));
        ok(KalPutIOpList(file, 2, other)), ok(other->status), KalCloseOpList(other);
    }
    ok(KalCloseIOpFile(file));
}

void useVerify() {
    struct : FaultSink {
        void Fault(uint64_t, uint32_t, const char*) override { ADD_FAILURE() << "a whole file has no fault"; }
    } sink;
    const std::pair<const char*, int32_t (*)(SFILE*, FaultSink&)> files[] = {
        {"whole lists", KalVerifyIFile},
        {"whole lists", KalVerifyIOpFile},
        {"whole resources", KalVerifyResources},
        {"whole doc", KalVerifyCompoundFile},
        {"whole log", KalVerifyRegistry},
        {"whole list", [](SFILE* s, FaultSink& to) { return KalVerifyOpList(s, 0, to); }}};
    for (const auto& [name, verify] : files)
        if (SFILE* s = opened(KalOpenFile, name, 0, 0))
            ok(verify(s, sink)), closed(s);
}

struct OpenSet : TagSet { // shows what is for derived classes
    void use() {
        char value[40];
        GetReady(), GetWildTag("held", value, 40, nullptr), NextBuf(), CurBuf();
        ForTags([](TagSet*, const char*, void*) { return 1; }, nullptr);
    }
    using TagSet::SetTempPath;
};

void useSettings() {
    {
        char value[40];
        TagSet set;
        OpenSet ready, temporary;
        ready.use(), ok(temporary.SetTempPath());
        ok(set.SetPath("App", 1)), had(set.GetPath());
        ok(set.SetTag("held", "new")), ok(set.GetTag("held", value, 40)), had(set.GetTempTag("held"));
        ok(set.SetRawTag("raw", "1")), ok(set.GetRawTag("raw", value, 40)), ok(set.SetGlobalTag("all", "2"));
        ok(set.SetIntTag("int", 3)), held(set.GetIntTag("int") == 3);
        ok(set.SetFloatTag("float", 4, 5)), held(set.GetFloatTag("float") == 4);
        if (TagSet* child = had(set.CreateChild())) {
            ok(child->SetTag("from child", "5")), ok(child->FuseWithParent());
            held(child->GetParent() == &set && set.GetLastChild() == child);
            set.SetChild(child), child->SetParent(&set);
        }
        set.DestroyChild();
        had(TagSearch(&set, "h").NextTag());
        ok(set.GetTag("from child", value, 40)), ok(set.ClearTags());
    }
    forgetRegistry();
}

void usePaths() {
    char out[KAL_NAME_SIZE] = "", file[KAL_FILE_SIZE], extension[KAL_EXT_SIZE];
    const char* path = "C:\\a\\b.c";
    KalGetDir(path, out, 100), KalGetFile(path, out, 100), KalGetExt(path, out, 100);
    KalSplitPath(path, out, file, extension), KalDefaultExt(out, "x"), KalNextPathFile(out, "a;b", "c.d");
    KalSetHome(path), had(KalGetHome()), had(KalGetPath()), had(KalGetHomeExecPath(out, 100)),
        KalSetHome(nullptr);
    KalSetHomeStr(out), KalSetHomeStr(nullptr), had(KalGetEnv("HOME")), ok(KalGetPrivateDir(out, sizeof out));
    ok(KalTempPath(testFolder().c_str())), out[0] = 0, ok(KalGetUnique(out, sizeof out)),
                                           KalTempPath(nullptr);
    ::rmdir("folder");
    ok(KalMakeDir("folder")), ok(KalChangeDir(".")), ok(KalGetCurWorkDir(out, sizeof out));
    int32_t seconds;
    uint16_t milliseconds;
    ok(KalGetCurDiskStatus()), KalGetTime(&seconds, &milliseconds);
}

void useFiles() {
    FILEINFO info;
    uint32_t attributes = 0;
    char name[40] = "page.tif", log[KAL_LOG_NAME_SIZE];
    if (FILESTAT* stat = had(KalOpenFileStat()))
        ok(KalFileStat("old", stat)), held(stat->writable == 1), KalCloseFileStat(stat);
    ok(KalFileAttr("old", &attributes)), ok(KalGetFileDateTimeSize("old", &info));
    held(KalGetFileSize("old") == 2000), ok(KalAccessFile("old", 6)), ok(KalAccessFile("new", kNew)),
        ok(KalExplicitAccessFile("old", 2));
    ok(KalSequenceFilename(name, sizeof name, 7));
    ok(KalSetLogMessName("log")), ok(KalGenLogMessName()), ok(KalGetLogMessName(log));
    ok(KalSetLogFlag(1)), ok(KalLogMessage("a message"));
}

struct Row {
    const char* name;
    void (*use)();
    std::set<std::string> files = {}; // that a run makes, and may leave in part
    friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

class Sweep : public RegistryTest, public ::testing::WithParamInterface<Row> {
protected:
    // One of each kind, for who reads them.
    void makeWholeFiles() const {
        useCompoundFiles(), useListFiles(), useSettings();
        std::filesystem::rename("doc", "whole doc");
        std::filesystem::rename("lists", "whole lists");
        std::filesystem::copy_file(persistentTree() + "/log", "whole log");
        IFILE* resources = opened(KalOpenIFile, "whole resources", kNew, 0);
        EXPECT_EQ(KalWriteIFile(resources, "a text\0and another\0", 20, 1), 20u);
        EXPECT_EQ(KalCloseIFile(resources), KAL_OK);
        OpList* list = opened(KalOpenOpList, "whole list", kNew);
        fill(list), KalCloseOpList(list);
        writeFile("old", randomBytes(2000, 7));
    }
    static void SetUpTestSuite() { KalSetLogMessName("log"); } // which keeps the name's memory
    static void TearDownTestSuite() {
        std::printf("%d points at which memory or the host failed\n", points_);
    }

    static inline int points_;
};

} // namespace

TEST_P(Sweep, EveryFailureHasAStatusAndLeavesNothing) {
    makeWholeFiles();
    const auto run = [] {
        told = KAL_OK;
        GetParam().use();
        return told;
    };
    EXPECT_EQ(run(), KAL_OK) << "without trouble";
    std::set<std::string> files = GetParam().files;
    files.insert({"registry/log", volatileTree().substr(path("").size()) + "/log"});
    const int points = walkTrouble({.run = run,
                                    .statuses = kTold,
                                    .check = [&](int) { EXPECT_EQ(run(), KAL_OK) << "later calls work"; },
                                    .unfinished = files,
                                    .loose = files},
                                   kAllTrouble & ~kKilled);
    RecordProperty("points", points);
    points_ += points;
}

INSTANTIATE_TEST_SUITE_P(
    , Sweep,
    ::testing::Values(Row{"memory", useMemory}, Row{"bytes", useBytes, {"handle"}}, Row{"lists", useLists},
                      Row{"streamsByCalls", useStreamsByCalls, {"disk", "compound"}},
                      Row{"streams", useStreamsMore, {"more", "copy", "ZEP0.TMP"}},
                      Row{"compoundFiles", useCompoundFiles, {"doc"}}, Row{"runs", useRuns},
                      Row{"VMem", useVMem}, Row{"items", useItems, {"items"}}, Row{"resources", useResources},
                      Row{"operationLists", useOperationLists, {"list"}}, Row{"VMemLists", useVMemLists},
                      Row{"VMemStreams", useVMemStreams}, Row{"bitmaps", useBitmaps},
                      Row{"listFiles", useListFiles, {"lists"}}, Row{"verify", useVerify},
                      Row{"settings", useSettings}, Row{"paths", usePaths, {"folder/"}},
                      Row{"files", useFiles, {"log"}}),
    [](const auto& row) { return row.param.name; });
