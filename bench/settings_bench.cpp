// Settings, beside LMDB (a transaction a set, nothing synced) and std::map as what a program would do that shares
// nothing with anybody.
#include "bench/row.h"

#include <kal/tagset.h>

#include <lmdb.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kReads = 100000;
constexpr char kValue[] = "a value of some length";
std::string folder; // in memory: the libraries are measured and not a disk

std::vector<std::string> namesOf(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; i++)
        names.push_back("tag" + std::to_string(i));
    return names;
}
const std::vector<std::string>& thousand() {
    static const auto names = namesOf(1000);
    return names;
}

using Map = std::map<std::string, std::string>;

// One LMDB store; keys carry their set's name in front.
class Lmdb {
public:
    Lmdb() {
        check(mdb_env_create(&store_) == 0 && mdb_env_set_mapsize(store_, 1 << 28) == 0 &&
              mdb_env_open(store_, (folder + "/lmdb").c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600) == 0);
        MDB_txn* work = begin(0);
        check(mdb_dbi_open(work, nullptr, 0, &table_) == 0 && mdb_txn_commit(work) == 0);
    }
    ~Lmdb() { mdb_env_close(store_); }
    Lmdb(const Lmdb&) = delete;
    Lmdb& operator=(const Lmdb&) = delete;

    MDB_txn* begin(unsigned flags) {
        MDB_txn* work = nullptr;
        check(mdb_txn_begin(store_, nullptr, flags, &work) == 0);
        return work;
    }
    void set(const std::string& name) {
        MDB_txn* work = begin(0);
        MDB_val key = textOf(name), value = {sizeof kValue, const_cast<char*>(kValue)};
        check(mdb_put(work, table_, &key, &value, 0) == 0 && mdb_txn_commit(work) == 0);
    }
    void remove(const std::string& name) {
        MDB_txn* work = begin(0);
        MDB_val key = textOf(name);
        check(mdb_del(work, table_, &key, nullptr) == 0 && mdb_txn_commit(work) == 0);
    }
    bool get(MDB_txn* work, const std::string& name, char* to) {
        MDB_val key = textOf(name), value;
        if (mdb_get(work, table_, &key, &value) != 0)
            return false;
        std::memcpy(to, value.mv_data, value.mv_size);
        return true;
    }
    int countAll() {
        MDB_txn* work = begin(MDB_RDONLY);
        MDB_cursor* cursor = nullptr;
        check(mdb_cursor_open(work, table_, &cursor) == 0);
        MDB_val key, value;
        int count = 0;
        while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0)
            count++;
        mdb_cursor_close(cursor);
        mdb_txn_abort(work);
        return count;
    }
    static void erase() {
        for (const char* file : {"/lmdb", "/lmdb-lock"})
            std::filesystem::remove(folder + file);
    }

private:
    static MDB_val textOf(const std::string& name) { return {name.size(), const_cast<char*>(name.data())}; }

    MDB_env* store_ = nullptr;
    MDB_dbi table_ = 0;
};

void readThroughThreeSets(benchmark::State& state) {
    TagSet app;
    app.SetPath("Bench\\Read", 1);
    for (const auto& name : thousand())
        app.SetTag(name.c_str(), kValue);
    TagSet* middle = app.CreateChild();
    TagSet* deepest = middle->CreateChild();
    char value[256];
    for (auto _ : state)
        for (int i = 0; i < kReads; i++)
            check(deepest->GetTag(thousand()[size_t(i % 1000)].c_str(), value, sizeof value) == KAL_OK);
    middle->DestroyChild();
    app.DestroyChild();
    app.ClearTags();
}

void readThroughLmdb(benchmark::State& state) {
    Lmdb::erase();
    Lmdb store;
    for (const auto& name : thousand())
        store.set("0" + name);
    char value[256];
    for (auto _ : state)
        for (int i = 0; i < kReads; i++) {
            MDB_txn* work = store.begin(MDB_RDONLY);
            std::string key = "2" + thousand()[size_t(i % 1000)];
            while (!store.get(work, key, value))
                key[0]--;
            mdb_txn_abort(work);
        }
}

