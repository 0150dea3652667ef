// Loaded into a program before its libraries: allocation KAL_FAIL_AT fails, with KAL_FAIL_ON set every later one too.
// At the end the number of allocations stands in the file KAL_FAIL_COUNT.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

namespace {

long made;

bool fails() {
    static const char* const at = std::getenv("KAL_FAIL_AT");
    static const bool on = std::getenv("KAL_FAIL_ON") != nullptr;
    static const long nth = at != nullptr ? std::atol(at) : 0;
    made++;
    if (nth == 0 || made < nth || (made > nth && !on))
        return false;
    errno = ENOMEM;
    return true;
}

[[gnu::destructor]] void tell() {
    const char* path = std::getenv("KAL_FAIL_COUNT");
    if (std::FILE* file = path != nullptr ? std::fopen(path, "w") : nullptr) {
        std::fprintf(file, "%ld", made);
        std::fclose(file);
    }
}

} // namespace

extern "C" {
[[gnu::visibility("default")]] void* malloc(size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(size_t count, size_t size) {
    return fails() ? nullptr : __libc_calloc(count, size);
}
[[gnu::visibility("default")]] void* realloc(void* block, size_t size) {
    return fails() ? nullptr : __libc_realloc(block, size);
}
}
