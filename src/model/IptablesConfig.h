#pragma once

#include "model/Attribute.h"

#include <memory>
#include <string>

namespace Kestrune {

// The saved packet-filter rules, in the save format that iptables-restore reads.
class IptablesConfig {
  public:
    using Ptr = std::shared_ptr<IptablesConfig>;
    using PtrConst = std::shared_ptr<const IptablesConfig>;

    IptablesConfig(std::string iptables, std::string ip6tables)
        : iptables_(std::move(iptables)), ip6tables_(std::move(ip6tables)) {}

    const std::string& iptables() const { return iptables_; }
    const std::string& ip6tables() const { return ip6tables_; }

    static AttributeTable<IptablesConfig> attributes();

  private:
    const std::string iptables_;
    const std::string ip6tables_;
};

IptablesConfig::Ptr iptablesConfigFactory(std::string iptables, std::string ip6tables);

} // namespace Kestrune
