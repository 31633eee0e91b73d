#include "state/FilterRules.h"

#include "parser/StoreFile.h"
#include "state/KernelState.h"
#include "util/Command.h"
#include "util/Json.h"
#include "util/Namespace.h"
#include "util/RestoreGuards.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <rapidjson/pointer.h>
#include <sched.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune {

namespace {

constexpr int toolTimeoutMs = 10000;

// A filter tool's bound: never past the process's command deadline (a rehearsal's may be
// short), nor long when that is lifted.
int toolTimeout() {
    const int deadline = restoreGuards().commandDeadlineMs;
    return deadline > 0 ? std::min(deadline, toolTimeoutMs) : toolTimeoutMs;
}

// An anonymous file: a tool's input or output of any size, with no pipe to keep drained.
class MemoryFile {
  public:
    MemoryFile() : fd_(memfd_create("kestrune-rules", MFD_CLOEXEC)) {}
    ~MemoryFile() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int fd() const { return fd_; }
    bool holds(std::string_view text) const {
        std::size_t written = 0;
        while (written < text.size()) {
            const auto n = write(fd_, text.data() + written, text.size() - written);
            if (n <= 0) {
                return false;
            }
            written += static_cast<std::size_t>(n);
        }
        return lseek(fd_, 0, SEEK_SET) == 0;
    }
    std::string text() const {
        std::string text;
        char buffer[8192];
        ssize_t n = 0;
        for (off_t at = 0; (n = pread(fd_, buffer, sizeof buffer, at)) > 0; at += n) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
        return text;
    }
    // The first line, for a message.
    std::string firstLine() const {
        const std::string all = text();
        return all.substr(0, all.find('\n'));
    }

  private:
    int fd_;
};

std::string failure(const char* tool, int status, const MemoryFile& errors) {
    const std::string said = errors.firstLine();
    return std::string(tool) +
           (status < 0 ? " could not be run" : " exited with " + std::to_string(status)) +
           (said.empty() ? "" : ": " + said);
}

// What a scratch child's exit status says went wrong.
enum ScratchExit {
    loaded = 0,
    noNamespace = 3,
    restoreFailed = 4,
    saveFailed = 5,
    restoreNotRun = 6
};

} // namespace

std::map<std::string, RuleTable> ruleTablesOf(std::string_view saved) {
    std::map<std::string, RuleTable> tables;
    RuleTable* table = nullptr;
    std::istringstream lines{std::string(saved)};
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#' || line == "COMMIT") {
            continue;
        }
        if (line[0] == '*') {
            table = &tables[line.substr(1)];
        } else if (table != nullptr && line[0] == ':') {
            std::istringstream words(line.substr(1));
            std::string chain;
            std::string policy;
            words >> chain >> policy;
            table->policies[chain] = policy;
        } else if (table != nullptr) {
            table->rules.push_back(line);
        }
    }
    return tables;
}

std::optional<std::string> rulesInForce(const RuleFamily& family, std::string& problem) {
    std::optional<NamespaceVisit> visit;
    defaultNamespaceVisit(visit, "verify");
    if (visit && !visit->entered()) {
        problem = "cannot enter the default namespace";
        return std::nullopt;
    }
    const MemoryFile out;
    const MemoryFile errors;
    const int status =
        runCommand(family.save, commandDiscard, out.fd(), errors.fd(), toolTimeout());
    if (status != 0) {
        problem = failure(family.save, status, errors);
        return std::nullopt;
    }
    return out.text();
}

LoadedRules rulesAsLoaded(const RuleFamily& family, const std::string& text) {
    LoadedRules result;
    const MemoryFile in;
    const MemoryFile out;
    const MemoryFile errors;
    if (in.fd() < 0 || out.fd() < 0 || errors.fd() < 0 || !in.holds(text)) {
        result.problem = std::string("cannot hold the stored rules: ") + std::strerror(errno);
        return result;
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(noNamespace);
        }
        const int restored =
            runCommand(family.restore, in.fd(), commandDiscard, errors.fd(), toolTimeout());
        if (restored != 0) {
            _exit(restored < 0 ? restoreNotRun : restoreFailed);
        }
        _exit(runCommand(family.save, commandDiscard, out.fd(), errors.fd(), toolTimeout()) == 0
                  ? loaded
                  : saveFailed);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        result.problem = "cannot load the stored rules in a scratch namespace";
        return result;
    }
    switch (WEXITSTATUS(status)) {
    case loaded:
        result.outcome = LoadedRules::Outcome::loaded;
        result.saved = out.text();
        break;
    case restoreFailed:
        result.outcome = LoadedRules::Outcome::rejected;
        result.problem = std::string(family.restore) + ": " + errors.firstLine();
        break;
    case noNamespace:
        result.problem = "cannot make a scratch network namespace (run it as root)";
        break;
    case restoreNotRun:
        result.problem =
            std::string(family.restore) + " could not be run, or ran past its deadline";
        break;
    default:
        result.problem = std::string(family.save) + " failed: " + errors.firstLine();
        break;
    }
    return result;
}

std::vector<StoreProblem> ruleTextProblemsOf(const std::string& storeText) {
    std::vector<StoreProblem> problems;
    rapidjson::Document store;
    std::string reason;
    if (!StoreFile::doParse(storeText, store, reason)) {
        return problems;
    }
    for (const RuleFamily* family : {&ipv4Rules, &ipv6Rules}) {
        const std::string pointer = std::string("/Sabrel/") + family->name;
        const rapidjson::Value* text = rapidjson::Pointer(pointer.c_str()).Get(store);
        if (!text || !text->IsString() || text->GetStringLength() == 0) {
            continue;
        }
        if (geteuid() != 0) {
            problems.push_back({pointer,
                                std::string("not checked: loading the rules into a scratch "
                                            "network namespace takes root"),
                                Consequence::Warning});
            continue;
        }
        const LoadedRules loaded =
            rulesAsLoaded(*family, std::string(text->GetString(), text->GetStringLength()));
        if (loaded.outcome == LoadedRules::Outcome::rejected) {
            problems.push_back({pointer,
                                "refused by " + loaded.problem + ": the rules are not restored",
                                Consequence::SkipsSection});
        } else if (loaded.outcome == LoadedRules::Outcome::failed) {
            problems.push_back({pointer, "not checked: " + loaded.problem, Consequence::Warning});
        }
    }
    return problems;
}

} // namespace Kestrune
