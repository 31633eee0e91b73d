#include "RestoreRun.h"

#include "driver/DriverCreator.h"
#include "log/Log.h"
#include "util/Json.h"
#include "util/KernelName.h"
#include "util/Trace.h"

#include <chrono>

namespace Kestrune::Cli {
namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

} // namespace

RestoreReport runRestore(const std::function<ConfigParser::Ptr()>& parserOf,
                         const std::function<void(const Config&)>& parsed) {
    RestoreReport report;
    const auto timed = [&report](const char* phase, const std::function<void()>& work) {
        const auto start = Clock::now();
        work();
        report.phasesMs.emplace_back(phase, msSince(start));
    };
    const auto start = Clock::now();
    Config::Ptr config;
    timed("parse", [&] {
        if (const ConfigParser::Ptr parser = parserOf()) {
            config = parser->parse();
        }
    });
    // From here on every event is a failure. The parser also records an event for each added
    // subinterface, so its events stay in the history and traces only.
    Log::observerIs([&report](const std::string& group, const std::string& message) {
        report.failures.push_back(group + ": " + message);
    });
    Driver::Ptr driver;
    if (config) {
        report.platformType = config->platformType();
        if (parsed) {
            parsed(*config);
        }
        timed("init", [&] {
            driver = DriverCreator(config).create();
            report.initialized = driver && driver->doInit();
        });
    }
    report.started = driver != nullptr;
    if (report.started && report.initialized) {
        // doCreateKernelInterfaces, one step at a time so that each is timed.
        TRACE(3) << "doCreateKernelInterfaces";
        timed("create", [&] { driver->createIntfsInDefaultNs(); });
        timed("move", [&] { driver->moveIntfsToCorrectNs(); });
        timed("configure", [&] { driver->configureIntfsInNs(); });
        timed("filterRules", [&] { driver->configureIptablesRules(); });
    }
    report.phasesMs.emplace_back("total", msSince(start));
    if (config) {
        for (const auto& [name, intf] : config->interface()) {
            report.interfaces.push_back({name, kernelIntfName(name),
                                         std::string(stringValue(intf->interfaceType())),
                                         intf->netNsName(), driver && driver->created(name)});
        }
    }
    Log::observerIs({});
    return report;
}

std::string RestoreReport::json(const std::string& extraName, const std::string& extraJson) const {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("ok");
    writer.Bool(ok());
    writer.Key("platformType");
    writer.String(platformType.c_str());
    writer.Key("phasesMs");
    writer.StartObject();
    for (const auto& [name, ms] : phasesMs) {
        writer.Key(name.c_str());
        writer.Double(ms);
    }
    writer.EndObject();
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
    if (!extraName.empty()) {
        writer.Key(extraName.c_str());
        writer.RawValue(extraJson.c_str(), extraJson.size(), rapidjson::kObjectType);
    }
    writer.EndObject();
    return buffer.GetString();
}

} // namespace Kestrune::Cli
