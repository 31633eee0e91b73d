#include "OrderRun.h"

#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <regex>

namespace Kestrune::Testing {

OrderRun::OrderRun(const std::string& store, const std::string& order,
                   const std::string& traceLevels) {
    TempDir dir;
    outputOf({KESTRUNE_CLI, "simulate", store, "--history", "", "--order", order, "--trace",
              traceLevels, "--trace-file", dir.file("trace.txt"), "--report",
              dir.file("report.json")},
             &status);
    static const std::regex pid(" pid [0-9]+");
    for (const std::string& line : linesOf(dir.file("trace.txt"))) {
        // The guards' line for each process started: the fast order starts no tc.
        if (line.find("runCommand started /sbin/tc ") != std::string::npos) {
            ++tcRuns;
            continue;
        }
        trace.push_back(std::regex_replace(line, pid, " pid N"));
    }
    if (status != 0 && status != 1) {
        return;
    }
    rapidjson::Document report;
    const std::string text = contentOf(dir.file("report.json"));
    if (report.Parse(text.c_str()).HasParseError()) {
        ADD_FAILURE() << text;
        return;
    }
    this->order = report["order"].GetString();
    verified = report.HasMember("verify") && report["verify"]["matches"].GetBool();
    for (const auto& failure : report["failures"]["texts"].GetArray()) {
        failures.emplace_back(failure.GetString());
    }
    for (auto& ns : report["kernel"].GetObject()) {
        for (auto& device : ns.value.GetArray()) {
            device.RemoveMember("operState");
            rapidjson::StringBuffer buffer;
            rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
            device.Accept(writer);
            kernel[ns.name.GetString()][device["name"].GetString()] = buffer.GetString();
        }
    }
}

std::string kernelDifference(const OrderRun& expected, const OrderRun& found) {
    std::string difference;
    const auto compare = [&](const OrderRun& one, const OrderRun& other, const char* which) {
        for (const auto& [ns, devices] : one.kernel) {
            const auto there = other.kernel.find(ns);
            for (const auto& [name, device] : devices) {
                if (there == other.kernel.end() || there->second.count(name) == 0) {
                    difference += ns + " " + name + " only in the " + which + " run\n";
                } else if (&one == &expected && there->second.at(name) != device) {
                    difference += ns + " " + name + ": " + device + " against " +
                                  there->second.at(name) + "\n";
                }
            }
        }
    };
    compare(expected, found, "first");
    compare(found, expected, "second");
    return difference;
}

} // namespace Kestrune::Testing
