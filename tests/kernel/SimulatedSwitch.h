#pragma once

#include "ChipSimulator.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "platform/ChipDevice.h"
#include "util/Namespace.h"

#include <cstdlib>
#include <memory>
#include <string>

namespace Kestrune::Testing {

// A switch of one chip family on this machine: a private network, the simulated switch's
// environment (its chip tools on PATH, no modules to load) and the chip simulator behind the
// seam, its chip log in the test's folder.
class SimulatedSwitch : public PrivateNetwork {
  protected:
    explicit SimulatedSwitch(Sim::ChipSimulator::Family family) : family_(family) {}

    void SetUp() override {
        PrivateNetwork::SetUp();
        path_ = std::getenv("PATH");
        Sim::ChipSimulator::environmentIs(KESTRUNE_CHIP_TOOLS, dir_.file("chip.log"),
                                          dir_.file("registers"));
        ASSERT_EQ(mountDefaultNs(), 0);
        simulator_ = std::make_shared<Sim::ChipSimulator>(dir_.file("chip.log"), family_);
        chipDeviceIs(simulator_);
    }
    void TearDown() override {
        chipDeviceIs(nullptr);
        simulator_.reset();
        unsetenv("SIMULATION_VMID");
        setenv("PATH", path_.c_str(), 1);
        PrivateNetwork::TearDown();
    }
    std::vector<std::string> chipLog() const {
        simulator_->doFlushLog();
        return linesOf(dir_.file("chip.log"));
    }

    const TempDir dir_;
    std::shared_ptr<Sim::ChipSimulator> simulator_;

  private:
    Sim::ChipSimulator::Family family_;
    std::string path_;
};

} // namespace Kestrune::Testing
