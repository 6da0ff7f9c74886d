// The forms that a report is given in.
//
// Pure functions; safe from any thread. None fails but for want of memory. Texts of foreign origin are escaped as the
// form demands; but for JSON they are as shown() makes them.
#pragma once

#include <string>
#include <vector>

#include "facts.hpp"
#include "findings.hpp"

namespace zqu::status_tool {

struct Report {
    Facts facts;
    Limits limits;
    std::vector<Finding> findings;  // the gravest first
    Verdict verdict = Verdict::ok;
};

// Aligned lines for people: the verdict, what is the matter and what to do, then the facts. With colour the verdicts
// are coloured by the sequences of ECMA-48 that terminals know.
[[nodiscard]] std::string text_form(const Report& report, bool colour);

// One JSON object; its keys are in the manual page. Valid UTF-8 whatever the texts hold; times in seconds since the
// Unix epoch; what is not known is null.
[[nodiscard]] std::string json_form(const Report& report);

// One line in the manner of monitoring plugins, with performance data after the bar.
[[nodiscard]] std::string nagios_form(const Report& report);

// The text format of Prometheus, for the textfile collector of a node exporter: no sample has a time of its own, and a
// sample that is not known is left out.
[[nodiscard]] std::string prometheus_form(const Report& report);

}  // namespace zqu::status_tool
