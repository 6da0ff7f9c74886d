#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "client.hpp"
#include "descriptors.hpp"
#include "digest.hpp"
#include "facts.hpp"
#include "inspect.hpp"
#include "program.hpp"
#include "verifier.hpp"

namespace zqu::status_tool {

using namespace tools;

namespace {

// What the mirror names instead of the release; empty when it is the same, or not known.
std::string other_release(Client& client, const std::string& id) {
    try {
        const std::string current = client.fetch_id();
        return current == id ? "" : current;
    } catch (const MirrorError&) {
        return "";
    }
}

// The mirror's archive of a release, in a file without a name.
Fd fetch(Client& client, const CompleteInfo& info) {
    const std::filesystem::path directory = std::filesystem::temp_directory_path();
    std::string path = directory / "zqu-status.XXXXXX";
    Fd file(mkostemp(path.data(), O_CLOEXEC));
    if (file.get() < 0) {
        fail_errno("cannot create a file in " + directory.string());
    }
    unlink(path.c_str());
    Progress progress;
    progress.begin("fetching " + info.cab_name);
    client.on_progress([&progress](std::uintmax_t bytes) { progress.show(bytes); });
    client.download(info.cab_name, memory_path(file));
    client.on_progress(nullptr);
    if (!verifier::verify(memory_path(file), info.sha256)) {
        throw MirrorError(info.cab_name + " does not have the digest that the mirror gives");
    }
    return file;
}

// By the SHA-256 of every byte.
void compare(const Fd& archive, const std::string& name, const Config& cfg, const Store& store, Comparison& result) {
    const Inspection inspection = inspect(memory_path(archive), name, cfg.flavor);
    const std::string fault = first_fault(inspection);
    for (const Definition& definition : store.definitions) {
        const auto expected = inspection.digests.find(definition.name);
        if (expected == inspection.digests.end()) {
            throw std::runtime_error(fault.empty() ? definition.name + " is not in the mirror's archive" : fault);
        }
        const std::string path = cfg.def_root + "/snapshots/" + store.version + "/" + definition.name;
        if (sha256(memory_path(open_regular(path))) != expected->second) {
            result.differing.push_back(definition.name);
        }
    }
    result.state = result.differing.empty() ? ComparisonState::same : ComparisonState::differs;
}

}  // namespace

const char* name_of(ComparisonState state) {
    static constexpr std::array<const char*, 5> names{"not_asked_for", "same", "differs", "gone", "failed"};
    return names.at(static_cast<std::size_t>(state));
}

Comparison compare_with_mirror(const Config& cfg, const Store& store) {
    Comparison comparison;
    if (store.link != LinkState::in_service) {
        return comparison;
    }
    Client client(cfg);
    std::optional<CompleteInfo> info;
    try {
        info = client.fetch_info(store.version);
        compare(fetch(client, *info), info->cab_name, cfg, store, comparison);
    } catch (const std::exception& e) {
        const std::string other = info ? "" : other_release(client, store.version);
        comparison.state = other.empty() ? ComparisonState::failed : ComparisonState::gone;
        comparison.reason = other.empty() ? e.what() : other;
    }
    comparison.chain_end = client.chain_end();
    comparison.warnings = client.warnings();
    return comparison;
}

}  // namespace zqu::status_tool
