// Any bytes as the script of a resource file.
#include "tools/failure.h"
#include "tools/resource_script.h"
#include "tools/text.h"

#include "fuzz/memory_host.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    memoryHost::start();
    memoryHost::setContent("/memory/script", Bytes(data, data + size));
    memoryHost::setContent("/memory/a", Bytes(size));
    try {
        for (const Resource& resource : readResourceScript("/memory/script")) {
            require(resource.bytes.size() <= kLargestResource, "a resource fits a resource file");
            const std::string text(resource.bytes.begin(), resource.bytes.end());
            require(quoted(escaped(text)).size() >= text.size() + 2 &&
                        jsonText(text, Encoding::Bytes).find('\n') == std::string::npos,
                    "a text is printed on one line");
        }
    } catch (const Failure& failure) {
        require(onOneLine(failure.what()).size() > 0, "a failure says why");
    }
    return 0;
}
