#include "CliRun.h"

#include "Scenario.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Kestrune::Testing {

namespace {

// Counts the lines with the marker in what the file has grown by since the last look.
class TraceWatch {
  public:
    TraceWatch(const std::string& path, const std::string& marker) : path_(path), marker_(marker) {}
    int seen() {
        std::ifstream file(path_, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset_));
        for (std::string line; std::getline(file, line);) {
            if (file.eof()) {
                break; // a line still being written
            }
            offset_ += line.size() + 1;
            count_ += line.find(marker_) != std::string::npos ? 1 : 0;
        }
        return count_;
    }

  private:
    std::string path_;
    std::string marker_;
    std::size_t offset_ = 0;
    int count_ = 0;
};

} // namespace

CliResult runCli(const CliRun& run) {
    std::vector<std::string> words{KESTRUNE_CLI};
    words.insert(words.end(), run.args.begin(), run.args.end());
    words.insert(words.end(), {"--trace", "0-9", "--trace-file", run.traceFile});
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const std::string path = run.toolsFirst.empty() ? std::string(std::getenv("PATH"))
                                                    : run.toolsFirst + ":" + std::getenv("PATH");
    std::ofstream(run.traceFile).close();
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        setenv("PATH", path.c_str(), 1);
        if (freopen("/dev/null", "w", stdout) == nullptr ||
            freopen("/dev/null", "w", stderr) == nullptr) {
            _exit(126);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    CliResult result;
    int status = 0;
    TraceWatch watch(run.traceFile, run.marker);
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (run.signal != 0 && !result.faulted && watch.seen() >= run.markerCount) {
            kill(child, run.signal);
            result.faulted = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    result.ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    for (std::string& line : linesOf(run.traceFile)) {
        (line.rfind(recordedTrace, 0) == 0 ? result.recorded : result.traces)
            .push_back(std::move(line));
    }
    return result;
}

void writeTool(const std::string& path, const std::string& body) {
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), 0755);
}

} // namespace Kestrune::Testing
