#include "RestoreRun.h"

#include "CommonOptions.h"
#include "driver/DriverCreator.h"
#include "log/Log.h"
#include "log/ProcessGuard.h"
#include "util/Command.h"
#include "util/Json.h"
#include "util/KernelName.h"
#include "util/OutputFile.h"
#include "util/RestoreGuards.h"
#include "util/Stop.h"
#include "util/Text.h"
#include "util/Trace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune::Cli {
namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

using Timed = std::function<void(const char* phase, const std::function<void()>& work)>;
using StepTimes = std::unordered_map<std::string, std::vector<std::pair<std::string, double>>>;

// The caller's sequence, phase by phase; what it made is left in config and driver.
void runPhases(RestoreReport& report, const Timed& timed,
               const std::function<ConfigParser::Ptr()>& parserOf,
               const std::function<void(const Config&)>& parsed, Config::Ptr& config,
               Driver::Ptr& driver, const RestoreChoices& choices, StepTimes& steps) {
    // Once the store is parsed every event is a failure. The parser also records an event for
    // each subinterface it adds, so its findings stay notes: in the history and the trace,
    // not among the failures nor the journal's warnings. A store that cannot be read is a
    // failure for the journal, though the report says it as "could not start".
    // Shared: the observer outlives this step when a stop unwinds it.
    const auto storeParsed = std::make_shared<bool>(false);
    Log::observerIs([&report, storeParsed](const std::string& group, const std::string& message) {
        if (*storeParsed) {
            report.failures.push_back(group + ": " + message);
        }
        if (*storeParsed || group != "ConfigParser") {
            journalFailureIs(message);
        }
    });
    timed("parse", [&] {
        if (const ConfigParser::Ptr parser = parserOf()) {
            config = parser->parse();
        }
    });
    *storeParsed = true;
    if (config) {
        report.platformType = config->platformType();
        if (parsed) {
            parsed(*config);
        }
        timed("init", [&] {
            driver = DriverCreator(config).create();
            if (driver) {
                driver->resumeIs(choices.resume);
                driver->orderIs(choices.order);
            }
            report.initialized = driver && driver->doInit();
        });
    }
    report.started = driver != nullptr;
    if (report.started && report.initialized) {
        driver->filterRulesFirstIs(choices.filterRulesFirst);
        const std::size_t interfaces = config->interface().size();
        driver->deviceStepSeenIs([&steps, &choices, interfaces, created = std::size_t{0}](
                                     const char* step, const Interface& intf) mutable {
            steps[intf.name()].emplace_back(step, msSinceBoot());
            constexpr std::size_t every = 256;
            if (choices.progress && std::strcmp(step, "create") == 0 && ++created % every == 0) {
                choices.progress(step, created, interfaces);
            }
        });
        driver->doCreateKernelInterfaces(
            [&](const char* step, const std::function<void()>& run) { timed(step, run); });
    }
}

} // namespace

void RestoreGuardOptions::addTo(CLI::App& command) {
    command
        .add_option("--command-deadline", commandDeadlineSeconds,
                    "Seconds each command of the restore may run (modprobe, fab, schan, tc, the "
                    "filter-rule tools) before its process group is killed; 0: no deadline")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command
        .add_option("--filter-rules", filterRules,
                    "When to restore the filter rules: first, before any device is made (their "
                    "tools then run against no addresses, and no address is up unfiltered), or "
                    "last, after the devices are configured, as the library's sequence does")
        ->check(CLI::IsMember({"first", "last"}))
        ->capture_default_str();
    command
        .add_option("--order", order,
                    "How the devices are made: fast, each VLAN device inside its VRF's namespace "
                    "with its MTU (no move) and a Sand port's qdisc without a tc process, or "
                    "library, the library's own order; both leave the same trace, events and "
                    "devices")
        ->check(CLI::IsMember({"fast", "library"}))
        ->capture_default_str();
}

void RestoreGuardOptions::apply() const {
    RestoreGuards guards = RestoreGuards::all();
    guards.commandDeadlineMs = commandDeadlineSeconds > 0
                                   ? static_cast<int>(commandDeadlineSeconds * 1000)
                                   : commandNoTimeout;
    restoreGuardsIs(guards);
}

double msSinceBoot() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) * 1000 + static_cast<double>(now.tv_nsec) / 1e6;
}

