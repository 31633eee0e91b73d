#include "state/Verification.h"

#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "parser/StoreCheck.h"
#include "parser/StoreFile.h"
#include "platform/ChipDevice.h"
#include "state/ExpectedState.h"
#include "state/FilterRules.h"
#include "state/KernelState.h"
#include "util/Assert.h"
#include "util/Json.h"
#include "util/Namespace.h"
#include "util/RestoreGuards.h"

namespace Kestrune {

namespace {

std::size_t ruleCount(const std::map<std::string, RuleTable>& tables) {
    std::size_t count = 0;
    for (const auto& [name, table] : tables) {
        count += table.rules.size();
    }
    return count;
}

// Compares one family's stored rules with those in force; false when either cannot be read.
bool rulesCompared(const RuleFamily& family, const std::string& stored, Verification& result) {
    if (stored.empty()) {
        return true;
    }
    const LoadedRules loaded = rulesAsLoaded(family, stored);
    if (loaded.outcome == LoadedRules::Outcome::rejected) {
        // Rules the filter refuses cannot be in force: that is drift, not a failure to read.
        result.drift.push_back({std::string(DEFAULT_NS), family.name, "rules", "loadable",
                                "rejected by " + loaded.problem});
        return true;
    }
    if (loaded.outcome == LoadedRules::Outcome::failed) {
        result.problem = loaded.problem;
        return false;
    }
    std::string problem;
    const auto inForce = rulesInForce(family, problem);
    if (!inForce) {
        result.problem = problem;
        return false;
    }
    const auto expected = ruleTablesOf(loaded.saved);
    result.rules += ruleCount(expected);
    const auto drift = ruleDrift(family, expected, ruleTablesOf(*inForce));
    result.drift.insert(result.drift.end(), drift.begin(), drift.end());
    return true;
}

} // namespace

Verification verification(const Config& config) {
    // Reading is not restoring: a filter tool killed past its deadline here is no event of
    // the switch's.
    const Log::Capture notRecorded;
    Verification result;
    const ExpectedState expected =
        expectedState(config, simulatedSwitch(), restoreGuards().valueRanges);
    const std::vector<NamespaceState> kernel = kernelState();
    if (kernel.empty() || kernel.front().name != DEFAULT_NS) {
        result.problem = "cannot read the default network namespace over rtnetlink";
        return result;
    }
    result.devices = expected.devices.size();
    result.namespaces = expected.namespaces.size() + 1;
    result.drift = deviceDrift(expected, kernel);
    result.read = rulesCompared(ipv4Rules, expected.iptables, result) &&
                  rulesCompared(ipv6Rules, expected.ip6tables, result);
    return result;
}

Config::Ptr storeModel(const std::string& path, std::string& problem) {
    std::string bytes;
    std::string reason;
    if (StoreFile::doRead(path, bytes, reason) != StoreFile::Outcome::Read) {
        problem = "cannot read the store: " + reason;
        return nullptr;
    }
    for (const StoreProblem& found : StoreCheck::problemsOf(bytes)) {
        if (found.consequence >= Consequence::NoRestore) {
            problem = std::string(found.consequence == Consequence::EndsProcess
                                      ? "a restore of this store ends the process: "
                                      : "this store gives no restore: ") +
                      (found.pointer.empty() ? "" : found.pointer + ": ") + found.message;
            return nullptr;
        }
    }
    rapidjson::Document document;
    StoreFile::doParse(bytes, document, reason);
    Config::Ptr config;
    {
        const Log::Capture notRecorded;
        // What the checker cannot foresee still must not end a process that only reads.
        const AssertionsThrow assertionsThrow;
        try {
            if (const auto parser = configParserCreatorFactory()->createFromDocument(document)) {
                config = parser->parse();
            }
        } catch (const AssertionFailure& failure) {
            problem = std::string("a restore of this store ends the process: ") + failure.what();
        }
    }
    if (!config && problem.empty()) {
        problem = "this store gives no restore";
    }
    return config;
}

Verification verificationOfStore(const std::string& path) {
    Verification result;
    const Config::Ptr config = storeModel(path, result.problem);
    return config ? verification(*config) : result;
}

std::string Verification::json() const {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("matches");
    writer.Bool(read && drift.empty());
    if (!read) {
        writer.Key("error");
        writer.String(problem.c_str());
    }
    writer.Key("devices");
    writer.Uint64(devices);
    writer.Key("namespaces");
    writer.Uint64(namespaces);
    writer.Key("rules");
    writer.Uint64(rules);
    writer.Key("drift");
    writer.StartArray();
    for (const Drift& d : drift) {
        writer.StartObject();
        for (const auto& [key, value] : {std::pair{"namespace", &d.ns},
                                         {"device", &d.device},
                                         {"check", &d.item},
                                         {"expected", &d.expected},
                                         {"found", &d.found}}) {
            writer.Key(key);
            writer.String(value->c_str());
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    return buffer.GetString();
}

std::string Verification::text() const {
    if (!read) {
        return "The kernel could not be read: " + problem + "\n";
    }
    const std::string checked = std::to_string(devices) + " devices in " +
                                std::to_string(namespaces) + " namespaces, " +
                                std::to_string(rules) + " filter rules";
    if (drift.empty()) {
        return "The kernel matches the store: " + checked + ".\n";
    }
    return driftTable(drift) + std::to_string(drift.size()) +
           (drift.size() == 1 ? " difference" : " differences") + " from the store (" + checked +
           " checked).\n";
}

} // namespace Kestrune