void readThroughThreeMaps(benchmark::State& state) {
    Map sets[3];
    for (const auto& name : thousand())
        sets[0][name] = kValue;
    for (auto _ : state)
        for (int i = 0; i < kReads; i++) {
            const std::string name = thousand()[size_t(i % 1000)].c_str();
            for (int s = 2; s >= 0; s--)
                if (const auto found = sets[s].find(name); found != sets[s].end()) {
                    std::string value = found->second;
                    benchmark::DoNotOptimize(value);
                    break;
                }
        }
}

// `set(name)` a thousand times, in a place that `clear` makes empty first.
template <class Set, class Clear>
void writeThousand(benchmark::State& state, Set set, Clear clear) {
    for (auto _ : state) {
        state.PauseTiming();
        clear();
        state.ResumeTiming();
        for (const auto& name : thousand())
            set(name);
    }
}

void temporarySets(benchmark::State& state) {
    for (auto _ : state)
        for (int i = 0; i < 1000; i++) {
            TagSet set;
            set.SetTag("tag", kValue);
        }
}

void temporaryMap(benchmark::State& state) {
    Map map;
    int64_t next = 0;
    for (auto _ : state)
        for (int i = 0; i < 1000; i++) {
            map["next"] = kValue;
            const std::string name = "Temp" + std::to_string(next++);
            map[name] = kValue;
            map.erase(name);
        }
}

void temporaryLmdb(benchmark::State& state) {
    Lmdb::erase();
    Lmdb store;
    int64_t next = 0;
    for (auto _ : state)
        for (int i = 0; i < 1000; i++) {
            store.set("next");
            const std::string name = "Temp" + std::to_string(next++);
            store.set(name);
            store.remove(name);
        }
}

void enumerate(benchmark::State& state, int count) {
    TagSet app;
    app.SetPath("Bench\\Many", 1);
    for (const auto& name : namesOf(count))
        app.SetTag(name.c_str(), kValue);
    for (auto _ : state) {
        int found = 0;
        TagSearch search(&app, "");
        while (search.NextTag() != nullptr)
            found++;
        check(found == count);
    }
    app.ClearTags();
}

void enumerateLmdb(benchmark::State& state, int count) {
    Lmdb::erase();
    Lmdb store;
    for (const auto& name : namesOf(count))
        store.set(name);
    for (auto _ : state)
        check(store.countAll() == count);
}

void enumerateMap(benchmark::State& state, int count) {
    Map map;
    for (const auto& name : namesOf(count))
        map[name] = kValue;
    for (auto _ : state)
        for (const auto& [name, value] : map) {
            std::string copy = value;
            benchmark::DoNotOptimize(copy);
        }
}

// A program that starts: opens its set of 10,000 and reads a tag.
void openMany(benchmark::State& state) {
    const std::string many = folder + "/many", none = folder + "/none";
    setenv("KAL_REGISTRY", many.c_str(), 1);
    {
        TagSet app;
        app.SetPath("Bench\\Many", 1);
        for (const auto& name : namesOf(10000))
            app.SetTag(name.c_str(), kValue);
    }
    for (auto _ : state) {
        state.PauseTiming();
        setenv("KAL_REGISTRY", none.c_str(), 1);
        { TagSet().SetPath("Bench", 1); } // what was known of the other registry goes
        setenv("KAL_REGISTRY", many.c_str(), 1);
        state.ResumeTiming();
        TagSet app;
        app.SetPath("Bench\\Many", 1);
        check(app.GetTempTag("tag9999") != nullptr);
    }
    setenv("KAL_REGISTRY", folder.c_str(), 1);
}

