#pragma once

#include "util/Json.h"

#include <string>
#include <utility>
#include <vector>

namespace Kestrune::Cli {

// Texts (failures) each once, in the order each first comes, with how many times.
using TextCounts = std::vector<std::pair<std::string, std::size_t>>;
TextCounts textCounts(const std::vector<std::string>& texts);
// An array of {"text", "times"} objects under `key`.
void textCountsWritten(PrettyJsonWriter& writer, const char* key, const TextCounts& texts);

// A restore's report (`--report`) as `compare` and `timeline` read it back.
struct ReportFile {
    struct Device {
        std::string name;
        std::string type;
        bool created = false;
        // When it was through each step it reached, in milliseconds since boot.
        std::vector<std::pair<std::string, double>> stepsMs;
        // How long each step spent on it: from the device the step finished before it (or the
        // step's start) to this one.
        std::vector<std::pair<std::string, double>> spentMs;
        double spentTotalMs() const;
    };
    bool ok = false;
    std::string platformType;
    std::vector<std::pair<std::string, double>> phasesMs;
    std::vector<std::pair<std::string, double>> phasesStartMs;
    double endedMs = 0;
    std::vector<Device> devices;
    std::vector<std::string> failures;
    std::string stoppedBy; // "" when no signal stopped it

    // The phase's duration or start, -1 when the report has none.
    double phaseMs(const std::string& phase) const;
    double phaseStartMs(const std::string& phase) const;
};

// Reads the report at `path`; false, with what is wrong and where in `problem`, when it cannot
// or the file is not a report.
bool reportFileRead(const std::string& path, ReportFile& report, std::string& problem);

} // namespace Kestrune::Cli
