// The daemon's components through their public headers, each by the size of its data.
//
// usage: zqu_bench_pieces DIRECTORY LARGEST [options of Google Benchmark]
//
// Works in DIRECTORY, which must exist, and leaves nothing in it. LARGEST is the largest number of snapshots and lines;
// files have up to a thousand times as many bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "config.hpp"
#include "mirror_client.hpp"
#include "snapshot_store.hpp"
#include "verifier.hpp"

namespace {

namespace fs = std::filesystem;
using benchmark::State;

fs::path work_directory;  // set by main before anything runs

void require(bool condition, const std::string& what) {
    if (!condition) {
        std::fprintf(stderr, "zqu_bench_pieces: %s\n", what.c_str());
        std::exit(1);
    }
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    require(fs::file_size(path) == text.size(), "cannot write " + path.string());
}

// Into no particular order, which is the same each time.
template <typename T>
void shuffle(std::vector<T>& items) {
    std::seed_seq seed{20};
    std::shuffle(items.begin(), items.end(), std::mt19937(seed));
}

// A definitions root with so many snapshots, empty ones, the last one in service. The benchmarks share one,
// until they need another size, because it is slow to make.
class Snapshots {
public:
    static Snapshots& of(std::int64_t count) {
        static std::unique_ptr<Snapshots> current;
        if (!current || current->count_ != count) {
            current.reset();  // before another one replaces it
            current = std::make_unique<Snapshots>(count);
        }
        return *current;
    }

    explicit Snapshots(std::int64_t count) : count_(count) {
        cfg_.def_root = work_directory / "defs";
        cfg_.status_path = work_directory / "defs/status.json";
        cfg_.retained_snapshots = static_cast<std::uint32_t>(count);
        store_ = std::make_unique<zqu::SnapshotStore>(cfg_);
        for (std::int64_t i = 0; i < count; ++i) {
            static_cast<void>(store_->stage_dir(name(i)));
        }
        put_into_service();
    }
    ~Snapshots() { fs::remove_all(cfg_.def_root); }
    Snapshots(const Snapshots&) = delete;
    Snapshots& operator=(const Snapshots&) = delete;

    // One more, older than all others, with two tiny definition files.
    void add_oldest() {
        const fs::path snapshot = store_->stage_dir("oldest");
        write(snapshot / "antivir-v2.def", "antivir");
        write(snapshot / "aivsecon-v2.def", "aivsecon");
        fs::last_write_time(snapshot, fs::last_write_time(directory()) - std::chrono::hours(24));
    }
    [[nodiscard]] bool has_oldest() const { return fs::exists(directory() + "/oldest"); }
    void put_into_service() { require(store_->publish(name(count_ - 1)), "cannot publish"); }
    [[nodiscard]] std::string directory() const { return cfg_.def_root + "/snapshots"; }
    zqu::SnapshotStore& store() { return *store_; }

private:
    static std::string name(std::int64_t number) { return std::to_string(1'000'000 + number); }

    zqu::Config cfg_;
    std::unique_ptr<zqu::SnapshotStore> store_;
    std::int64_t count_;
};

// One snapshot is there beyond those to keep, and goes.
void prune(State& state) {
    Snapshots& snapshots = Snapshots::of(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        snapshots.add_oldest();
        state.ResumeTiming();
        snapshots.store().prune();
    }
    require(!snapshots.has_oldest(), "the oldest snapshot is still there");
}

void publish(State& state) {
    Snapshots& snapshots = Snapshots::of(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        snapshots.put_into_service();
    }
}

// What pruning does twice for every comparison of two snapshots, which come in no particular order there either.
void read_time(State& state) {
    std::vector<fs::directory_entry> snapshots(fs::directory_iterator(Snapshots::of(state.range(0)).directory()), {});
    shuffle(snapshots);
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        std::error_code ignored;
        benchmark::DoNotOptimize(fs::last_write_time(snapshots[next].path(), ignored));
        next = (next + 1) % snapshots.size();
    }
}

// How many comparisons the sort of pruning needs for so many snapshots in no particular order.
void comparisons(State& state) {
    std::vector<std::int64_t> ages(static_cast<std::size_t>(state.range(0)));
    std::int64_t count = 0;
    const auto older = [&count](std::int64_t a, std::int64_t b) {
        ++count;
        return a < b;
    };
    for ([[maybe_unused]] auto _ : state) {
        std::iota(ages.begin(), ages.end(), 0);
        shuffle(ages);
        count = 0;
        std::make_heap(ages.begin(), ages.end(), older);
        std::sort_heap(ages.begin(), ages.end(), older);
    }
    state.counters["comparisons"] = static_cast<double>(count);
}

void write_status(State& state) {
    zqu::Config cfg;
    cfg.def_root = work_directory / "status";
    cfg.status_path = work_directory / "status/status.json";
    const zqu::SnapshotStore store(cfg);
    const zqu::SnapshotStore::Status status{"1001", "engine", "1001", "1001", 1'700'000'000, 1'700'000'000, ""};
    for ([[maybe_unused]] auto _ : state) {
        store.write_status(status);
    }
    require(fs::file_size(cfg.status_path) > 0, "no status was written");
    fs::remove_all(cfg.def_root);
}

