#pragma once

#include "ReportFile.h"

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

namespace Kestrune::Cli {

// Two restores' reports side by side: where the newer one spent more time, and which failures
// came or went.
struct ReportComparison {
    struct Times {
        std::string name;
        double oldMs = -1; // -1: not in that report
        double newMs = -1;
        double changePercent() const; // +inf where it took nothing before and does now
    };
    struct DeviceClass : Times {
        std::size_t oldDevices = 0;
        std::size_t newDevices = 0;
    };
    struct Device : Times {
        std::string type;
        std::string step; // the step it got slowest in
    };
    std::vector<Times> phases; // in the newer report's order, "total" last
    std::vector<DeviceClass> classes;
    std::vector<Device> slower; // the devices that got slower, the most first, at most ten
    // Distinct failure texts, with how many more (came) or fewer (went) times they happened.
    TextCounts came;
    TextCounts went;
    // With a gate: the phases ("total" included) slower by more than it.
    double maxSlowerPercent = -1;
    std::vector<std::string> overGate;

    std::string text() const;
    std::string json() const;
    int exitStatus() const { return overGate.empty() ? 0 : 1; }
};

// Compares `before` with `after`. A phase is over the gate when it is slower by more than
// maxSlowerPercent (negative: no gate) and by at least minMs, so that a phase of a few
// milliseconds does not fail a gate on noise.
ReportComparison reportsCompared(const ReportFile& before, const ReportFile& after,
                                 double maxSlowerPercent, double minMs);

// `kestrune compare OLD NEW`.
void addCompareCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
