#include "model/SandFapConfig.h"

#include "model/ValueText.h"

namespace Kestrune {

namespace {
constexpr std::string_view typeName = "Kestrune::SandFapConfig";
}

SandFapConfig::SandFapConfig(std::string::const_iterator begin, std::string::const_iterator end) {
    ValueTextReader reader(typeName, std::string_view(begin, end));
    name_ = reader.string("name");
    pciName_ = reader.string("pciName");
    numFaps_ = reader.number("numFaps");
    fapType_ = reader.number("fapType");
    cpuTm_ = reader.number("cpuTm");
    cpuSflow_ = reader.number("cpuSflow");
    cpuAradSysPort_ = reader.number("cpuAradSysPort");
    cpuArad_ = reader.number("cpuArad");
    cpuAradBridge_ = reader.number("cpuAradBridge");
    reader.end();
}

AttributeTable<SandFapConfig> SandFapConfig::attributes() {
    using S = SandFapConfig;
    static const Attribute<S> table[] = {
        {"name", attributeReader<S, &S::name>},
        {"pciName", attributeReader<S, &S::pciName>},
        {"numFaps", attributeReader<S, &S::numFaps>},
        {"fapType", attributeReader<S, &S::fapType>},
        {"cpuTm", attributeReader<S, &S::cpuTm>},
        {"cpuSflow", attributeReader<S, &S::cpuSflow>},
        {"cpuAradSysPort", attributeReader<S, &S::cpuAradSysPort>},
        {"cpuArad", attributeReader<S, &S::cpuArad>},
        {"cpuAradBridge", attributeReader<S, &S::cpuAradBridge>},
    };
    return table;
}

std::string valueToStrep(const SandFapConfig& fap) {
    return valueText(typeName, fap);
}

std::ostream& operator<<(std::ostream& stream, const SandFapConfig& fap) {
    return stream << valueToStrep(fap);
}

} // namespace Kestrune