std::string repeated(const std::string& line, std::int64_t count) {
    std::string text;
    text.reserve(line.size() * static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
        text += line;
    }
    return text;
}

void load_config(State& state) {
    const fs::path path = work_directory / "updater.conf";
    write(path, repeated("# a line that says something\nretained_snapshots = 5\n", state.range(0) / 2));
    for ([[maybe_unused]] auto _ : state) {
        zqu::Config cfg;
        require(zqu::Config::load(path, cfg), "cannot read the configuration");
        benchmark::DoNotOptimize(cfg);
    }
    fs::remove(path);
}

// A mirror of file:// URLs, whose INI files have what is looked for in their last lines.
class FileMirror {
public:
    explicit FileMirror(std::int64_t lines) {
        const std::string others = repeated("; a line\nsome.key = some value\n", lines / 2);
        const fs::path mirror = work_directory / "mirror";
        fs::create_directory(mirror);
        write(mirror / "antivir-v2-hit.ini", others + "[Current]\ndefId=1001\n");
        write(mirror / "antivir-v2-c-1001.ini", others +
                                                    "[def.Current]\ndef.Current.defId=1001\n"
                                                    "def.Current.name=antivir-v2-1001.cab\n"
                                                    "def.Current.SHA256=" +
                                                    std::string(64, 'a') + "\ndef.Current.size=1000\n");
        cfg_.mirror_base_url = "file://" + work_directory.string();
        cfg_.mirror_subdir = "mirror";
    }
    ~FileMirror() { fs::remove_all(work_directory / "mirror"); }
    FileMirror(const FileMirror&) = delete;
    FileMirror& operator=(const FileMirror&) = delete;

    [[nodiscard]] const zqu::Config& cfg() const { return cfg_; }

private:
    zqu::Config cfg_;
};

template <typename Fetch>
void fetch(State& state, const Fetch& succeeds) {
    const FileMirror mirror(state.range(0));
    zqu::MirrorClient client(mirror.cfg());
    for ([[maybe_unused]] auto _ : state) {
        require(succeeds(client), "cannot fetch an INI file, or it does not name the release");
    }
}

// Fetching alone: what the two that follow do as well.
void fetch_ini(State& state) {
    std::string body;
    fetch(state, [&body](zqu::MirrorClient& client) { return client.http_get_string(client.hit_ini_url(), body); });
}

void fetch_hit(State& state) {
    fetch(state, [](zqu::MirrorClient& client) { return client.fetch_defid() == "1001"; });
}

void fetch_complete(State& state) {
    fetch(state, [](zqu::MirrorClient& client) {
        const auto info = client.fetch_complete_info("1001");
        return info && info->size == 1000;
    });
}

// Every line names another file.
void parse_index(State& state) {
    std::string text;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        text += "file" + std::to_string(i) + ".def.sha256 = " + std::string(64, 'A') + "\n";
    }
    for ([[maybe_unused]] auto _ : state) {
        const auto index = zqu::verifier::parse_def_index(text);
        require(index.size() == static_cast<std::size_t>(state.range(0)), "the index lacks files");
    }
}

void verify(State& state) {
    const fs::path path = work_directory / "file";
    write(path, std::string(static_cast<std::size_t>(state.range(0)), 'x'));
    const std::string digest(64, '0');  // of the right length, so that it is compared
    for ([[maybe_unused]] auto _ : state) {
        require(!zqu::verifier::verify(path, digest), "a wrong digest fits");
    }
    fs::remove(path);
}

void add(const char* name, void (*function)(State&), std::int64_t size, std::int64_t largest) {
    if (size <= largest) {
        auto* bench = benchmark::RegisterBenchmark(name, function)->Arg(size)->UseRealTime();
        if (size >= 10'000 && std::string(name) == "prune") {
            bench->Repetitions(2);  // seconds each
        }
    }
}

void add_all(std::int64_t largest) {
    for (const std::int64_t count : {3, 10, 100, 1000, 10'000, 100'000}) {
        add("read_time", read_time, count, largest);
        add("publish", publish, count, largest);
        add("prune", prune, count, largest);
        add("comparisons", comparisons, count, largest);
    }
    add("write_status", write_status, 1, largest);
    for (const std::int64_t lines : {10, 100, 1000, 10'000, 100'000}) {
        add("load_config", load_config, lines, largest);
        add("fetch_ini", fetch_ini, lines, largest);
        add("fetch_hit", fetch_hit, lines, largest);
        add("fetch_complete", fetch_complete, lines, largest);
        add("parse_index", parse_index, lines, largest);
        add("verify", verify, lines * 1000, 1000 * largest);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: zqu_bench_pieces DIRECTORY LARGEST [options of Google Benchmark]\n", stderr);
        return 2;
    }
    work_directory = argv[1];
    setlogmask(LOG_MASK(LOG_EMERG));  // each publication would be logged
    add_all(std::strtoll(argv[2], nullptr, 10));
    argv[2] = argv[0];
    argc -= 2;
    benchmark::Initialize(&argc, argv + 2);
    if (benchmark::ReportUnrecognizedArguments(argc, argv + 2)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
