#include "model/Interface.h"

namespace Kestrune {

namespace {

bool flagOf(const FlagSet& set, const std::string& key) {
    auto entry = set.find(key);
    return entry != set.end() && entry->second;
}

bool flagDel(FlagSet& set, const std::string& key) {
    auto entry = set.find(key);
    if (entry == set.end()) {
        return false;
    }
    bool flag = entry->second;
    set.erase(entry);
    return flag;
}

} // namespace

bool Interface::secondaryIpv4(const std::string& address) const {
    return flagOf(secondaryIpv4_, address);
}

bool Interface::secondaryIpv4Del(const std::string& address) {
    return flagDel(secondaryIpv4_, address);
}

bool Interface::ipv6(const std::string& address) const {
    return flagOf(ipv6_, address);
}

bool Interface::ipv6Del(const std::string& address) {
    return flagDel(ipv6_, address);
}

AttributeTable<Interface> Interface::attributes() const {
    static const Attribute<Interface> table[] = {
        {"name", attributeReader<Interface, &Interface::name>},
        {"interfaceType", attributeReader<Interface, &Interface::interfaceType>},
        {"primaryIpv4", attributeReader<Interface, &Interface::primaryIpv4>},
        {"secondaryIpv4", [](const Interface& i) { return attributeValueOf(i.secondaryIpv4()); }},
        {"ipv6", [](const Interface& i) { return attributeValueOf(i.ipv6()); }},
        {"netNsName", attributeReader<Interface, &Interface::netNsName>},
        {"mtu", attributeReader<Interface, &Interface::mtu>},
        {"l2Mtu", attributeReader<Interface, &Interface::l2Mtu>},
    };
    return table;
}

Interface::Ptr interfaceFactory(std::string name) {
    return std::make_shared<Interface>(std::move(name));
}

} // namespace Kestrune
