#include "RestoreState.h"

#include "util/Json.h"
#include "util/OutputFile.h"
#include "util/Stop.h"

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <signal.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <type_traits>
#include <unistd.h>

namespace Kestrune::Cli {
namespace {

// 2304 -> "2,304".
std::string grouped(std::size_t number) {
    std::string digits = std::to_string(number);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), ",");
    }
    return digits;
}

std::string seconds(double ms) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << ms / 1000 << " s";
    return out.str();
}

std::string firstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// Whether the process is alive and is a kestrune: a pid from a state is reused once its
// process is gone.
bool kestruneRuns(long pid) {
    if (pid <= 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)) {
        return false;
    }
    return firstLine("/proc/" + std::to_string(pid) + "/comm") == "kestrune";
}

} // namespace

std::string thisBootId() {
    return firstLine("/proc/sys/kernel/random/boot_id");
}

RestoreState RestoreState::started() {
    RestoreState state;
    state.state = "running";
    state.bootId = thisBootId();
    state.pid = static_cast<long>(getpid());
    state.startedMs = msSinceBoot();
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32] = {};
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    state.startedAt = text;
    return state;
}

RestoreState RestoreState::ended(const RestoreState& start, const RestoreReport& report,
                                 const std::string& reportPath) {
    RestoreState state = start;
    state.state = report.stoppedBy != 0 ? "stopped" : report.ok() ? "done" : "failed";
    state.endedMs = report.endedMs;
    state.exitStatus = report.exitStatus();
    state.interfaces = report.interfaces.size();
    state.made = 0;
    for (const auto& intf : report.interfaces) {
        state.made += intf.created ? 1 : 0;
    }
    state.failures = report.failures.size();
    state.report = reportPath;
    return state;
}

std::string RestoreState::json() const {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("state");
    writer.String(state);
    writer.Key("bootId");
    writer.String(bootId);
    writer.Key("pid");
    writer.Int64(pid);
    writer.Key("startedAt");
    writer.String(startedAt);
    writer.Key("startedMsSinceBoot");
    writer.Double(startedMs);
    writer.Key("endedMsSinceBoot");
    endedMs < 0 ? writer.Null() : writer.Double(endedMs);
    writer.Key("exitStatus");
    exitStatus < 0 ? writer.Null() : writer.Int(exitStatus);
    writer.Key("interfaces");
    writer.Uint64(interfaces);
    writer.Key("made");
    writer.Uint64(made);
    writer.Key("failures");
    writer.Uint64(failures);
    writer.Key("report");
    report.empty() ? writer.Null() : writer.String(report);
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

bool restoreStateRead(const std::string& path, RestoreState& state, std::string& problem) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        problem = errno == ENOENT ? "no restore has run in this boot (" + path + " is missing)"
                                  : "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        problem = "cannot read " + path + ": it is not a regular file";
        return false;
    }
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document document;
    const std::string json = text.str();
    document.Parse(json.c_str(), json.size());
    const auto member = [&](const char* key) -> const rapidjson::Value* {
        if (!document.IsObject()) {
            return nullptr;
        }
        const auto found = document.FindMember(key);
        return found == document.MemberEnd() ? nullptr : &found->value;
    };
    const rapidjson::Value* stateValue = member("state");
    const rapidjson::Value* boot = member("bootId");
    if (document.HasParseError() || stateValue == nullptr || !stateValue->IsString() ||
        boot == nullptr || !boot->IsString()) {
        problem = path + " is not a restore's state (it needs \"state\" and \"bootId\" texts)";
        return false;
    }
    state.state = stateValue->GetString();
    state.bootId = boot->GetString();
    const auto number = [&](const char* key, auto& into) {
        if (const rapidjson::Value* value = member(key); value != nullptr && value->IsNumber()) {
            into = static_cast<std::remove_reference_t<decltype(into)>>(value->GetDouble());
        }
    };
    number("pid", state.pid);
    number("startedMsSinceBoot", state.startedMs);
    number("endedMsSinceBoot", state.endedMs);
    number("exitStatus", state.exitStatus);
    number("interfaces", state.interfaces);
    number("made", state.made);
    number("failures", state.failures);
    if (const rapidjson::Value* value = member("startedAt");
        value != nullptr && value->IsString()) {
        state.startedAt = value->GetString();
    }
    if (const rapidjson::Value* value = member("report"); value != nullptr && value->IsString()) {
        state.report = value->GetString();
    }
    return true;
}

