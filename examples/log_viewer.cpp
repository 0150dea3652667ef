// A log viewer over a mapping that another process writes: the bytes go from one to the other through shared memory,
// and both use the standard's streams.
#include <kal/cpp.h>

#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char name[] = "example-log";

// A mapping can be opened once its writer has closed it, and as long as the process lives that made it.
bool writeLog(int lines) {
    auto mapping = kal::Stream::open(name, KAL_MODE_FILEMAP | KAL_MODE_CREATE | KAL_MODE_WRITE, 1 << 20);
    if (!mapping)
        return false;
    kal::streambuf buffer(*mapping);
    std::ostream log(&buffer);
    for (int i = 1; i <= lines; i++)
        log << "event " << i << ": " << (i % 10 == 0 ? "something happened" : "nothing new") << '\n';
    return log.flush().good() && mapping->close().ok();
}

// The last lines of the log, most of which is never read.
std::string lastLines(std::streamoff bytes) {
    auto mapping = kal::Stream::open(name, KAL_MODE_FILEMAP);
    if (!mapping)
        return mapping.error().text();
    kal::streambuf buffer(*mapping);
    std::istream log(&buffer);
    std::string line;
    std::string found;
    log.seekg(-bytes, std::ios::end);
    std::getline(log, line); // the rest of some line
    while (std::getline(log, line))
        found += line + '\n';
    return found;
}

} // namespace

int main() {
    int written[2];
    int seen[2];
    if (pipe(written) != 0 || pipe(seen) != 0)
        return 1;
    const pid_t writer = fork();
    char byte = 0;
    if (writer == 0) {
        byte = writeLog(5000);
        const bool told = write(written[1], &byte, 1) == 1;
        _exit(told && read(seen[0], &byte, 1) == 1 ? 0 : 1); // stays until the log was seen
    }
    if (read(written[0], &byte, 1) != 1 || byte != 1)
        return 1;
    const std::string lines = lastLines(100);
    std::cout << lines;
    int status = 1;
    const bool told = write(seen[1], &byte, 1) == 1;
    waitpid(writer, &status, 0);
    return told && status == 0 && lines.ends_with("event 5000: something happened\n") ? 0 : 1;
}
