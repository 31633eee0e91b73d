#pragma once

#include "model/LagMember.h"
#include "model/RoutedPortInterface.h"

namespace Kestrune {

// A link-aggregation interface ("Port-Channel5") and its member ports.
class LagInterface : public RoutedPortInterface {
  public:
    using Ptr = std::shared_ptr<LagInterface>;
    using PtrConst = std::shared_ptr<const LagInterface>;

    using RoutedPortInterface::RoutedPortInterface;

    const MemberSet& member() const { return member_; }
    LagMember::Ptr member(const std::string& name) const;
    // Throws std::range_error for a null handle; replaces a member of the same name whole.
    void memberIs(const LagMember::Ptr& member);
    void memberDel(const std::string& name) { member_.erase(name); }
    void memberDelAll() { member_.clear(); }
    void memberNotify(const std::string&) {}

    std::string_view className() const override { return "LagInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    MemberSet member_;
};

LagInterface::Ptr lagInterfaceFactory(std::string name);

} // namespace Kestrune
