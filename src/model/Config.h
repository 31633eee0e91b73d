#pragma once

#include "model/Attribute.h"
#include "model/Interface.h"
#include "model/IptablesConfig.h"
#include "model/NameOrder.h"

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

namespace Kestrune {

// The root of the restore model: every restored interface by name, the filter rules, the
// platform type and the bridge MAC. Written by one parser, then only read.
class Config {
  public:
    using Ptr = std::shared_ptr<Config>;
    using PtrConst = std::shared_ptr<const Config>;
    using InterfaceMap = std::map<std::string, Interface::Ptr, NameOrder>;

    Config() = default;
    virtual ~Config() = default;
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    const std::string& bridgeMac() const { return bridgeMac_; }
    void bridgeMacIs(std::string mac) { bridgeMac_ = std::move(mac); }

    const InterfaceMap& interface() const { return interface_; }
    Interface::Ptr interface(const std::string& name) const;
    // Throws std::range_error for a null handle; replaces an interface of the same name whole.
    void interfaceIs(const Interface::Ptr& interface);
    void interfaceDel(const std::string& name);
    void interfaceDelAll();
    void interfaceNotify(const std::string&) {}

    const std::string& platformType() const { return platformType_; }
    void platformTypeIs(std::string type) { platformType_ = std::move(type); }

    IptablesConfig::Ptr iptablesConfig() const { return iptablesConfig_; }
    void iptablesConfigIs(IptablesConfig::Ptr config) { iptablesConfig_ = std::move(config); }

    virtual std::string_view className() const { return "Config"; }
    // The scalar attributes; the interface collection and the rules are reached through
    // their own readers and tables.
    virtual AttributeTable<Config> attributes() const;

  private:
    std::string bridgeMac_;
    InterfaceMap interface_;
    // Every section looks interfaces up by name; hashing keeps that off the ordered map.
    std::unordered_map<std::string, Interface::Ptr> byName_;
    std::string platformType_;
    IptablesConfig::Ptr iptablesConfig_;
};

Config::Ptr configFactory();

} // namespace Kestrune
