#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "descriptors.hpp"
#include "facts.hpp"

namespace zqu::status_tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* manager = "org.freedesktop.systemd1";
constexpr const char* of_units = "org.freedesktop.systemd1.Unit";
constexpr const char* of_services = "org.freedesktop.systemd1.Service";
constexpr std::uint64_t patience_us = 5000000;

using Text = tools::Handle<char, std::free>;

void require(int result) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category());
    }
}

bool is_below(const fs::path& inner, const fs::path& outer) {
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

// Of use are the paths above or below what the daemon writes, and the default root, which the unit itself names.
bool is_of_use(const fs::path& writable, const Config& cfg) {
    const std::vector<fs::path> written{cfg.def_root, fs::path(cfg.status_path).parent_path(), Config().def_root};
    return std::any_of(written.begin(), written.end(), [&writable](const fs::path& directory) {
        const fs::path used = (directory / ".").lexically_normal().parent_path();
        return !used.empty() && (is_below(writable, used) || is_below(used, writable));
    });
}

void look(Unit& unit, const Config& cfg) {
    sd_bus* bus = nullptr;
    char* path = nullptr;
    char** list = nullptr;
    require(sd_bus_open_system(&bus));
    const tools::Handle<sd_bus, sd_bus_flush_close_unref> bus_owner(bus);
    require(sd_bus_set_method_call_timeout(bus, patience_us));
    require(sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.name.c_str(), &path));
    const Text path_owner(path);
    const auto text = [bus, path](const char* interface, const char* name) {
        char* value = nullptr;
        require(sd_bus_get_property_string(bus, manager, path, interface, name, nullptr, &value));
        return std::string(Text(value).get());
    };
    unit.load = text(of_units, "LoadState");
    if (unit.load == "not-found") {
        return;
    }
    unit.active = text(of_units, "ActiveState");
    unit.sub = text(of_units, "SubState");
    unit.file = text(of_units, "UnitFileState");
    if (fs::path(unit.name).extension() != ".service") {
        return;
    }
    unit.result = text(of_services, "Result");
    require(sd_bus_get_property_strv(bus, manager, path, of_services, "ReadWritePaths", nullptr, &list));
    const tools::Handle<char*, std::free> list_owner(list);
    for (char** entry = list; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string marked = Text(*entry).get();
        const std::string writable = marked.substr(std::min(marked.find('/'), marked.size()));  // behind "-" or "+"
        if (!is_of_use(writable, cfg)) {
            unit.writable.push_back(writable);
        }
    }
}

}  // namespace

Unit look_at_unit(const std::string& name, const Config& cfg) {
    Unit unit;
    unit.name = name;
    if (!name.empty() && sd_booted() > 0) {
        try {
            look(unit, cfg);
        } catch (const std::system_error& e) {
            unit.reason = e.code().message();
        }
    }
    return unit;
}

}  // namespace zqu::status_tool
