// Loaded into the program before its libraries. With KAL_NO_UNNAMED no file without a name can be made; allocation
// KAL_FAIL_AT and all later ones fail. With KAL_SWEEP=REPORT the program is run, from the start of main or, with
// KAL_SWEEP_LATE, from the first file that it opens, once for each of its allocations, which fails, for once or for ever,
// each time in the folder as it is when it starts: it must fail in one line and change nothing, or have done all. What is
// not so stands in the report, and the number of allocations behind it.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

namespace {

namespace fs = std::filesystem;

long madeAtStart;
long* made = &madeAtStart;
long failAt = -1;
bool failsOn = true;
bool opens = false;

bool fails() {
    if (failAt == -1)
        failAt = std::getenv("KAL_FAIL_AT") != nullptr ? std::atol(std::getenv("KAL_FAIL_AT")) : 0;
    const long nth = __atomic_add_fetch(made, 1, __ATOMIC_RELAXED);
    if (failAt <= 0 || nth < failAt || (nth > failAt && !failsOn))
        return false;
    errno = ENOMEM;
    return true;
}

using Files = std::map<std::string, std::string>;

std::string contents(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}
Files filesHere() {
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator("."))
        if (entry.is_regular_file())
            files[entry.path()] = contents(entry.path());
    return files;
}

struct Run {
    int status;
    std::string out, err;
    Files files;
};

// True in the child, which then goes on where the program stands.
bool runs(Run& run, const Files& before, long nth, bool on) {
    for (const auto& [path, text] : filesHere())
        if (!before.contains(path))
            fs::remove(path);
        else if (before.at(path) != text)
            std::ofstream(path) << before.at(path);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(::creat("../out", 0600), STDOUT_FILENO);
        ::dup2(::creat("../err", 0600), STDERR_FILENO);
        *made = 0;
        failAt = nth;
        failsOn = on;
        return true;
    }
    ::waitpid(child, &run.status, 0);
    run = {run.status, contents("../out"), contents("../err"), filesHere()};
    return false;
}

// Returns in each child; the parent ends.
void sweep() {
    made = static_cast<long*>(
        ::mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::ofstream report(std::getenv("KAL_SWEEP"));
    const Files before = filesHere();
    Run done, run;
    if (runs(done, before, 0, false))
        return;
    const long last = *made;
    for (long nth = 1; nth <= last; nth++)
        for (const bool on : {false, true}) {
            if (runs(run, before, nth, on))
                return;
            const bool told = run.err.starts_with("kal: ") && run.err.find('\n') + 1 == run.err.size();
            if (run.status == 0 ? run.out != done.out || run.files != done.files
                                : run.status != 1 << 8 || !told || run.files != before)
                report << "allocation " << nth << (on ? " and all later" : "") << " of " << last
                       << ": status " << run.status << ", " << run.out.size() << " bytes, "
                       << run.files.size() << " files, " << run.err << std::flush;
        }
    report << last << std::endl;
    ::_exit(done.status);
}

using Main = int (*)(int, char**, char**);
Main program;
int sweepMain(int count, char** arguments, char** environment) {
    sweep();
    return program(count, arguments, environment);
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
// Large files make it open64.
[[gnu::visibility("default")]] int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    if (!opens && std::getenv("KAL_SWEEP_LATE") != nullptr && std::strcmp(path, "/dev/null") != 0) {
        opens = true;
        sweep();
    }
    if ((flags & O_TMPFILE) == O_TMPFILE && std::getenv("KAL_NO_UNNAMED") != nullptr) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return ::openat(AT_FDCWD, path, flags, va_arg(arguments, int));
}
[[gnu::visibility("default")]] int __libc_start_main(Main main, int count, char** arguments, void (*init)(),
                                                     void (*fini)(), void (*end)(), void* stack) {
    program = main;
    const auto real = reinterpret_cast<decltype(&__libc_start_main)>(::dlsym(RTLD_NEXT, "__libc_start_main"));
    return real(std::getenv("KAL_SWEEP_ALL") != nullptr ? sweepMain : main, count, arguments, init, fini, end,
                stack);
}
}
