#pragma once

#include "util/Namespace.h"

#include <functional>
#include <map>
#include <memory>
#include <net/ethernet.h>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrune {

// Creates the CPU Ethernet interfaces of routed ports inside their VRF namespace. Each is a
// persistent TAP device; this object holds its queue open, so the device has carrier for as
// long as the restore's process lives.
class EthIoctlUtil {
  public:
    using Ptr = std::shared_ptr<EthIoctlUtil>;
    using PtrConst = std::shared_ptr<const EthIoctlUtil>;

    EthIoctlUtil() = default;
    ~EthIoctlUtil();
    EthIoctlUtil(const EthIoctlUtil&) = delete;
    EthIoctlUtil& operator=(const EthIoctlUtil&) = delete;

    // Makes the device `name` in the namespace nsName with the MAC address (kept as the
    // kernel chose it when all zero) and carrier on when operStatus is set. A TAP of that name
    // already in the namespace is taken over. The thread stays in its own namespace.
    bool createIntf(const std::string& name, const ether_addr& mac, bool operStatus,
                    std::string_view nsName);
    // The queues of the devices made so far, open until this object goes.
    const std::vector<int>& queues() const { return queues_; }

  private:
    // A socket of the namespace the thread is visiting, made there at its first device and
    // kept for the next ones.
    int socketOfThreadNs(std::string_view nsName);
    std::vector<int> queues_;
    std::map<std::string, int, std::less<>> sockets_;
    // Each namespace's file, opened at its first device and kept for the next ones.
    NamespaceFiles namespaces_{"createIntf"};
};

} // namespace Kestrune
