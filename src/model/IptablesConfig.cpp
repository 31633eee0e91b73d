#include "model/IptablesConfig.h"

namespace Kestrune {

AttributeTable<IptablesConfig> IptablesConfig::attributes() {
    static const Attribute<IptablesConfig> table[] = {
        {"iptables", attributeReader<IptablesConfig, &IptablesConfig::iptables>},
        {"ip6tables", attributeReader<IptablesConfig, &IptablesConfig::ip6tables>},
    };
    return table;
}

IptablesConfig::Ptr iptablesConfigFactory(std::string iptables, std::string ip6tables) {
    return std::make_shared<IptablesConfig>(std::move(iptables), std::move(ip6tables));
}

} // namespace Kestrune
