#include "model/StrataModule.h"

#include "model/ValueText.h"

#include <tuple>

namespace Kestrune {

namespace {
constexpr std::string_view typeName = "Kestrune::StrataModule";
}

StrataModule::StrataModule(std::string::const_iterator begin, std::string::const_iterator end) {
    ValueTextReader reader(typeName, std::string_view(begin, end));
    modId_ = reader.number("modId");
    busId_ = reader.number("busId");
    chipModel_ = reader.string("chipModel");
    reader.end();
}

bool StrataModule::operator<(const StrataModule& other) const {
    return std::tie(modId_, busId_, chipModel_) <
           std::tie(other.modId_, other.busId_, other.chipModel_);
}

AttributeTable<StrataModule> StrataModule::attributes() {
    static const Attribute<StrataModule> table[] = {
        {"modId", attributeReader<StrataModule, &StrataModule::modId>},
        {"busId", attributeReader<StrataModule, &StrataModule::busId>},
        {"chipModel", attributeReader<StrataModule, &StrataModule::chipModel>},
    };
    return table;
}

std::string valueToStrep(const StrataModule& module) {
    return valueText(typeName, module);
}

std::ostream& operator<<(std::ostream& stream, const StrataModule& module) {
    return stream << valueToStrep(module);
}

} // namespace Kestrune
