#include "TimelineCommand.h"

#include "RestoreRun.h"
#include "util/Json.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

namespace Kestrune::Cli {
namespace {

// Named, the rest counted: a line holds no more.
constexpr std::size_t namedNotMade = 12;
constexpr std::size_t namesWidth = 150; // characters: the picture's width
constexpr std::size_t failureLines = 12;

constexpr double width = 1200;
constexpr double labelWidth = 190;
constexpr double rightMargin = 30;
constexpr double rowHeight = 24;
constexpr double top = 48;

const char* colorOf(const std::string& kind) {
    if (kind == "create") {
        return "#4f9a55";
    }
    if (kind == "move") {
        return "#d19a2e";
    }
    if (kind == "configure") {
        return "#7a5cb8";
    }
    return "#3f72af";
}

std::string xml(const std::string& text) {
    std::string escaped;
    for (const char c : utf8Escaped(text)) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            // Control bytes are not XML; a name from the store may hold them.
            escaped += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
        }
    }
    return escaped;
}

std::string fixed(double value, int digits) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(digits) << value;
    return out.str();
}

// A step between the scale's ticks, 1, 2 or 5 times a power of ten, giving at most ten.
double tickStepMs(double spanMs) {
    for (double power = 0.001;; power *= 10) {
        for (const double mantissa : {1.0, 2.0, 5.0}) {
            if (spanMs / (mantissa * power) <= 10 || power > 1e9) {
                return mantissa * power;
            }
        }
    }
}

} // namespace

Timeline timelineOf(const ReportFile& report) {
    Timeline timeline;
    std::size_t made = 0;
    for (const ReportFile::Device& device : report.devices) {
        made += device.created ? 1 : 0;
    }
    const double total = report.phaseMs("total");
    timeline.title = "Restore of the " +
                     (report.platformType.empty() ? std::string("unknown") : report.platformType) +
                     " store: " + std::to_string(made) + " of " +
                     std::to_string(report.devices.size()) + " interfaces made in " +
                     fixed(std::max(total, 0.0) / 1000, 2) + " s, " +
                     std::to_string(report.failures.size()) + " failure(s)" +
                     (report.stoppedBy.empty() ? "" : ", stopped by " + report.stoppedBy);
    timeline.startMs = report.phaseStartMs("total");
    timeline.endMs = report.endedMs;
    for (const auto& [phase, start] : report.phasesStartMs) {
        if (phase == "total") {
            continue;
        }
        const double ms = std::max(report.phaseMs(phase), 0.0);
        timeline.rows.push_back(
            {phase, fixed(ms, 1) + " ms", {{"phase", start, start + ms, fixed(ms, 1) + " ms"}}});
    }
    // A class's row: per step, from the start of its first device's share to its last device.
    std::map<std::string, std::map<std::string, std::pair<double, double>>> spans;
    std::map<std::string, std::map<std::string, std::size_t>> counts;
    for (const ReportFile::Device& device : report.devices) {
        const std::string row = device.type.empty() ? "(no type)" : device.type;
        for (const auto& [step, at] : device.stepsMs) {
            double spent = 0;
            for (const auto& [name, ms] : device.spentMs) {
                spent = name == step ? ms : spent;
            }
            auto [span, fresh] = spans[row].try_emplace(step, at - spent, at);
            if (!fresh) {
                span->second.first = std::min(span->second.first, at - spent);
                span->second.second = std::max(span->second.second, at);
            }
            ++counts[row][step];
            if (step == "create" && !device.created) {
                timeline.notMade.push_back({device.name, row, at});
            }
        }
    }
    for (const auto& [row, steps] : spans) {
        std::size_t devices = 0;
        for (const auto& [step, count] : counts[row]) {
            devices = std::max(devices, count);
        }
        Timeline::Row classRow{row, std::to_string(devices), {}};
        for (const char* step : {"create", "move", "configure"}) {
            if (const auto span = steps.find(step); span != steps.end()) {
                classRow.bars.push_back(
                    {step, span->second.first, span->second.second,
                     std::string(step) + " " + std::to_string(counts[row][step])});
            }
        }
        timeline.rows.push_back(std::move(classRow));
    }
    timeline.failures = textCounts(report.failures);
    if (timeline.endMs <= timeline.startMs) {
        timeline.endMs = timeline.startMs + std::max(total, 1.0);
    }
    return timeline;
}

