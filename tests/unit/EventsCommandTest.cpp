#include "Scenario.h"
#include "log/EventLogQueue.h"
#include "log/HistoryStore.h"

#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Kestrune {
namespace {

using Testing::TempDir;

// A history holding these events, each at its time (UTC seconds).
std::string historyWith(const TempDir& dir, const std::vector<Event>& events) {
    const std::string path = dir.file("history.db");
    const EventLogQueue::Ptr queue = eventLogQueueFactory();
    for (const Event& event : events) {
        queue->eventIs(event);
    }
    HistoryStore store(queue, path);
    EXPECT_TRUE(store.doRestore());
    EXPECT_TRUE(store.doStore());
    return path;
}

Event event(const char* group, double time, const char* message) {
    return eventFactory("persistent", "Kestrune", group, time, message);
}

// The messages `kestrune events` prints with these options, one per line.
std::vector<std::string> messagesShown(const std::string& history, const std::string& options,
                                       int* status) {
    const std::string table = Testing::shellOutput(
        std::string(KESTRUNE_CLI) + " events --history " + history + " " + options + " 2>&1",
        status);
    std::vector<std::string> messages;
    for (std::size_t start = 0; start < table.size();) {
        const std::size_t end = table.find('\n', start);
        const std::string line = table.substr(start, end - start);
        messages.push_back(line.substr(line.rfind("  ") + 2));
        start = end == std::string::npos ? table.size() : end + 1;
    }
    return messages;
}

TEST(EventsCommand, SelectsBySinceGroupAndLimit) {
    TempDir dir;
    const auto now = static_cast<double>(std::time(nullptr));
    // 2026-11-20 10:00:00, 2026-11-21 09:00:00 and 12:00:00 UTC, then two recent ones.
    const std::string history =
        historyWith(dir, {event("Driver", 1795168800, "a"), event("Assertion", 1795251600, "b"),
                          event("Driver", 1795262400, "c"), event("Namespace", now - 7200, "d"),
                          event("Driver", now - 60, "e")});
    struct Case {
        const char* options;
        std::vector<std::string> shown;
    };
    const Case cases[] = {
        {"", {"a", "b", "c", "d", "e"}},
        {"--group Driver", {"a", "c", "e"}},
        {"--group Driver --group Assertion", {"a", "b", "c", "e"}},
        {"--group Nobody", {}},
        {"--since 2026-11-21", {"b", "c", "d", "e"}},
        {"--since '2026-11-21 09:00:01'", {"c", "d", "e"}},
        {"--since '2026-11-21 12:00'", {"c", "d", "e"}},
        {"--since 1h", {"e"}},
        {"--since 3h --group Namespace", {"d"}},
        {"--since '1 hour ago'", {"e"}},
        {"--since '3 hours ago' --group Namespace", {"d"}},
        {"--since '90 min'", {"e"}},
        {"--limit 2", {"d", "e"}},
        {"--group Driver --limit 2", {"c", "e"}},
        {"--limit 9", {"a", "b", "c", "d", "e"}},
    };
    for (const Case& c : cases) {
        int status = -1;
        EXPECT_EQ(messagesShown(history, c.options, &status), c.shown) << c.options;
        EXPECT_EQ(status, 0) << c.options;
    }
}

TEST(EventsCommand, ASinceOrLimitThatDoesNotParseIsBadUsage) {
    TempDir dir;
    const std::string history = historyWith(dir, {event("Driver", 1795168800, "a")});
    for (const char* options : {"--since yesterday", "--since 5x", "--since 2026-13-40",
                                "--since -3h", "--since '1 hour later'", "--since 'an hour ago'",
                                "--since '2 hours ago now'", "--limit 0", "--limit many"}) {
        int status = -1;
        const std::string output = Testing::shellOutput(
            std::string(KESTRUNE_CLI) + " events --history " + history + " " + options + " 2>&1",
            &status);
        EXPECT_EQ(status, 2) << options << ": " << output;
    }
    int status = -1;
    const std::string output = Testing::shellOutput(
        std::string(KESTRUNE_CLI) + " events --history " + history + " --since soon 2>&1", &status);
    EXPECT_NE(output.find("'soon' is neither a UTC time such as \"2026-11-21 09:51:53\" nor an "
                          "age such as 30m, 2h, 7d or \"1 hour ago\""),
              std::string::npos)
        << output;
}

} // namespace
} // namespace Kestrune