void openManyLmdb(benchmark::State& state) {
    Lmdb::erase();
    {
        Lmdb store;
        for (const auto& name : namesOf(10000))
            store.set(name);
    }
    for (auto _ : state) {
        Lmdb store;
        char value[256];
        MDB_txn* work = store.begin(MDB_RDONLY);
        check(store.get(work, "tag9999", value));
        mdb_txn_abort(work);
    }
}

// `write` of both processes at once: the other one starts over and over until it is killed.
template <class Write>
void besideAnother(benchmark::State& state, Write write) {
    const pid_t other = fork();
    if (other == 0)
        for (;;)
            write("other");
    for (auto _ : state)
        write("own");
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
}

void writeBeside(benchmark::State& state) {
    besideAnother(state, [](const char* path) {
        TagSet set;
        set.SetPath(path, 1);
        for (const auto& name : thousand())
            set.SetTag(name.c_str(), kValue);
    });
}

void writeBesideLmdb(benchmark::State& state) {
    Lmdb::erase();
    std::unique_ptr<Lmdb> store; // each process opens its own
    besideAnother(state, [&](const std::string& path) {
        if (store == nullptr)
            store = std::make_unique<Lmdb>();
        for (const auto& name : thousand())
            store->set(path + name);
    });
}

template <class Clear>
void writeSettings(benchmark::State& state, Clear clear) {
    TagSet app;
    app.SetPath("Bench\\Write", 1);
    writeThousand(
        state, [&](const std::string& name) { app.SetTag(name.c_str(), kValue); }, [&] { clear(app); });
    app.ClearTags();
}

} // namespace

int main(int count, char** arguments) {
    char made[] = "/dev/shm/kal-settings-bench-XXXXXX";
    check(mkdtemp(made) != nullptr);
    folder = made;
    for (const char* place : {"KAL_REGISTRY", "XDG_RUNTIME_DIR"})
        setenv(place, made, 1);
    constexpr char kRead[] = "100,000 settings read through three sets", kNew[] = "1,000 new settings",
                   kChanged[] = "1,000 settings changed",
                   kTemporary[] = "1,000 temporary sets made and ended", kOpened[] = "10,000 settings opened",
                   kBeside[] = "1,000 settings changed beside another writer";
    cell(kRead, "kal", readThroughThreeSets);
    cell(kRead, "LMDB", readThroughLmdb);
    cell(kRead, "std::map", readThroughThreeMaps);
    cell(kNew, "kal", [](auto& state) { writeSettings(state, [](TagSet& app) { app.ClearTags(); }); });
    for (const char* row : {kNew, kChanged})
        cell(row, "std::map", [clears = row == kNew](auto& state) {
            Map map;
            writeThousand(
                state, [&](const std::string& name) { map[name] = kValue; },
                [&] {
                    if (clears)
                        map.clear();
                });
        });
    cell(kChanged, "kal", [](auto& state) { writeSettings(state, [](TagSet&) {}); });
    cell(kChanged, "LMDB", [](auto& state) {
        Lmdb::erase();
        Lmdb store;
        writeThousand(
            state, [&](const std::string& name) { store.set(name); }, [] {});
    });
    cell(kTemporary, "kal", temporarySets);
    cell(kTemporary, "LMDB", temporaryLmdb);
    cell(kTemporary, "std::map", temporaryMap);
    for (const auto& [row, number] :
         {std::pair("1,000 settings enumerated", 1000), {"10,000 settings enumerated", 10000}}) {
        const int tags = number;
        cell(row, "kal", [tags](auto& state) { enumerate(state, tags); });
        cell(row, "LMDB", [tags](auto& state) { enumerateLmdb(state, tags); });
        cell(row, "std::map", [tags](auto& state) { enumerateMap(state, tags); });
    }
    cell(kOpened, "kal", openMany);
    cell(kOpened, "LMDB", openManyLmdb);
    cell(kBeside, "kal", writeBeside);
    cell(kBeside, "LMDB", writeBesideLmdb);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(folder);
    return 0;
}
