#include "commands.hpp"
#include "failure.hpp"
#include "held.hpp"
#include "names.hpp"
#include "workplace.hpp"

namespace zqu::mirror_tool {

void activate(const Options& options, Run& run) {
    Workplace place(existing_directory(options), run);
    run.phase("checking " + options.id);
    const Examined found = examine(options, options.id, Depth::entries);
    if (!found.fault.empty()) {
        fail(options.id + " cannot be made current: " + found.fault);
    }
    const auto former = current_id(options);
    const bool changes = former != options.id;
    if (former && changes) {
        hold(options, *former, run);
    }
    if (changes) {
        place.make_current(options, options.id);
    } else {
        end_hold(options, options.id);
    }
    run.phase("");
    if (options.quiet) {
        return;
    }
    say((changes ? "made current " : "is current already: ") + summary(place.folder(), options.id, found.info));
    if (former && changes) {
        say("held " + *former + ": mirror does not take it again");
    }
}

}  // namespace zqu::mirror_tool
