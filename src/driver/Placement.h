#pragma once

#include "driver/NamespaceName.h"
#include "model/Interface.h"
#include "util/Namespace.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace Kestrune {

class Driver;

// How the restore does its kernel work. Both orders give the same trace lines, events and final
// kernel state; the fast one spends fewer kernel operations on the way.
enum class RestoreOrder {
    // The sequence's: every VLAN device made in the default namespace, then moved into its
    // VRF's; a Sand port's prio qdisc installed by a tc process.
    library,
    // A VLAN device made inside its VRF's namespace with its MTU, so the move finds it there
    // (a move costs the kernel a grace period; making it in place does not); a Sand port's
    // prio qdisc installed over rtnetlink, as the tc process would.
    fast,
};

// "library" or "fast".
const char* restoreOrderName(RestoreOrder order);

// Where and how an order makes what the restore's steps ask for. The driver's steps are the
// same for every order; each asks its placement at the three points where orders differ.
class Placement {
  public:
    virtual ~Placement() = default;
    Placement() = default;
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

    virtual RestoreOrder order() const = 0;
    // Makes the VLAN device `kernelName` of an SVI or subinterface on `parent`, a device of
    // the default namespace. Returns 0 or the negative errno, and the namespace it is in.
    virtual int vlanDeviceMade(Driver& driver, const Interface& intf, std::string_view parent,
                               const std::string& kernelName, std::uint16_t vlan,
                               NamespaceName& madeIn) = 0;
    // A port's or LAG's chip device was made (or found by a resume), still down.
    virtual void chipDeviceMade(const Driver& driver, const Interface& intf,
                                const std::string& kernelName) const = 0;
    // Installs a Sand port's prio root qdisc; false when the tool that installs it could not
    // run (the kernel's own complaint about one already there is not a failure).
    virtual bool portQdiscAdded(const Driver& driver, const std::string& kernelName) const = 0;
};

std::unique_ptr<Placement> placementFor(RestoreOrder order);

} // namespace Kestrune
