#pragma once

#include "driver/Driver.h"
#include "util/EthIoctlUtil.h"

#include <set>
#include <string>

namespace Kestrune::Testing {

// A platform driver for tests: ports and LAGs become TAP devices in the default namespace with
// the bridge MAC, up; a subinterface becomes a VLAN device on its parent. Names in `refused`
// fail to be created, as a chip would refuse them.
class TapDriver : public Driver {
  public:
    using Driver::Driver;

    bool createL2Interface(const Interface* intf, const std::string& bridgeMac) override;
    bool createRoutedPortInterface(const Interface* intf, const std::string& bridgeMac) override;
    bool createSubInterface(const Interface* intf, const std::string& bridgeMac) override;
    bool createLagInterface(const Interface* intf, const std::string& bridgeMac) override;

    std::set<std::string> refused;

  private:
    bool tap(const Interface* intf, const std::string& bridgeMac);

    EthIoctlUtil taps_;
};

} // namespace Kestrune::Testing
