#include "CompareCommand.h"

#include "util/Json.h"
#include "util/Text.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>

namespace Kestrune::Cli {
namespace {

constexpr std::size_t slowestShown = 10;

// What `from` has more of than `than`, each text once, in the order `from` first has it.
TextCounts more(const std::vector<std::string>& from, const std::vector<std::string>& than) {
    std::map<std::string, std::size_t> before;
    for (const auto& [text, count] : textCounts(than)) {
        before[text] = count;
    }
    TextCounts result;
    for (const auto& [text, count] : textCounts(from)) {
        if (count > before[text]) {
            result.emplace_back(text, count - before[text]);
        }
    }
    return result;
}

std::string number(double ms) {
    if (ms < 0) {
        return "-";
    }
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << ms;
    return out.str();
}

std::string change(const ReportComparison::Times& times) {
    if (times.oldMs < 0 || times.newMs < 0) {
        return times.oldMs < 0 ? "new" : "gone";
    }
    const double percent = times.changePercent();
    if (std::isinf(percent)) {
        return "from 0";
    }
    std::ostringstream out;
    out << std::showpos << std::fixed << std::setprecision(1) << percent << "%";
    return out.str();
}

void row(std::ostream& out, const std::string& name, const std::string& a, const std::string& b,
         const std::string& c, const std::string& d = "") {
    out << "  " << std::left << std::setw(28) << name << std::right << std::setw(12) << a
        << std::setw(12) << b << std::setw(10) << c;
    if (!d.empty()) {
        out << "  " << d;
    }
    out << "\n";
}

template <class Writer>
void timesWritten(Writer& writer, const ReportComparison::Times& times) {
    writer.Key("name");
    writer.String(times.name);
    writer.Key("oldMs");
    times.oldMs < 0 ? writer.Null() : writer.Double(times.oldMs);
    writer.Key("newMs");
    times.newMs < 0 ? writer.Null() : writer.Double(times.newMs);
    writer.Key("changePercent");
    const double percent = times.changePercent();
    times.oldMs < 0 || times.newMs < 0 || std::isinf(percent) ? writer.Null()
                                                              : writer.Double(percent);
}

} // namespace

double ReportComparison::Times::changePercent() const {
    if (oldMs <= 0) {
        return newMs > 0 ? std::numeric_limits<double>::infinity() : 0;
    }
    return (newMs - oldMs) / oldMs * 100;
}

ReportComparison reportsCompared(const ReportFile& before, const ReportFile& after,
                                 double maxSlowerPercent, double minMs) {
    ReportComparison result;
    result.maxSlowerPercent = maxSlowerPercent;
    for (const auto& [phase, ms] : after.phasesMs) {
        result.phases.push_back({phase, before.phaseMs(phase), ms});
    }
    for (const auto& [phase, ms] : before.phasesMs) {
        if (after.phaseMs(phase) < 0) {
            result.phases.push_back({phase, ms, -1});
        }
    }
    // "total" last, whichever report had it where.
    std::stable_partition(result.phases.begin(), result.phases.end(),
                          [](const auto& phase) { return phase.name != "total"; });

    std::map<std::string, ReportComparison::DeviceClass> classes;
    std::map<std::string, const ReportFile::Device*> earlier;
    for (const ReportFile::Device& device : before.devices) {
        earlier[device.name] = &device;
        auto& kind = classes[device.type];
        kind.name = device.type;
        kind.oldMs = std::max(kind.oldMs, 0.0) + device.spentTotalMs();
        ++kind.oldDevices;
    }
    for (const ReportFile::Device& device : after.devices) {
        auto& kind = classes[device.type];
        kind.name = device.type;
        kind.newMs = std::max(kind.newMs, 0.0) + device.spentTotalMs();
        ++kind.newDevices;
        const auto old = earlier.find(device.name);
        if (old == earlier.end()) {
            continue;
        }
        const double was = old->second->spentTotalMs();
        const double is = device.spentTotalMs();
        if (is <= was) {
            continue;
        }
        // The step whose share grew the most.
        std::string step;
        double grew = -std::numeric_limits<double>::infinity();
        for (const auto& [name, ms] : device.spentMs) {
            double then = 0;
            for (const auto& [oldName, oldMs] : old->second->spentMs) {
                if (oldName == name) {
                    then = oldMs;
                }
            }
            if (ms - then > grew) {
                grew = ms - then;
                step = name;
            }
        }
        ReportComparison::Device slower;
        slower.name = device.name;
        slower.oldMs = was;
        slower.newMs = is;
        slower.type = device.type;
        slower.step = step;
        result.slower.push_back(std::move(slower));
    }
    for (auto& [type, kind] : classes) {
        result.classes.push_back(kind);
    }
    std::stable_sort(result.slower.begin(), result.slower.end(), [](const auto& a, const auto& b) {
        return a.newMs - a.oldMs > b.newMs - b.oldMs;
    });
    if (result.slower.size() > slowestShown) {
        result.slower.resize(slowestShown);
    }

    result.came = more(after.failures, before.failures);
    result.went = more(before.failures, after.failures);

    if (maxSlowerPercent >= 0) {
        for (const auto& phase : result.phases) {
            if (phase.oldMs >= 0 && phase.newMs >= 0 && phase.newMs - phase.oldMs >= minMs &&
                phase.changePercent() > maxSlowerPercent) {
                result.overGate.push_back(phase.name);
            }
        }
    }
    return result;
}

std::string ReportComparison::text() const {
    std::ostringstream out;
    out << "Phases\n";
    row(out, "", "old ms", "new ms", "change");
    for (const Times& phase : phases) {
        row(out, phase.name, number(phase.oldMs), number(phase.newMs), change(phase));
    }
    if (!classes.empty()) {
        out << "Device classes (time the steps spent on them)\n";
        row(out, "", "old ms", "new ms", "change", "devices");
        for (const DeviceClass& kind : classes) {
            row(out, kind.name.empty() ? "(none)" : kind.name, number(kind.oldMs),
                number(kind.newMs), change(kind),
                std::to_string(kind.oldDevices) + " -> " + std::to_string(kind.newDevices));
        }
    }
    if (!slower.empty()) {
        out << "Devices that got slower, the most first\n";
        row(out, "", "old ms", "new ms", "change", "most in");
        for (const Device& device : slower) {
            row(out, escapedText(device.name), number(device.oldMs), number(device.newMs),
                change(device), device.step);
        }
    }
    const auto failures = [&](const char* title,
                              const std::vector<std::pair<std::string, std::size_t>>& texts) {
        out << title << (texts.empty() ? ": none\n" : ":\n");
        for (const auto& [text, count] : texts) {
            out << "  " << escapedText(text)
                << (count > 1 ? " (" + std::to_string(count) + " times)" : "") << "\n";
        }
    };
    failures("Failures that came", came);
    failures("Failures that went", went);
    if (maxSlowerPercent >= 0) {
        if (overGate.empty()) {
            out << "No phase is slower by more than " << number(maxSlowerPercent) << "%\n";
        } else {
            out << "Slower by more than " << number(maxSlowerPercent) << "%:";
            for (const std::string& phase : overGate) {
                out << " " << phase;
            }
            out << "\n";
        }
    }
    return out.str();
}

std::string ReportComparison::json() const {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("phases");
    writer.StartArray();
    for (const Times& phase : phases) {
        writer.StartObject();
        timesWritten(writer, phase);
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("deviceClasses");
    writer.StartArray();
    for (const DeviceClass& kind : classes) {
        writer.StartObject();
        timesWritten(writer, kind);
        writer.Key("oldDevices");
        writer.Uint64(kind.oldDevices);
        writer.Key("newDevices");
        writer.Uint64(kind.newDevices);
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("slowerDevices");
    writer.StartArray();
    for (const Device& device : slower) {
        writer.StartObject();
        timesWritten(writer, device);
        writer.Key("type");
        writer.String(device.type);
        writer.Key("mostIn");
        writer.String(device.step);
        writer.EndObject();
    }
    writer.EndArray();
    textCountsWritten(writer, "failuresCame", came);
    textCountsWritten(writer, "failuresWent", went);
    writer.Key("maxSlowerPercent");
    maxSlowerPercent < 0 ? writer.Null() : writer.Double(maxSlowerPercent);
    writer.Key("slowerThanAllowed");
    writer.StartArray();
    for (const std::string& phase : overGate) {
        writer.String(phase);
    }
    writer.EndArray();
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

void addCompareCommand(CLI::App& app, int& status) {
    struct Options {
        std::string oldReport;
        std::string newReport;
        bool json = false;
        double maxSlower = -1;
        double minMs = 10;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "compare", "Compare two restores' reports (--report): each phase's time, the device "
                   "classes and the devices that got slower, the failures that came or went; "
                   "exit 1 when --max-slower is passed, 2 when a report cannot be read");
    command->add_option("OLD", options->oldReport, "The earlier restore's report")->required();
    command->add_option("NEW", options->newReport, "The later restore's report")->required();
    command->add_flag("--json", options->json, "Print the comparison as one JSON object");
    command
        ->add_option("--max-slower", options->maxSlower,
                     "Exit 1 when the whole restore or a phase is slower by more than this "
                     "many percent")
        ->check(CLI::NonNegativeNumber);
    command
        ->add_option("--min-ms", options->minMs,
                     "With --max-slower: a phase slower by fewer milliseconds than this never "
                     "fails the gate")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->callback([options, &status] {
        ReportFile before;
        ReportFile after;
        std::string problem;
        if (!reportFileRead(options->oldReport, before, problem) ||
            !reportFileRead(options->newReport, after, problem)) {
            std::cerr << "kestrune compare: " << problem << "\n";
            status = 2;
            return;
        }
        const ReportComparison comparison =
            reportsCompared(before, after, options->maxSlower, options->minMs);
        std::cout << (options->json ? comparison.json() : comparison.text());
        status = comparison.exitStatus();
    });
}

} // namespace Kestrune::Cli
