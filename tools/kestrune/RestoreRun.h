#pragma once

#include "driver/Driver.h"
#include "log/Log.h"
#include "parser/ConfigParser.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <unordered_map>
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
        std::string found; // resuming: the namespace its device was found in, "" for none
        // When its device was through each step it reached ("create", "move", "configure"),
        // in milliseconds since boot, as the phases.
        std::vector<std::pair<std::string, double>> stepsMs;
    };
    bool resumed = false;
    bool filterRulesFirst = false;
    RestoreOrder order = RestoreOrder::library;
    bool started = false; // a parser and a driver were found
    bool initialized = false;
    std::string platformType;
    std::vector<std::pair<std::string, double>> phasesMs;
    // When each phase began, and ("total") when the restore began and ended, in milliseconds
    // since boot (CLOCK_BOOTTIME, counting suspend): comparable with the journal's and the
    // other boot services' times.
    std::vector<std::pair<std::string, double>> phasesStartMs;
    double endedMs = 0;
    std::vector<Interface> interfaces;
    std::vector<std::string> failures; // every event after parsing, "<group>: <message>"
    int stoppedBy = 0;                 // the signal that stopped the restore, or 0
    Log::HistoryStatus history;

    bool ok() const {
        return started && initialized && failures.empty() && stoppedBy == 0 && history.ok;
    }
    // 0 every step succeeded, 1 the restore ran with failures or its history could not be
    // written, 2 it could not start, 128 + the signal when one stopped it.
    int exitStatus() const {
        return stoppedBy != 0 ? 128 + stoppedBy : !started ? 2 : (ok() ? 0 : 1);
    }
    // The report as a JSON object; `extra` adds members, each a name and an object (the
    // simulator's kernel state and its verification).
    std::string json(const std::vector<std::pair<std::string, std::string>>& extra = {}) const;
    // The last restore for node-exporter's textfile collector: its result, failures, each
    // phase's duration and when it ended, in seconds since boot.
    std::string metrics() const;
    // A few lines for people: what was restored, how long each phase took, and each failure
    // once, with how often it happened.
    std::string summary() const;
};

// The flags of the commands that run a restore, beyond the common ones.
struct RestoreGuardOptions {
    double commandDeadlineSeconds = 30;
    std::string filterRules = "first";
    bool filterRulesFirst() const { return filterRules == "first"; }
    std::string order = "fast";
    RestoreOrder restoreOrder() const {
        return order == "library" ? RestoreOrder::library : RestoreOrder::fast;
    }
    void addTo(CLI::App& command);
    // Turns on every guard of the library with this command deadline: the restore stops
    // cleanly on SIGTERM and SIGINT.
    void apply() const;
};

// Milliseconds since boot (CLOCK_BOOTTIME).
double msSinceBoot();
// Writes a file whole or not at all: into a new file beside it, then renamed over it, so a
// reader (node-exporter) never sees half of one. False, with the reason on standard error,
// when it cannot.
bool fileReplaced(const std::string& path, const std::string& text);
// Writes a report; false, with the reason on standard error, when it cannot.
bool reportWritten(const std::string& path, const std::string& json);

// How a restore runs beyond the library's sequence.
struct RestoreChoices {
    bool resume = false; // finish an interrupted restore (Driver::resumeIs)
    // The filter rules before the devices: their tools' cost grows with the addresses already
    // there, and the CPU is never up without its filter. False keeps the library's order.
    bool filterRulesFirst = true;
    // How the driver does its kernel work (Driver::orderIs); the same outcome either way.
    RestoreOrder order = RestoreOrder::fast;
    // Sees the driver once the restore is over, before it is released with what it holds
    // (the queues of the devices it made); its events are failures of the restore.
    std::function<void(const Driver&)> finished;
    // Told as each phase begins (`done` and `of` 0) and as every 256th interface is created,
    // with how many interfaces the store has: the boot service's status line.
    std::function<void(const char* phase, std::size_t done, std::size_t of)> progress;
};

// The caller's sequence: parse, choose the driver, bring the chip up, then create, move,
// configure and restore the filter rules (first or last), each phase timed. `parsed` sees the
// configuration before the driver is chosen (the simulator picks its chip family there).
RestoreReport runRestore(const std::function<ConfigParser::Ptr()>& parserOf,
                         const std::function<void(const Config&)>& parsed = {},
                         const RestoreChoices& choices = {});

} // namespace Kestrune::Cli
