#include "Scenario.h"

#include "log/HistoryStore.h"
#include "log/Log.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune::Testing {

namespace {
// No test may touch the host's event history, even one that records an event by accident.
const bool hostHistoryUntouched = [] {
    Log::historyPathIs("");
    return true;
}();
// The tiers test the library as the command line drives it, with every guard on but the stop
// on signals, which a test installs itself; a test of the library's defaults sets
// RestoreGuards{} for its own process.
const bool guardedLibrary = [] {
    RestoreGuards guards = RestoreGuards::all();
    guards.stopGraceSeconds = 0;
    restoreGuardsIs(guards);
    return true;
}();
} // namespace

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-test-XXXXXX");
    path_ = mkdtemp(pattern.data());
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ / name, std::ios::binary) << content;
}

const std::string recordedTrace = "Kestrune:9 logEvent ";

Outcome runProcess(const TempDir& dir, const std::function<void()>& body) {
    const std::string history = dir.file("history.db");
    const std::string traces = dir.file("trace.txt");
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        Log::historyPathIs(history);
        Trace::levelsIs(Trace::allLevels);
        Trace::sinkIs(Trace::streamSink(std::fopen(traces.c_str(), "w")));
        body();
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);

    Outcome outcome;
    outcome.exited = WIFEXITED(status);
    outcome.exitCode = outcome.exited ? WEXITSTATUS(status) : -1;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    std::ifstream traceFile(traces);
    for (std::string line; std::getline(traceFile, line);) {
        (line.rfind(recordedTrace, 0) == 0 ? outcome.recorded : outcome.traces).push_back(line);
    }
    if (std::filesystem::exists(history)) {
        outcome.events = HistoryStore::historyOf(history);
    }
    return outcome;
}

std::vector<std::string> messagesOf(const std::vector<Event>& events) {
    std::vector<std::string> messages;
    for (const Event& event : events) {
        messages.push_back(event.group + ": " + event.message);
    }
    return messages;
}

std::vector<std::string> linesOf(const std::string& path, char separator) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line, separator);) {
        lines.push_back(line);
    }
    return lines;
}

std::string firstLineOf(const std::string& path) {
    const std::vector<std::string> lines = linesOf(path);
    return lines.empty() ? std::string() : lines.front();
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

bool anyContains(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string shellOutput(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> chunk{};
    for (std::size_t n; (n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
        output.append(chunk.data(), n);
    }
    int result = pclose(pipe);
    *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    return output;
}

} // namespace Kestrune::Testing
