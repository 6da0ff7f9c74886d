#include "monitoring.hpp"

#include <algorithm>
#include <array>
#include <cctype>

#include "text.hpp"

namespace zqu::tools {

namespace {

std::string bound(std::int64_t limit) {
    return limit > 0 ? std::to_string(limit) : "";
}

// shown() leaves nothing else that the format gives a meaning to.
std::string escaped(const std::string& content) {
    std::string result;
    for (const char c : shown(content)) {
        result += c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    }
    return result;
}

}  // namespace

const char* name_of(Verdict verdict) {
    static constexpr std::array<const char*, 4> names{"ok", "warning", "unknown", "critical"};
    return names.at(static_cast<std::size_t>(verdict));
}

std::string plugin_word(Verdict verdict) {
    std::string word = name_of(verdict);
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::toupper(c); });
    return word;
}

int exit_status(Verdict verdict) {
    static constexpr std::array<int, 4> statuses{0, 1, 3, 2};
    return statuses.at(static_cast<std::size_t>(verdict));
}

Verdict Limit::judge(std::int64_t age) const {
    if (critical > 0 && age > critical) {
        return Verdict::critical;
    }
    return warning > 0 && age > warning ? Verdict::warning : Verdict::ok;
}

std::string performance(const std::string& name, std::int64_t seconds, const Limit& limit) {
    return " " + name + "=" + std::to_string(seconds) + "s;" + bound(limit.warning) + ";" + bound(limit.critical) +
           ";0";
}

std::string nagios_line(const std::string& service, Verdict verdict, const std::string& summary,
                        const std::string& performance_data) {
    const std::string data = performance_data.empty() ? "" : " |" + performance_data.substr(1);
    return service + " " + plugin_word(verdict) + " - " + summary + data + "\n";
}

void Exposition::head(const std::string& name, const std::string& help) {
    name_ = "zelquorin_" + name;
    text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " gauge\n";
}

void Exposition::sample(Labels labels, const std::string& value) {
    std::string list;
    labels.insert(labels.begin(), common_.begin(), common_.end());
    for (const auto& [label, content] : labels) {
        list += (list.empty() ? "" : ",") + label + "=\"" + escaped(content) + "\"";
    }
    text_ += name_ + (list.empty() ? "" : "{" + list + "}") + " " + value + "\n";
}

void Exposition::gauge(const std::string& name, const std::string& help, std::optional<std::int64_t> value) {
    if (value) {
        head(name, help);
        sample({}, std::to_string(*value));
    }
}

void Exposition::verdict(const std::string& name, const std::string& help, Verdict verdict) {
    head(name, help);
    for (const Verdict each : {Verdict::ok, Verdict::warning, Verdict::critical, Verdict::unknown}) {
        sample({{"verdict", name_of(each)}}, each == verdict ? "1" : "0");
    }
}

void Exposition::limit(const std::string& name, const std::string& help, const Limit& limit) {
    if (limit.warning > 0 || limit.critical > 0) {
        head(name, help);
    }
    for (const auto& [severity, value] : {std::pair("warning", limit.warning), std::pair("critical", limit.critical)}) {
        if (value > 0) {
            sample({{"severity", severity}}, std::to_string(value));
        }
    }
}

}  // namespace zqu::tools
