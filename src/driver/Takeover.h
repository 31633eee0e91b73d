#pragma once

#include "driver/NamespaceName.h"
#include "model/Interface.h"

#include <map>
#include <memory>
#include <string>

namespace Kestrune {

class Driver;

// What a restore does with a kernel device it finds by the name of one it makes. A fresh
// restore looks for none: it does exactly its sequence. A resumed one (finishing a restore that
// was interrupted) takes over a device that is what the restore would have made, keeps the
// addresses already there, and has the filter rules replace the tables they name instead of
// adding to them.
class Takeover {
  public:
    virtual ~Takeover() = default;
    Takeover() = default;
    Takeover(const Takeover&) = delete;
    Takeover& operator=(const Takeover&) = delete;

    virtual bool resumes() const = 0;
    // True when the interface's device is there already and is what the restore would have
    // made; it is then taken as created. A device of that name that is not is traced and
    // recorded, and left to the creation, which then fails on it.
    virtual bool takenOver(Driver& driver, const Interface& intf) = 0;
    // True when the device of an SVI or subinterface is in the namespace it would be moved to.
    virtual bool inPlace(Driver& driver, const Interface& intf) = 0;
    // Whether an address the device has already is replaced rather than refused.
    virtual bool replacesAddresses() const = 0;
    // The command line of a filter-rule tool ("iptables-restore", "ip6tables-restore").
    virtual std::string filterRestoreCommand(const std::string& tool) const = 0;
    // Interfaces whose device was found in place, with the namespace it was found in.
    const std::map<std::string, std::string>& found() const { return found_; }

  protected:
    std::map<std::string, std::string> found_;
};

std::unique_ptr<Takeover> takeoverFor(bool resume);

} // namespace Kestrune