bool fileReplaced(const std::string& path, const std::string& text) {
    std::string problem;
    if (outputReplaced(path, text, problem)) {
        return true;
    }
    std::cerr << "kestrune: cannot write " << path << ": " << problem << "\n";
    return false;
}

std::string RestoreReport::metrics() const {
    std::ostringstream out;
    const auto metric = [&out](const char* name, const char* help, auto value) {
        out << "# HELP " << name << " " << help << "\n# TYPE " << name << " gauge\n"
            << name << " " << value << "\n";
    };
    metric("kestrune_restore_success", "Whether the last restore did every step (1) or not (0).",
           ok() ? 1 : 0);
    metric("kestrune_restore_exit_status", "The last restore's exit status.", exitStatus());
    metric("kestrune_restore_failures", "Failures the last restore recorded.", failures.size());
    out << "# HELP kestrune_restore_phase_seconds How long each phase of the last restore took.\n"
        << "# TYPE kestrune_restore_phase_seconds gauge\n";
    for (const auto& [phase, ms] : phasesMs) {
        out << "kestrune_restore_phase_seconds{phase=\"" << phase << "\"} " << ms / 1000 << "\n";
    }
    metric("kestrune_restore_completion_seconds_since_boot",
           "When the last restore ended, in seconds since boot.", endedMs / 1000);
    return out.str();
}

bool reportWritten(const std::string& path, const std::string& json) {
    // Written as root: nothing on the path another user could swap is followed, and a FIFO
    // there would hold the restore and its lock.
    std::string problem;
    const int fd = openOutput(path, O_TRUNC, problem);
    const std::string text = json + '\n';
    const bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) {
        problem = written ? "" : std::strerror(errno);
        ::close(fd);
    }
    if (!written) {
        std::cerr << "kestrune: cannot write the report " << path << ": " << problem << "\n";
        return false;
    }
    return true;
}

std::string RestoreReport::summary() const {
    std::ostringstream out;
    std::set<std::string> namespaces;
    std::size_t made = 0;
    for (const Interface& intf : interfaces) {
        if (intf.created) {
            ++made;
            namespaces.insert(intf.ns);
        }
    }
    if (!started) {
        out << "Nothing restored: no store of a known platform, or no driver for its platform\n";
    } else {
        out << "Restored the " << platformType << " store: " << made << " of " << interfaces.size()
            << " interfaces made, in " << namespaces.size() << " namespace(s)\n";
    }
    out << "Phases (ms):";
    char ms[32];
    for (const auto& [phase, time] : phasesMs) {
        std::snprintf(ms, sizeof ms, "%.1f", time);
        out << (phase == "total" ? "; total " : " " + phase + " ") << ms;
    }
    out << "\n";
    // Each distinct failure once, in the order it first happened.
    std::vector<std::pair<std::string, int>> distinct;
    for (const std::string& failure : failures) {
        const auto seen = std::find_if(distinct.begin(), distinct.end(),
                                       [&](const auto& known) { return known.first == failure; });
        if (seen == distinct.end()) {
            distinct.emplace_back(failure, 1);
        } else {
            ++seen->second;
        }
    }
    if (distinct.empty()) {
        out << "No failures\n";
    } else {
        out << failures.size() << " failure(s):\n";
    }
    for (const auto& [failure, count] : distinct) {
        out << "  " << escapedText(failure)
            << (count > 1 ? " (" + std::to_string(count) + " times)" : "") << "\n";
    }
    if (stoppedBy != 0) {
        out << "Stopped by " << signalName(stoppedBy) << " before it finished\n";
    }
    return out.str();
}

