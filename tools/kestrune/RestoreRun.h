#pragma once

#include "parser/ConfigParser.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Kestrune::Cli {

// What one restore did, for the exit status and for `--report`.
struct RestoreReport {
    struct Interface {
        std::string name;
        std::string kernelName;
        std::string type;
        std::string ns;
        bool created = false;
    };
    bool started = false; // a parser and a driver were found
    bool initialized = false;
    std::string platformType;
    std::vector<std::pair<std::string, double>> phasesMs;
    std::vector<Interface> interfaces;
    std::vector<std::string> failures; // every event after parsing, "<group>: <message>"

    bool ok() const { return started && initialized && failures.empty(); }
    // 0 every step succeeded, 1 the restore ran with failures, 2 it could not start.
    int exitStatus() const { return !started ? 2 : (ok() ? 0 : 1); }
    // The report as a JSON object; `extra` adds members (the simulator's kernel state).
    std::string json(const std::string& extraName = "", const std::string& extraJson = "") const;
};

// The caller's sequence: parse, choose the driver, bring the chip up, then create, move,
// configure and restore the filter rules, each phase timed. `parsed` sees the configuration
// before the driver is chosen (the simulator picks its chip family there).
RestoreReport runRestore(const std::function<ConfigParser::Ptr()>& parserOf,
                         const std::function<void(const Config&)>& parsed = {});

} // namespace Kestrune::Cli
