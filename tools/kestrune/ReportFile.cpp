#include "ReportFile.h"

#include "util/Json.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <rapidjson/error/en.h>
#include <sstream>
#include <sys/stat.h>

namespace Kestrune::Cli {
namespace {

using Times = std::vector<std::pair<std::string, double>>;

double timeOf(const Times& times, const std::string& name) {
    const auto found = std::find_if(times.begin(), times.end(),
                                    [&](const auto& entry) { return entry.first == name; });
    return found == times.end() ? -1 : found->second;
}

// Reads an object of numbers into `times`; false when `value` is not one.
bool timesRead(const rapidjson::Value& value, Times& times) {
    if (!value.IsObject()) {
        return false;
    }
    for (const auto& member : value.GetObject()) {
        if (!member.value.IsNumber()) {
            return false;
        }
        times.emplace_back(member.name.GetString(), member.value.GetDouble());
    }
    return true;
}

// Each device's share of a step: the steps go device by device, so the time from the device
// the step finished before it (or from the step's start) is what the step spent on it.
void spentOf(ReportFile& report) {
    for (const char* step : {"create", "move", "configure"}) {
        std::vector<std::pair<double, ReportFile::Device*>> seen;
        for (ReportFile::Device& device : report.devices) {
            if (const double at = timeOf(device.stepsMs, step); at >= 0) {
                seen.emplace_back(at, &device);
            }
        }
        std::sort(seen.begin(), seen.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        double previous = report.phaseStartMs(step);
        for (auto& [at, device] : seen) {
            device->spentMs.emplace_back(step, previous >= 0 ? std::max(0.0, at - previous) : 0);
            previous = at;
        }
    }
}

} // namespace

TextCounts textCounts(const std::vector<std::string>& texts) {
    std::map<std::string, std::size_t> seen;
    TextCounts counts;
    for (const std::string& text : texts) {
        if (seen[text]++ == 0) {
            counts.emplace_back(text, 0);
        }
    }
    for (auto& [text, count] : counts) {
        count = seen[text];
    }
    return counts;
}

void textCountsWritten(PrettyJsonWriter& writer, const char* key, const TextCounts& texts) {
    writer.Key(key);
    writer.StartArray();
    for (const auto& [text, count] : texts) {
        writer.StartObject();
        writer.Key("text");
        writer.String(text);
        writer.Key("times");
        writer.Uint64(count);
        writer.EndObject();
    }
    writer.EndArray();
}

double ReportFile::Device::spentTotalMs() const {
    double total = 0;
    for (const auto& [step, ms] : spentMs) {
        total += ms;
    }
    return total;
}

double ReportFile::phaseMs(const std::string& phase) const {
    return timeOf(phasesMs, phase);
}

double ReportFile::phaseStartMs(const std::string& phase) const {
    return timeOf(phasesStartMs, phase);
}

bool reportFileRead(const std::string& path, ReportFile& report, std::string& problem) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        problem = "cannot read the report " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        problem = "cannot read the report " + path + ": it is not a regular file";
        return false;
    }
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    if (!in) {
        problem = "cannot read the report " + path;
        return false;
    }
    rapidjson::Document document;
    const std::string json = text.str();
    document.Parse(json.c_str(), json.size());
    if (document.HasParseError()) {
        problem = path + " is not JSON: " + rapidjson::GetParseError_En(document.GetParseError()) +
                  " at byte " + std::to_string(document.GetErrorOffset());
        return false;
    }
    const auto wrong = [&](const char* what) {
        problem = path + " is not a restore's report: " + what;
        return false;
    };
    if (!document.IsObject()) {
        return wrong("it is not a JSON object");
    }
    const auto member = [&](const char* name) -> const rapidjson::Value* {
        const auto found = document.FindMember(name);
        return found == document.MemberEnd() ? nullptr : &found->value;
    };
    const rapidjson::Value* ok = member("ok");
    const rapidjson::Value* phases = member("phasesMs");
    const rapidjson::Value* starts = member("phasesStartMsSinceBoot");
    if (ok == nullptr || !ok->IsBool()) {
        return wrong("\"ok\" is missing or not true or false");
    }
    report.ok = ok->GetBool();
    if (phases == nullptr || !timesRead(*phases, report.phasesMs)) {
        return wrong("\"phasesMs\" is missing or not an object of numbers");
    }
    if (starts == nullptr || !timesRead(*starts, report.phasesStartMs)) {
        return wrong("\"phasesStartMsSinceBoot\" is missing or not an object of numbers");
    }
    if (const rapidjson::Value* platform = member("platformType");
        platform != nullptr && platform->IsString()) {
        report.platformType = platform->GetString();
    }
    if (const rapidjson::Value* ended = member("endedMsSinceBoot");
        ended != nullptr && ended->IsNumber()) {
        report.endedMs = ended->GetDouble();
    }
    if (const rapidjson::Value* stopped = member("stoppedBy");
        stopped != nullptr && stopped->IsString()) {
        report.stoppedBy = stopped->GetString();
    }
    const rapidjson::Value* interfaces = member("interfaces");
    if (interfaces == nullptr || !interfaces->IsArray()) {
        return wrong("\"interfaces\" is missing or not an array");
    }
    for (const rapidjson::Value& entry : interfaces->GetArray()) {
        if (!entry.IsObject() || !entry.HasMember("name") || !entry["name"].IsString()) {
            return wrong("an interface without a name");
        }
        ReportFile::Device device;
        device.name = entry["name"].GetString();
        if (entry.HasMember("type") && entry["type"].IsString()) {
            device.type = entry["type"].GetString();
        }
        device.created =
            entry.HasMember("created") && entry["created"].IsBool() && entry["created"].GetBool();
        if (entry.HasMember("stepsMsSinceBoot") &&
            !timesRead(entry["stepsMsSinceBoot"], device.stepsMs)) {
            return wrong(("the steps of " + device.name + " are not an object of numbers").c_str());
        }
        report.devices.push_back(std::move(device));
    }
    const rapidjson::Value* failures = member("failures");
    if (failures == nullptr || !failures->IsObject() || !failures->HasMember("texts") ||
        !(*failures)["texts"].IsArray()) {
        return wrong("\"failures\" has no \"texts\" array");
    }
    for (const rapidjson::Value& text : (*failures)["texts"].GetArray()) {
        if (!text.IsString()) {
            return wrong("a failure that is not a text");
        }
        report.failures.emplace_back(text.GetString(), text.GetStringLength());
    }
    spentOf(report);
    return true;
}

} // namespace Kestrune::Cli
