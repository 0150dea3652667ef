// Any bytes as the script of a resource file.
#include "tools/failure.h"
#include "tools/resource_script.h"
#include "tools/text.h"

#include "fuzz/memory_host.h"

void fuzz(Input input) {
    Bytes& script = memoryHost::file("/memory/script") = input.rest();
    memoryHost::file("/memory/a").resize(script.size());
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
}
