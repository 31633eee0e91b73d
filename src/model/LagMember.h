#pragma once

#include "model/Attribute.h"
#include "model/Interface.h"

#include <memory>
#include <string>

namespace Kestrune {

// A port in a LAG with its LACP mux state.
class LagMember {
  public:
    using Ptr = std::shared_ptr<LagMember>;
    using PtrConst = std::shared_ptr<const LagMember>;

    Interface::Ptr interface() const { return interface_; }
    void interfaceIs(Interface::Ptr interface) { interface_ = std::move(interface); }

    // The member port's name, or empty without a port; the member's key in its LAG.
    std::string name() const { return interface_ ? interface_->name() : std::string(); }

    bool collecting() const { return collecting_; }
    void collectingIs(bool collecting) { collecting_ = collecting; }

    bool distributing() const { return distributing_; }
    void distributingIs(bool distributing) { distributing_ = distributing; }

    static AttributeTable<LagMember> attributes();

  private:
    Interface::Ptr interface_;
    bool collecting_ = false;
    bool distributing_ = false;
};

LagMember::Ptr lagMemberFactory();

} // namespace Kestrune
