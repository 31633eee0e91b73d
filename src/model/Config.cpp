#include "model/Config.h"

#include "model/HandleMap.h"

namespace Kestrune {

Interface::Ptr Config::interface(const std::string& name) const {
    return handleAt(interface_, name);
}

void Config::interfaceIs(const Interface::Ptr& interface) {
    if (!interface) {
        throw nullHandleError("interface", "Config::interface");
    }
    handleInsert(interface_, interface->name(), interface);
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
