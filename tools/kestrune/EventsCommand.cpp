#include "EventsCommand.h"

#include "log/HistoryStore.h"
#include "log/Log.h"
#include "util/Json.h"
#include "util/Text.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iostream>
#include <memory>

namespace Kestrune::Cli {

namespace {

struct EventsOptions {
    std::string history = Log::defaultHistoryPath;
    bool json = false;
};

// 2026-11-21 09:51:53.123
std::string utcText(double seconds) {
    auto whole = static_cast<std::time_t>(std::floor(seconds));
    auto millis = static_cast<int>((seconds - static_cast<double>(whole)) * 1000);
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char text[32];
    std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text + size, sizeof text - size, ".%03d", millis);
    return text;
}

void printTable(const std::vector<Event>& events) {
    std::size_t groupWidth = 0;
    for (const Event& event : events) {
        groupWidth = std::max(groupWidth, event.group.size());
    }
    for (const Event& event : events) {
        std::cout << utcText(event.time) << "  " << escapedText(event.group)
                  << std::string(groupWidth - event.group.size() + 2, ' ')
                  << escapedText(event.message) << '\n';
    }
}

void printJson(const std::vector<Event>& events) {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartArray();
    for (const Event& event : events) {
        writer.StartObject();
        writer.Key("time");
        writer.Double(event.time);
        writer.Key("persistence");
        writer.String(event.persistence);
        writer.Key("agent");
        writer.String(event.agent);
        writer.Key("group");
        writer.String(event.group);
        writer.Key("message");
        writer.String(event.message);
        writer.EndObject();
    }
    writer.EndArray();
    std::cout << buffer.GetString() << '\n';
}

} // namespace

void addEventsCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<EventsOptions>();
    CLI::App* command = app.add_subcommand(
        "events", "Print the event history: what the restores of this switch recorded");
    command->add_option("--history", options->history, "The event history file to read")
        ->capture_default_str();
    command->add_flag("--json", options->json,
                      "Print a JSON array of {time, persistence, agent, group, message}");
    command->callback([options, &status] {
        std::vector<Event> events;
        try {
            events = HistoryStore::historyOf(options->history);
        } catch (const std::runtime_error& e) {
            std::cerr << "kestrune events: " << e.what() << '\n';
            status = 1;
            return;
        }
        options->json ? printJson(events) : printTable(events);
        status = 0;
    });
}

} // namespace Kestrune::Cli
