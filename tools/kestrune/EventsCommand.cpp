#include "EventsCommand.h"

#include "log/HistoryStore.h"
#include "log/Log.h"
#include "util/Json.h"
#include "util/Text.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace Kestrune::Cli {

namespace {

struct EventsOptions {
    std::string history = Log::defaultHistoryPath;
    bool json = false;
    std::string since;
    std::vector<std::string> groups;
    std::size_t limit = 0;
};

// Seconds in an age's unit: its letter or its word, singular or plural ("h", "hour",
// "hours"); 0 for none.
double unitSeconds(std::string unit) {
    static const std::map<std::string, double> units{
        {"s", 1},     {"sec", 1},     {"second", 1}, {"m", 60},
        {"min", 60},  {"minute", 60}, {"h", 3600},   {"hour", 3600},
        {"d", 86400}, {"day", 86400}, {"w", 604800}, {"week", 604800}};
    if (unit.size() > 1 && unit.back() == 's' && units.count(unit) == 0) {
        unit.pop_back();
    }
    const auto found = units.find(unit);
    return found == units.end() ? 0 : found->second;
}

// The UTC time a --since text names, in seconds since the epoch: a date and time as the table
// prints them ("2026-11-21 09:51:53", the seconds or the whole time of day may be left out),
// or an age ("90s", "30m", "2h", "7d", "1 hour ago", "30 minutes ago"). std::invalid_argument
// for anything else.
double sinceTime(const std::string& text, double now) {
    std::istringstream words(text);
    double amount = -1;
    std::string unit;
    std::string ago;
    std::string rest;
    if (text.find('-') == std::string::npos && words >> amount && amount >= 0) {
        // "2h" or "2 hours ago": the unit follows the number, with or without a blank.
        words >> unit >> ago >> rest;
        const double seconds = unitSeconds(unit);
        if (seconds > 0 && (ago.empty() || ago == "ago") && rest.empty()) {
            return now - amount * seconds;
        }
    }
    for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm parts{};
        const char* end = strptime(text.c_str(), format, &parts);
        if (end != nullptr && *end == '\0') {
            return static_cast<double>(timegm(&parts));
        }
    }
    throw std::invalid_argument("'" + text +
                                "' is neither a UTC time such as \"2026-11-21 09:51:53\" nor an "
                                "age such as 30m, 2h, 7d or \"1 hour ago\"");
}

// The events the options select, oldest first: those since the time, of the groups, and of
// those the last `limit`.
std::vector<Event> selected(std::vector<Event> events, const EventsOptions& options) {
    const double since = options.since.empty()
                             ? 0
                             : sinceTime(options.since, static_cast<double>(std::time(nullptr)));
    const auto unwanted = [&](const Event& event) {
        return event.time < since ||
               (!options.groups.empty() && std::find(options.groups.begin(), options.groups.end(),
                                                     event.group) == options.groups.end());
    };
    events.erase(std::remove_if(events.begin(), events.end(), unwanted), events.end());
    if (options.limit > 0 && events.size() > options.limit) {
        events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(options.limit));
    }
    return events;
}

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
    CLI::Option* history =
        command->add_option("--history", options->history, "The event history file to read")
            ->capture_default_str();
    command->add_flag("--json", options->json,
                      "Print a JSON array of {time, persistence, agent, group, message}");
    command
        ->add_option("--since", options->since,
                     "Only events at or after this UTC time (\"2026-11-21 09:51:53\", or a date) "
                     "or within this age (90s, 30m, 2h, 7d)")
        ->check(CLI::Validator(
            [](const std::string& text) {
                try {
                    sinceTime(text, 0);
                    return std::string();
                } catch (const std::invalid_argument& e) {
                    return std::string(e.what());
                }
            },
            "TIME|AGE"));
    command->add_option("--group", options->groups,
                        "Only events of this group, e.g. Driver or Assertion (repeatable)");
    command->add_option("--limit", options->limit, "Only the last N of the selected events")
        ->check(CLI::PositiveNumber);
    command->callback([options, history, &status] {
        std::error_code missing;
        // A switch that has not restored yet has no history: that is no events, not a fault.
        // A file named on the command line must be there.
        if (history->count() == 0 && !std::filesystem::exists(options->history, missing)) {
            std::cout << "no events recorded yet (" << options->history << " does not exist)\n";
            status = 0;
            return;
        }
        std::vector<Event> events;
        std::vector<std::string> leftAlone;
        try {
            events = selected(HistoryStore::historyOf(options->history, &leftAlone), *options);
            for (const std::string& problem : leftAlone) {
                std::cerr << "kestrune events: " << problem << '\n';
            }
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
