#pragma once

#include "model/Attribute.h"
#include "model/InterfaceType.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrune {

// One restored layer-3 interface, keyed by its name. Parsers fill it; drivers only read it.
class Interface {
  public:
    using Ptr = std::shared_ptr<Interface>;
    using PtrConst = std::shared_ptr<const Interface>;

    static constexpr std::int32_t defaultMtu = 9214;
    static constexpr std::int32_t defaultL2Mtu = 9216;

    explicit Interface(std::string name) : name_(std::move(name)) {}
    virtual ~Interface() = default;
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    const std::string& name() const { return name_; }

    InterfaceType interfaceType() const { return interfaceType_; }
    void interfaceTypeIs(InterfaceType type) { interfaceType_ = type; }

    const std::string& primaryIpv4() const { return primaryIpv4_; }
    void primaryIpv4Is(std::string address) { primaryIpv4_ = std::move(address); }

    const FlagSet& secondaryIpv4() const { return secondaryIpv4_; }
    bool secondaryIpv4(const std::string& address) const;
    void secondaryIpv4Is(const std::string& address, bool flag) { secondaryIpv4_[address] = flag; }
    bool secondaryIpv4Del(const std::string& address);
    void secondaryIpv4DelAll() { secondaryIpv4_.clear(); }
    void secondaryIpv4Notify(const std::string&) {}

    const FlagSet& ipv6() const { return ipv6_; }
    bool ipv6(const std::string& address) const;
    void ipv6Is(const std::string& address, bool flag) { ipv6_[address] = flag; }
    bool ipv6Del(const std::string& address);
    void ipv6DelAll() { ipv6_.clear(); }
    void ipv6Notify(const std::string&) {}

    const std::string& netNsName() const { return netNsName_; }
    void netNsNameIs(std::string name) { netNsName_ = std::move(name); }

    std::int32_t mtu() const { return mtu_; }
    void mtuIs(std::int32_t mtu) { mtu_ = mtu; }

    std::int32_t l2Mtu() const { return l2Mtu_; }
    void l2MtuIs(std::int32_t mtu) { l2Mtu_ = mtu; }

    // The C++ class name ("Interface", "SubInterface", ...).
    virtual std::string_view className() const { return "Interface"; }
    // Every attribute of the object's class, base attributes first, in declaration order.
    virtual AttributeTable<Interface> attributes() const;

  private:
    const std::string name_;
    InterfaceType interfaceType_ = InterfaceType::None_;
    std::string primaryIpv4_;
    FlagSet secondaryIpv4_;
    FlagSet ipv6_;
    std::string netNsName_ = "default";
    std::int32_t mtu_ = defaultMtu;
    std::int32_t l2Mtu_ = defaultL2Mtu;
};

Interface::Ptr interfaceFactory(std::string name);

} // namespace Kestrune