RestoreReport runRestore(const std::function<ConfigParser::Ptr()>& parserOf,
                         const std::function<void(const Config&)>& parsed,
                         const RestoreChoices& choices) {
    RestoreReport report;
    report.resumed = choices.resume;
    report.filterRulesFirst = choices.filterRulesFirst;
    report.order = choices.order;
    // Each phase ends with its events in the history, so a restore that dies in the next
    // one leaves at least these behind in the database (and the rest in its journal).
    const auto timed = [&report, &choices](const char* phase, const std::function<void()>& work) {
        report.phasesStartMs.emplace_back(phase, msSinceBoot());
        if (choices.progress) {
            choices.progress(phase, 0, 0);
        }
        const auto start = Clock::now();
        stopPoint();
        work();
        report.phasesMs.emplace_back(phase, msSince(start));
        Log::doStorePending();
    };
    const auto start = Clock::now();
    report.phasesStartMs.emplace_back("total", msSinceBoot());
    Config::Ptr config;
    Driver::Ptr driver;
    StepTimes steps;
    try {
        runPhases(report, timed, parserOf, parsed, config, driver, choices, steps);
    } catch (const StopRequested& stop) {
        report.stoppedBy = stop.signal();
        ProcessGuard::doRecordStop(stop.signal());
    }
    report.phasesMs.emplace_back("total", msSince(start));
    report.endedMs = msSinceBoot();
    if (config) {
        for (const auto& [name, intf] : config->interface()) {
            std::string foundIn;
            if (driver) {
                if (const auto found = driver->found().find(name); found != driver->found().end()) {
                    foundIn = found->second;
                }
            }
            report.interfaces.push_back({name, kernelIntfName(name),
                                         std::string(stringValue(intf->interfaceType())),
                                         intf->netNsName(), driver && driver->created(name),
                                         foundIn, std::move(steps[name])});
        }
    }
    if (driver && choices.finished) {
        choices.finished(*driver);
    }
    Log::observerIs({});
    Log::doStorePending();
    report.history = Log::historyStatus();
    return report;
}

std::string
RestoreReport::json(const std::vector<std::pair<std::string, std::string>>& extra) const {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("ok");
    writer.Bool(ok());
    writer.Key("platformType");
    writer.String(platformType.c_str());
    writer.Key("resumed");
    writer.Bool(resumed);
    writer.Key("filterRules");
    writer.String(filterRulesFirst ? "first" : "last");
    writer.Key("order");
    writer.String(restoreOrderName(order));
    for (const auto& [key, times] :
         {std::pair{"phasesMs", &phasesMs}, std::pair{"phasesStartMsSinceBoot", &phasesStartMs}}) {
        writer.Key(key);
        writer.StartObject();
        for (const auto& [name, ms] : *times) {
            writer.Key(name.c_str());
            writer.Double(ms);
        }
        writer.EndObject();
    }
    writer.Key("endedMsSinceBoot");
    writer.Double(endedMs);
    writer.Key("interfaces");
    writer.StartArray();
    for (const Interface& intf : interfaces) {
        writer.StartObject();
        writer.Key("name");
        writer.String(intf.name.c_str());
        writer.Key("kernelName");
        writer.String(intf.kernelName.c_str());
        writer.Key("type");
        writer.String(intf.type.c_str());
        writer.Key("namespace");
        writer.String(intf.ns.c_str());
        writer.Key("created");
        writer.Bool(intf.created);
        if (resumed) {
            writer.Key("foundIn");
            intf.found.empty() ? writer.Null() : writer.String(intf.found);
        }
        if (!intf.stepsMs.empty()) {
            writer.Key("stepsMsSinceBoot");
            writer.StartObject();
            for (const auto& [step, ms] : intf.stepsMs) {
                writer.Key(step.c_str());
                writer.Double(ms);
            }
            writer.EndObject();
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("failures");
    writer.StartObject();
    writer.Key("count");
    writer.Uint(static_cast<unsigned>(failures.size()));
    writer.Key("texts");
    writer.StartArray();
    for (const std::string& text : failures) {
        writer.String(text.c_str());
    }
    writer.EndArray();
    writer.EndObject();
    writer.Key("stoppedBy");
    if (stoppedBy != 0) {
        writer.String(signalName(stoppedBy));
    } else {
        writer.Null();
    }
    writer.Key("history");
    writer.StartObject();
    writer.Key("path");
    writer.String(history.path);
    writer.Key("ok");
    writer.Bool(history.ok);
    writer.Key("waiting");
    writer.Uint(static_cast<unsigned>(history.waiting));
    writer.Key("problems");
    writer.StartArray();
    for (const std::string& problem : history.problems) {
        writer.String(problem);
    }
    writer.EndArray();
    writer.EndObject();
    for (const auto& [name, json] : extra) {
        writer.Key(name.c_str());
        writer.RawValue(json.c_str(), json.size(), rapidjson::kObjectType);
    }
    writer.EndObject();
    return buffer.GetString();
}

} // namespace Kestrune::Cli
