#pragma once

#include "ReportFile.h"

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

namespace Kestrune::Cli {

// A restore as a picture: a row per phase and per device class, bars in time since boot. Its
// size does not grow with the devices: a class's row has a bar per step, from the first of
// its devices to the last.
struct Timeline {
    struct Bar {
        std::string kind; // "phase", or the step: "create", "move", "configure"
        double startMs = 0;
        double endMs = 0;
        std::string label;
    };
    struct Row {
        std::string name;
        std::string summary; // a phase's time, a class's number of devices
        std::vector<Bar> bars;
    };
    // A device the restore did not make, on its class's row where its creation ended.
    struct NotMade {
        std::string name;
        std::string row;
        double atMs = 0;
    };
    std::string title;
    double startMs = 0; // since boot
    double endMs = 0;
    std::vector<Row> rows;
    std::vector<NotMade> notMade;
    TextCounts failures;

    std::string svg() const;
    std::string json() const;
};

Timeline timelineOf(const ReportFile& report);

// `kestrune timeline REPORT`.
void addTimelineCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