std::string Timeline::svg() const {
    const double plot = width - labelWidth - rightMargin;
    const double span = std::max(endMs - startMs, 1e-3);
    const auto x = [&](double ms) {
        return labelWidth + std::clamp((ms - startMs) / span, 0.0, 1.0) * plot;
    };
    const double axis = top + static_cast<double>(rows.size()) * rowHeight + 8;
    const std::size_t shownFailures = std::min(failures.size(), failureLines);
    const double height =
        axis + 44 + (failures.empty() ? 0 : 22) +
        static_cast<double>(shownFailures + (failures.size() > failureLines)) * 16 +
        (notMade.empty() ? 0 : 22);
    std::ostringstream out;
    out << R"(<?xml version="1.0" encoding="UTF-8"?>)"
        << "\n"
        << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << width << R"(" height=")"
        << fixed(height, 0) << R"(" viewBox="0 0 )" << width << " " << fixed(height, 0)
        << R"(" font-family="sans-serif" font-size="12">)"
        << "\n"
        << R"(<rect width="100%" height="100%" fill="#ffffff"/>)"
        << "\n"
        << R"(<text x="10" y="22" font-size="15" font-weight="bold">)" << xml(title) << "</text>\n";
    // The scale: a line and a label a tick, in seconds since boot.
    const double step = tickStepMs(span);
    const auto firstTick = static_cast<long long>(std::ceil(startMs / step));
    const auto lastTick = static_cast<long long>(std::floor(endMs / step + 1e-9));
    for (long long n = firstTick; n <= lastTick; ++n) {
        const double tick = static_cast<double>(n) * step;
        const double at = x(tick);
        out << R"(<line x1=")" << fixed(at, 1) << R"(" y1=")" << top - 4 << R"(" x2=")"
            << fixed(at, 1) << R"(" y2=")" << fixed(axis, 1)
            << R"(" stroke="#dddddd" stroke-width="1"/>)"
            << "\n"
            << R"(<text x=")" << fixed(at, 1) << R"(" y=")" << fixed(axis + 14, 1)
            << R"(" text-anchor="middle" fill="#444444">)"
            << fixed(tick / 1000, step >= 1000  ? 0
                                  : step >= 100 ? 1
                                  : step >= 10  ? 2
                                                : 3)
            << "</text>\n";
    }
    out << R"(<text x=")" << fixed(labelWidth + plot, 1) << R"(" y=")" << fixed(axis + 30, 1)
        << R"(" text-anchor="end" fill="#444444">seconds since boot</text>)"
        << "\n";
    // The legend: what each colour is.
    double legend = width - rightMargin;
    const std::pair<const char*, const char*> keys[] = {
        {"configure", "configure"}, {"move", "move"}, {"create", "create"}, {"phase", "phase"}};
    for (const auto& [kind, name] : keys) {
        legend -= 80;
        out << R"(<rect x=")" << fixed(legend, 1) << R"(" y="30" width="10" height="10" fill=")"
            << colorOf(kind) << R"("/>)"
            << "\n"
            << R"(<text x=")" << fixed(legend + 14, 1) << R"(" y="39">)" << name << "</text>\n";
    }
    out << R"(<path d="M)" << fixed(legend - 90, 1) << R"( 40 l-5 -8 h10 z" fill="#c0392b"/>)"
        << "\n"
        << R"(<text x=")" << fixed(legend - 82, 1) << R"(" y="39">not made</text>)"
        << "\n";
    std::map<std::string, double> rowY;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const double y = top + static_cast<double>(i) * rowHeight;
        rowY[rows[i].name] = y;
        if (i % 2 == 1) {
            out << R"(<rect x="0" y=")" << fixed(y, 1) << R"(" width=")" << width << R"(" height=")"
                << rowHeight << R"(" fill="#f4f6f8"/>)"
                << "\n";
        }
        // The row's name, and what its bars add up to: the phase's time, or the class's devices.
        out << R"(<text x="10" y=")" << fixed(y + 16, 1) << R"(">)" << xml(rows[i].name)
            << "</text>\n"
            << R"(<text x=")" << labelWidth - 8 << R"(" y=")" << fixed(y + 16, 1)
            << R"(" text-anchor="end" fill="#555555">)" << xml(rows[i].summary) << "</text>\n";
        for (const Bar& bar : rows[i].bars) {
            const double left = x(bar.startMs);
            const double barWidth = std::max(x(bar.endMs) - left, 1.5);
            out << R"(<rect x=")" << fixed(left, 1) << R"(" y=")" << fixed(y + 5, 1)
                << R"(" width=")" << fixed(barWidth, 1) << R"(" height=")" << rowHeight - 10
                << R"(" fill=")" << colorOf(bar.kind) << R"("><title>)" << xml(bar.label)
                << "</title></rect>\n";
        }
    }
    // What the restore did not make: a red mark where its creation ended; named below.
    for (const NotMade& device : notMade) {
        out << R"(<path d="M)" << fixed(x(device.atMs), 1) << " "
            << fixed(rowY[device.row] + rowHeight - 3, 1)
            << R"( l-4 -7 h8 z" fill="#c0392b"><title>)" << xml(device.name + " not made")
            << "</title></path>\n";
    }
    double y = axis + 54;
    if (!notMade.empty()) {
        std::string names;
        std::size_t named = 0;
        for (; named < std::min(notMade.size(), namedNotMade) &&
               names.size() + notMade[named].name.size() < namesWidth;
             ++named) {
            names += (named == 0 ? "" : ", ") + notMade[named].name;
        }
        if (named < notMade.size()) {
            names += " and " + std::to_string(notMade.size() - named) + " more";
        }
        out << R"(<text x="10" y=")" << fixed(y, 1) << R"(" fill="#c0392b">Not made ()"
            << notMade.size() << "): " << xml(names) << "</text>\n";
        y += 22;
    }
    if (!failures.empty()) {
        out << R"(<text x="10" y=")" << fixed(y, 1) << R"(" font-weight="bold">Failures</text>)"
            << "\n";
        for (std::size_t i = 0; i < shownFailures; ++i) {
            y += 16;
            out << R"(<text x="20" y=")" << fixed(y, 1) << R"(" fill="#c0392b">)"
                << xml(failures[i].first +
                       (failures[i].second > 1
                            ? " (" + std::to_string(failures[i].second) + " times)"
                            : ""))
                << "</text>\n";
        }
        if (failures.size() > failureLines) {
            y += 16;
            out << R"(<text x="20" y=")" << fixed(y, 1) << R"(" fill="#c0392b">and )"
                << failures.size() - failureLines << " more</text>\n";
        }
    }
    out << "</svg>\n";
    return out.str();
}

