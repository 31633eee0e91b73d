#pragma once

#include <string>
#include <vector>

namespace Kestrune::Testing {

// One run of the kestrune command line as a process of its own, with every trace level on
// and written to a file as it happens, so a test can end it at a chosen point and compare
// what the process said it recorded with what the disk holds.
struct CliRun {
    std::vector<std::string> args; // after "kestrune"
    std::string traceFile;
    std::string toolsFirst; // a folder of stand-in tools put first on PATH, or ""
    // The fault: once the trace holds markerCount lines containing marker, send signal.
    std::string marker;
    int markerCount = 1;
    int signal = 0;
};

struct CliResult {
    bool exited = false;
    int exitCode = -1;
    int signal = 0;
    double ms = 0;
    bool faulted = false;              // the marker was seen and the signal sent
    std::vector<std::string> recorded; // the "logEvent" trace line of each recorded event
    std::vector<std::string> traces;   // every other trace line
};

CliResult runCli(const CliRun& run);

// Writes an executable shell script (a stand-in for a tool the restore runs).
void writeTool(const std::string& path, const std::string& body);

} // namespace Kestrune::Testing
