#pragma once

#include <map>
#include <string>
#include <vector>

namespace Kestrune::Testing {

// A restore in one order by `kestrune simulate`: its trace at the levels asked (each event is
// a level-9 line of it, and a command's pid is blanked), its failures, whether verify found the
// kernel as the plan has it, and the kernel state it left: each namespace's devices by name,
// without the operational state, which the kernel's link watch settles when it gets to it. (A
// device made in its namespace gets its index there: the kernel lists a namespace's devices in
// another order, which is all that differs.) A restore that ended the process or restored
// nothing leaves no report: only its status and trace are read.
struct OrderRun {
    std::vector<std::string> trace;
    std::vector<std::string> failures;
    std::map<std::string, std::map<std::string, std::string>> kernel;
    std::string order;
    bool verified = false;
    int status = -1;
    int tcRuns = 0;

    OrderRun(const std::string& store, const std::string& order,
             const std::string& traceLevels = "0-9");
};

// The two runs' kernel states differ: a line for each device that is not the same, "" when
// none is.
std::string kernelDifference(const OrderRun& expected, const OrderRun& found);

} // namespace Kestrune::Testing