bool restoreStateWritten(const std::string& path, const RestoreState& state) {
    if (path == defaultStatePath) {
        mkdir("/run/kestrune", 0755); // else there already, or the write below says why
    }
    return fileReplaced(path, state.json());
}

std::string statusLine(const RestoreReport& report) {
    if (!report.started) {
        return "Could not start: no store of a known platform";
    }
    std::size_t made = 0;
    for (const auto& intf : report.interfaces) {
        made += intf.created ? 1 : 0;
    }
    double total = 0;
    for (const auto& [phase, ms] : report.phasesMs) {
        if (phase == "total") {
            total = ms;
        }
    }
    std::string line =
        (report.stoppedBy != 0 ? "Stopped by " + signalName(report.stoppedBy) + " after restoring "
                               : std::string("Restored ")) +
        grouped(made) + " of " + grouped(report.interfaces.size()) + " interfaces in " +
        seconds(total) + ", " + grouped(report.failures.size()) + " failure" +
        (report.failures.size() == 1 ? "" : "s");
    return line;
}

std::string progressLine(const char* phase, std::size_t done, std::size_t of) {
    std::string line = std::string("Restoring: ") + phase;
    if (of > 0) {
        line += ", " + grouped(done) + " of " + grouped(of) + " interfaces";
    }
    return line;
}

void serviceStatusIs(const std::string& line) {
    const char* socketPath = std::getenv("NOTIFY_SOCKET");
    if (socketPath == nullptr || (socketPath[0] != '/' && socketPath[0] != '@')) {
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(socketPath);
    if (length >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, socketPath, length);
    if (socketPath[0] == '@') {
        address.sun_path[0] = '\0'; // an abstract socket
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    const std::string message = "STATUS=" + line;
    // Nothing to do when the manager does not hear: the status line is a courtesy.
    (void)sendto(fd, message.data(), message.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(fd);
}

void addStatusCommand(CLI::App& app, int& status) {
    struct Options {
        std::string state = defaultStatePath;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "status", "Say whether the restore is done in this boot, from the state it leaves: "
                  "exit 0 it ended without failures in this boot, 1 it is running, failed, was "
                  "stopped or the state is an earlier boot's, 2 there is no state to read");
    command->add_option("--state", options->state, "The restore's state file")
        ->capture_default_str();
    command->add_flag("--json", options->json, "Print the state as it is, one JSON object");
    command->callback([options, &status] {
        RestoreState state;
        std::string problem;
        if (!restoreStateRead(options->state, state, problem)) {
            std::cerr << "kestrune status: " << problem << "\n";
            status = 2;
            return;
        }
        const bool thisBoot = !state.bootId.empty() && state.bootId == thisBootId();
        // A restore that says it runs but whose process is gone was killed outright.
        const bool killed = thisBoot && state.state == "running" && !kestruneRuns(state.pid);
        status = thisBoot && state.state == "done" ? 0 : 1;
        if (options->json) {
            std::cout << state.json();
            return;
        }
        std::cout << "Restore: " << state.state;
        if (!thisBoot) {
            std::cout << ", in an earlier boot (" << state.bootId
                      << "): no restore has ended in this one";
        } else if (killed) {
            std::cout << ", but its process " << state.pid
                      << " is gone: it was killed before it ended";
        }
        std::cout << "\nStarted: " << state.startedAt << ", " << seconds(state.startedMs)
                  << " after boot, process " << state.pid << "\n";
        if (state.endedMs >= 0) {
            std::cout << "Ended: " << seconds(state.endedMs) << " after boot, in "
                      << seconds(state.endedMs - state.startedMs) << ", exit status "
                      << state.exitStatus << "\n"
                      << "Interfaces: " << grouped(state.made) << " of "
                      << grouped(state.interfaces) << " made, " << grouped(state.failures)
                      << " failure" << (state.failures == 1 ? "" : "s") << "\n";
        }
        if (!state.report.empty()) {
            std::cout << "Report: " << state.report << "\n";
        }
    });
}

} // namespace Kestrune::Cli
