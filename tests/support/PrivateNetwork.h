#pragma once

#include "state/KernelState.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace Kestrune::Testing {

// Gives each test a network namespace and a mount namespace of its own, with a fresh /run, so
// devices, addresses, named namespaces and filter rules made by the test never touch the host
// and vanish with the test. Needs root; without it the test fails and says why.
class PrivateNetwork : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Trace lines of every level written while the test ran.
    const std::vector<std::string>& traces() const { return *traces_; }
    bool traced(const std::string& line) const;

  private:
    std::shared_ptr<std::vector<std::string>> traces_ =
        std::make_shared<std::vector<std::string>>();
};

// What `ip -j` reports of one device, read back from the kernel.
struct Address {
    std::string family; // "inet", "inet6"
    std::string local;
    int prefixLength = 0;
    bool secondary = false;
};

struct Link {
    std::string name;
    int mtu = 0;
    std::string mac;
    std::vector<std::string> flags;
    std::string operState;
    std::string kind;   // "vlan", "tun", "veth" ...
    std::string parent; // the device a VLAN sits on
    int vlanId = -1;
    std::vector<Address> addresses;

    bool hasFlag(const std::string& flag) const;
    const Address* address(const std::string& local) const;
};

// The device in the named namespace ("" for the thread's own), or nothing when it is not there.
std::optional<Link> linkOf(const std::string& name, const std::string& ns = "");
// The names of the devices in the named namespace ("" for the thread's own).
std::vector<std::string> linkNames(const std::string& ns = "");
// Runs an argv without a shell and returns its standard output; the exit status to `status`
// (128 + the signal for one a signal ended, as the shell says it).
std::string outputOf(const std::vector<std::string>& argv, int* status = nullptr);
// Runs an argv that must succeed (for setting up a test).
void run(const std::vector<std::string>& argv);

// Every namespace's devices as a restore leaves them, without what the kernel settles on its
// own time: the operational state, which its link watch sets a while after the carrier
// changes. Carrier, set at once, says whether a device is up with its lower layer. Each
// namespace's devices are in name order: the kernel's is their indexes, which differ with how
// a device got there.
std::vector<NamespaceState> settledState();

// What a block of code printed on standard output.
std::string stdoutOf(const std::function<void()>& body);

} // namespace Kestrune::Testing
