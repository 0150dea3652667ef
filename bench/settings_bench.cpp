// Settings read through a chain of three sets and settings written, beside std::map as what a program would do that
// shares nothing with anybody.
#include "bench/row.h"

#include <kal/tagset.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kTags = 1000;
constexpr int kReads = 100000;

std::vector<std::string> tagNames() {
    std::vector<std::string> names;
    for (int i = 0; i < kTags; i++)
        names.push_back("tag" + std::to_string(i));
    return names;
}

void readThroughThreeSets(benchmark::State& state) {
    const auto names = tagNames();
    TagSet app;
    app.SetPath("Bench\\Read", 1);
    for (const auto& name : names)
        app.SetTag(name.c_str(), "a value of some length");
    TagSet* middle = app.CreateChild();
    TagSet* deepest = middle->CreateChild();
    for (auto _ : state)
        for (int i = 0; i < kReads; i++) {
            char value[256];
            benchmark::DoNotOptimize(deepest->GetTag(names[size_t(i % kTags)].c_str(), value, sizeof value));
        }
    middle->DestroyChild();
    app.DestroyChild();
    app.ClearTags();
}

void readThroughThreeMaps(benchmark::State& state) {
    const auto names = tagNames();
    std::map<std::string, std::string> sets[3];
    for (const auto& name : names)
        sets[0][name] = "a value of some length";
    for (auto _ : state)
        for (int i = 0; i < kReads; i++) {
            const std::string name = names[size_t(i % kTags)].c_str();
            for (int s = 2; s >= 0; s--)
                if (const auto found = sets[s].find(name); found != sets[s].end()) {
                    std::string value = found->second;
                    benchmark::DoNotOptimize(value);
                    break;
                }
        }
}

void writeThousand(benchmark::State& state, bool asNew) {
    const auto names = tagNames();
    TagSet app;
    app.SetPath("Bench\\Write", 1);
    for (auto _ : state) {
        if (asNew) {
            state.PauseTiming();
            app.ClearTags();
            state.ResumeTiming();
        }
        for (const auto& name : names)
            app.SetTag(name.c_str(), "a value of some length");
    }
    app.ClearTags();
}

} // namespace

int main(int count, char** arguments) {
    char folder[] = "/dev/shm/kal-settings-bench-XXXXXX"; // in memory: the library is measured and not a disk
    if (mkdtemp(folder) == nullptr || setenv("KAL_REGISTRY", folder, 1) != 0)
        return 1;
    constexpr char kRead[] = "100,000 settings read through three sets";
    cell(kRead, "kal", readThroughThreeSets);
    cell(kRead, "std::map", readThroughThreeMaps);
    cell("1,000 new settings", "kal", [](benchmark::State& state) { writeThousand(state, true); });
    cell("1,000 settings changed", "kal", [](benchmark::State& state) { writeThousand(state, false); });
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(folder);
    return 0;
}
