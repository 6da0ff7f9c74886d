#include "rollout.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "commands.hpp"
#include "text.hpp"

namespace zqu::mirror_tool {

namespace fs = std::filesystem;

namespace {

std::string current_text(const Options& options) {
    const auto current = current_id(options);
    return current ? *current + " is current" : hit_name(options.flavor) + " names no release";
}

// A file that cannot be read names nothing: clients cannot read it either.
std::optional<std::string> readable_id(const Options& options, const std::string& name) {
    try {
        return named_id(options, name);
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

// Judges the file of a stage. That of the stage below, 0 for none, must name the same candidate.
void read_stage(const Options& options, int below, int percent, const std::optional<std::string>& current,
                Rollout& found) {
    const std::string name = stage_name(options.flavor, percent);
    struct stat status = {};
    if (lstat((directory_of(options) / name).c_str(), &status) != 0) {  // before it is read, which would log an error
        return;
    }
    const auto id = readable_id(options, name);
    const auto add_fault = [&](const std::string& what) {
        found.faults.insert(found.faults.begin(), {name, what, id.value_or("")});
    };
    if (!id) {
        add_fault(name + " names no release");
    } else if (id == current) {
        found.leftovers.insert(found.leftovers.begin(), name);
    } else if (found.percent != below || (below != 0 && found.id != *id)) {
        add_fault(name + " names " + *id + ", but " + stage_name(options.flavor, below) + " does not");
    } else {
        found.start_s = below == 0 ? status.st_mtim.tv_sec : found.start_s;
        found.since_s = status.st_mtim.tv_sec;
        found.percent = percent;
        found.id = *id;
    }
}

Rollout read_once(const Options& options) {
    Rollout found;
    const auto current = readable_id(options, hit_name(options.flavor));
    int below = 0;
    for (const int percent : stages) {
        read_stage(options, below, percent, current, found);
        below = percent;
    }
    return found;
}

void remove_stage(const Options& options, const std::string& name) {
    const fs::path path = directory_of(options) / name;
    if (unlink(path.c_str()) == 0) {
        flush(directory_of(options));
    } else if (errno != ENOENT) {
        fail_errno("cannot remove " + path.string());
    }
}

// From here on, no signal ends the run: a rollout ends at once.
void end_rollout(const Options& options, const Rollout& rollout, Run& run) {
    run.commit([&] {
        start_grace(options, rollout.id);
        std::for_each(stages.rbegin(), stages.rend(),
                      [&](int percent) { remove_stage(options, stage_name(options.flavor, percent)); });
    });
}

// Writes the files of the stages above reached to the work directory, and returns their stages.
std::vector<int> prepare_stages(const Options& options, const std::string& id, int reached, int percent,
                                const Workplace& place) {
    std::vector<int> missing;
    std::copy_if(stages.begin(), stages.end(), std::back_inserter(missing),
                 [&](int stage) { return stage > reached && stage <= percent; });
    for (const int stage : missing) {
        write_text(place.work(stage_name(options.flavor, stage)), hit_text(id));
    }
    return missing;
}

void add_stages(const Options& options, const std::string& id, const std::vector<int>& missing, Workplace& place,
                Run& run) {
    int reached = 0;
    try {
        for (const int stage : missing) {
            const std::string name = stage_name(options.flavor, stage);
            run.commit([&] { move(place.work(name), place.directory() / name); });
            reached = stage;
            flush(place.directory());
        }
        end_hold(options, id);
    } catch (const std::system_error& e) {
        if (reached == 0) {
            throw;
        }
        fail(id + " is " + role_of(reached) + ", but not all is done: " + e.what());
    }
}

void refuse_to_go_back(const Rollout& found, int percent) {
    if (percent < found.percent) {
        fail(found.text() + ": only withdraw goes back");
    }
}

void show(const Options& options, Run& run) {
    static_cast<void>(existing_directory(options));
    const Rollout found = sound_rollout(options);
    const std::string what = found.percent == 0
                                 ? "no rollout: "
                                 : found.text() + ", the rollout began at " + tools::utc_text(found.start_s) + "; ";
    report(options, what + current_text(options), run);
}

// Also what stage files name that belong to no rollout: this is for emergencies.
void withdraw(const Options& options, const Rollout& found, Run& run) {
    const auto current = current_id(options);
    if (!current) {
        fail(hit_name(options.flavor) + " names no release to go back to: run zqu-mirror repair");
    }
    std::set<std::string> ids{found.id};
    for (const auto& fault : found.faults) {
        ids.insert(fault.id);
    }
    ids.erase("");
    for (const auto& id : ids) {
        hold(options, id, run);
        start_grace(options, id);
    }
    end_rollout(options, found, run);
    for (const auto& id : ids) {
        const std::string back = *current + " is current for all; gateways that took " + id + " go back";
        report(options, "withdrew " + id + ": " + back + " with their next check", run);
        report(options, "held " + id + ": mirror does not take it again", run);
    }
    refuse(*current + " is current, but gateways cannot take it, run zqu-mirror repair:",
           examine(options, *current, Depth::digest, run).fault);
}

}  // namespace

std::string stage_name(const std::string& flavor, int percent) {
    return hit_name(flavor) + "." + std::to_string(percent);
}

std::string role_of(int percent) {
    return percent == 0 ? "current" : "the candidate for " + std::to_string(percent) + " per cent";
}

std::string Rollout::text() const {
    return id + " is " + role_of(percent) + " since " + tools::utc_text(since_s);
}

// What looks wrong may have changed meanwhile: another run can be at work.
Rollout rollout_of(const Options& options) {
    Rollout found = read_once(options);
    return found.faults.empty() ? found : read_once(options);
}

Rollout sound_rollout(const Options& options) {
    Rollout found = rollout_of(options);
    if (!found.faults.empty()) {
        fail(found.faults.back().what + "; run zqu-mirror repair MIRROR");
    }
    return found;
}

void start_grace(const Options& options, const std::string& id) {
    const fs::path info = directory_of(options) / info_name(options.flavor, id);
    static_cast<void>(utimensat(AT_FDCWD, info.c_str(), nullptr, AT_SYMLINK_NOFOLLOW));
}

void remove_leftover_stages(const Options& options) {
    const Rollout found = rollout_of(options);
    for (const auto& name : found.leftovers) {
        remove_stage(options, name);
    }
}

void require_turn(const Options& options, const std::string& id) {
    const Rollout found = sound_rollout(options);
    if (options.percent > 0 && !current_id(options)) {
        fail("there is no current release to go back to: run this without --percent first");
    }
    if (found.id == id && options.percent > 0) {
        refuse_to_go_back(found, options.percent);
    } else if (found.percent > 0 && !options.replace) {
        fail(found.text() + ": run zqu-mirror rollout MIRROR with 100 or withdraw first, or give --replace");
    }
}

void give_out(const Options& options, const std::string& id, Workplace& place, Run& run) {
    remove_leftover_stages(options);
    const Rollout found = rollout_of(options);
    const bool other = found.percent > 0 && found.id != id;
    const std::vector<int> missing = prepare_stages(options, id, other ? 0 : found.percent, options.percent, place);
    if (other) {
        end_rollout(options, found, run);
    }
    if (options.percent > 0) {
        add_stages(options, id, missing, place, run);
    } else {
        place.make_current(options, id);
    }
}

void rollout(const Options& options, Run& run) {
    if (options.action.empty()) {
        show(options, run);
        return;
    }
    Workplace place(existing_directory(options), run);
    remove_leftover_stages(options);
    const bool withdraws = options.action == "withdraw";
    const Rollout found = withdraws ? rollout_of(options) : sound_rollout(options);
    const int percent = withdraws ? 0 : std::stoi(options.action);
    if (found.percent == 0 && found.faults.empty()) {
        fail("there is no rollout, and " + current_text(options) +
             ": publish --percent starts one, activate goes back to a former release");
    }
    if (withdraws) {
        withdraw(options, found, run);
    } else if (found.percent == percent) {
        show(options, run);
    } else {
        refuse_to_go_back(found, percent);
        const Examined release = examine(options, found.id, Depth::entries, run);
        refuse(found.id + " cannot be rolled out further:", release.fault);
        if (percent == 100) {
            place.make_current(options, found.id);
        } else {
            add_stages(options, found.id, prepare_stages(options, found.id, found.percent, percent, place), place, run);
        }
        const std::string done = percent == 100 ? "made current " + found.id : rollout_of(options).text();
        report(options, summary(place.directory(), done, release.info), run);
    }
}

}  // namespace zqu::mirror_tool
