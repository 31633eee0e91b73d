#include "model/Config.h"

#include "model/HandleMap.h"

namespace Kestrune {

Interface::Ptr Config::interface(const std::string& name) const {
    auto entry = byName_.find(name);
    return entry == byName_.end() ? nullptr : entry->second;
}

void Config::interfaceIs(const Interface::Ptr& interface) {
    if (!interface) {
        throw nullHandleError("interface", "Config::interface");
    }
    auto [entry, inserted] = byName_.try_emplace(interface->name(), interface);
    if (inserted) {
        interface_.emplace(interface->name(), interface);
    } else if (entry->second != interface) {
        entry->second = interface;
        interface_[interface->name()] = interface;
    }
}

void Config::interfaceDel(const std::string& name) {
    byName_.erase(name);
    interface_.erase(name);
}

void Config::interfaceDelAll() {
    byName_.clear();
    interface_.clear();
}

AttributeTable<Config> Config::attributes() const {
    static const Attribute<Config> table[] = {
        {"bridgeMac", attributeReader<Config, &Config::bridgeMac>},
        {"platformType", attributeReader<Config, &Config::platformType>},
    };
    return table;
}

Config::Ptr configFactory() {
    return std::make_shared<Config>();
}

} // namespace Kestrune