std::string Timeline::json() const {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("title");
    writer.String(title);
    writer.Key("startMsSinceBoot");
    writer.Double(startMs);
    writer.Key("endMsSinceBoot");
    writer.Double(endMs);
    writer.Key("rows");
    writer.StartArray();
    for (const Row& row : rows) {
        writer.StartObject();
        writer.Key("name");
        writer.String(row.name);
        writer.Key("summary");
        writer.String(row.summary);
        writer.Key("bars");
        writer.StartArray();
        for (const Bar& bar : row.bars) {
            writer.StartObject();
            writer.Key("kind");
            writer.String(bar.kind);
            writer.Key("startMsSinceBoot");
            writer.Double(bar.startMs);
            writer.Key("endMsSinceBoot");
            writer.Double(bar.endMs);
            writer.Key("label");
            writer.String(bar.label);
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("notMade");
    writer.StartArray();
    for (const NotMade& device : notMade) {
        writer.StartObject();
        writer.Key("name");
        writer.String(device.name);
        writer.Key("row");
        writer.String(device.row);
        writer.Key("atMsSinceBoot");
        writer.Double(device.atMs);
        writer.EndObject();
    }
    writer.EndArray();
    textCountsWritten(writer, "failures", failures);
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

void addTimelineCommand(CLI::App& app, int& status) {
    struct Options {
        std::string report;
        std::string output;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "timeline", "Draw a restore's report (--report) as an SVG picture: a row per phase and "
                    "per device class, bars in seconds since boot, what was not made marked and "
                    "named; exit 2 when the report cannot be read or the picture written");
    command->add_option("REPORT", options->report, "The restore's report")->required();
    command->add_option("-o,--output", options->output,
                        "Write the picture (or the JSON) to this file instead of standard output");
    command->add_flag("--json", options->json, "The picture's data as one JSON object");
    command->callback([options, &status] {
        ReportFile report;
        std::string problem;
        if (!reportFileRead(options->report, report, problem)) {
            std::cerr << "kestrune timeline: " << problem << "\n";
            status = 2;
            return;
        }
        const Timeline timeline = timelineOf(report);
        const std::string text = options->json ? timeline.json() : timeline.svg();
        if (options->output.empty()) {
            std::cout << text;
        } else if (!fileReplaced(options->output, text)) {
            status = 2;
        }
    });
}

} // namespace Kestrune::Cli
