#include "platform/file_mapping.h"

#include "platform/heap_faults.h"
#include "platform/host_calls.h"
#include "platform/shared_object.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sys/mman.h>

namespace {

// A mapping that this process holds. All handles of one name are one number, so that making a name again and
// again takes no more descriptors than making it once.
struct Mapping {
    Mapping* next;
    HANDLE number;
    uint32_t handleCount;
    pid_t process; // which opened it: a forked child inherits the descriptor, but not the name
    int fd;
    char objectName[kSharedNameSize];
};

struct View {
    View* next;
    void* address;
    size_t size;
};

std::mutex guard;
Mapping* mappings;
View* views;
HANDLE lastNumber;

// The link that leads to the first element for which `matches` holds, or to the null at the end.
template <class Element, class Matches>
Element** find(Element*& list, Matches matches) {
    Element** link = &list;
    while (*link != nullptr && !matches(**link))
        link = &(*link)->next;
    return link;
}

template <class Element>
void drop(Element** link) {
    Element* element = *link;
    *link = element->next;
    std::free(element);
}

template <class Element>
Element* allocate() {
    return heapFaultDue() ? nullptr : static_cast<Element*>(std::calloc(1, sizeof(Element)));
}

Mapping** findHandle(HANDLE handle) {
    return find(mappings, [handle](const Mapping& mapping) { return mapping.number == handle; });
}

View** findView(const void* address) {
    return find(views, [address](const View& view) { return view.address == address; });
}

void release(Mapping** link) {
    // The lock belongs to the process that opened: a child that changed it would take it from its parent.
    if ((*link)->process == hostCalls.getpid())
        releaseSharedObject((*link)->fd, (*link)->objectName);
    else
        hostCalls.close((*link)->fd);
    drop(link);
}

// Handles that nobody closed end with the process, so that no name outlives it.
void releaseAll() {
    const std::lock_guard lock(guard);
    while (mappings != nullptr)
        release(&mappings);
}

// The handle of a name: one that this process has already, or one that `open` gives a descriptor for.
template <class Open>
HANDLE handleOf(const char* name, Open open) {
    char objectName[kSharedNameSize];
    if (!sharedObjectName(name, objectName))
        return 0;
    const std::lock_guard lock(guard);
    Mapping* held = *find(mappings, [&objectName](const Mapping& mapping) {
        return mapping.process == hostCalls.getpid() && std::strcmp(mapping.objectName, objectName) == 0;
    });
    if (held != nullptr) {
        held->handleCount++;
        return held->number;
    }
    auto* fresh = allocate<Mapping>();
    if (fresh == nullptr)
        return 0;
    fresh->fd = open(objectName);
    if (fresh->fd < 0) {
        std::free(fresh);
        return 0;
    }
    static const bool atExit = std::atexit(releaseAll) == 0;
    static_cast<void>(atExit);
    fresh->number = ++lastNumber;
    fresh->handleCount = 1;
    fresh->process = hostCalls.getpid();
    std::memcpy(fresh->objectName, objectName, sizeof objectName);
    fresh->next = mappings;
    mappings = fresh;
    return fresh->number;
}

} // namespace

HANDLE CreateFileMappingA(HANDLE, void*, uint32_t, uint32_t, uint32_t sizeLow, const char* name) {
    if (sizeLow == 0)
        return 0;
    return handleOf(name,
                    [sizeLow](const char* objectName) { return makeSharedObject(objectName, sizeLow); });
}

HANDLE OpenFileMappingA(uint32_t, int, const char* name) {
    return handleOf(name, [](const char* objectName) { return holdSharedObject(objectName); });
}

int CloseHandle(HANDLE handle) {
    const std::lock_guard lock(guard);
    Mapping** link = findHandle(handle);
    if (*link == nullptr)
        return 0;
    if (--(*link)->handleCount == 0)
        release(link);
    return 1;
}

void* MapViewOfFile(HANDLE handle, uint32_t access, uint32_t, uint32_t, size_t) {
    const std::lock_guard lock(guard);
    const Mapping* mapping = *findHandle(handle);
    if (mapping == nullptr)
        return nullptr;
    const uint64_t size = sharedObjectSize(mapping->fd);
    auto* view = size > 0 && size <= SIZE_MAX ? allocate<View>() : nullptr;
    if (view == nullptr)
        return nullptr;
    view->size = static_cast<size_t>(size);
    const int protection = (access & FILE_MAP_WRITE) != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
    view->address = hostCalls.mmap(nullptr, view->size, protection, MAP_SHARED, mapping->fd, 0);
    if (view->address == MAP_FAILED) {
        std::free(view);
        return nullptr;
    }
    view->next = views;
    views = view;
    return view->address;
}

int UnmapViewOfFile(const void* address) {
    const std::lock_guard lock(guard);
    View** link = findView(address);
    if (*link == nullptr)
        return 0;
    hostCalls.munmap((*link)->address, (*link)->size);
    drop(link);
    return 1;
}

size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* information, size_t size) {
    const std::lock_guard lock(guard);
    const View* view = *findView(address);
    if (view == nullptr || size < sizeof *information)
        return 0;
    *information = {view->address, view->size};
    return sizeof *information;
}
