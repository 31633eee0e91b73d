#include "ModelJson.h"

#include "model/LagMember.h"
#include "model/SandConfig.h"
#include "model/StrataConfig.h"
#include "util/Json.h"

#include <algorithm>

namespace Kestrune::Cli {

namespace {

using Writer = PrettyJsonWriter;

void key(Writer& writer, std::string_view name) {
    writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
}

void text(Writer& writer, std::string_view value) {
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void value(Writer& writer, const AttributeValue& attribute);

template <class Object>
void attributes(Writer& writer, const Object& object, AttributeTable<Object> table,
                std::initializer_list<std::string_view> skipped = {}) {
    for (const auto& attribute : table) {
        if (std::find(skipped.begin(), skipped.end(), attribute.name) == skipped.end()) {
            key(writer, attribute.name);
            value(writer, attribute.read(object));
        }
    }
}

struct ValueWriter {
    Writer& writer;
    void operator()(const std::string& v) const { text(writer, v); }
    void operator()(std::int64_t v) const { writer.Int64(v); }
    void operator()(bool v) const { writer.Bool(v); }
    void operator()(InterfaceType v) const { text(writer, stringValue(v)); }
    void operator()(const FlagSet& v) const {
        writer.StartArray();
        for (const auto& [address, flag] : v) {
            text(writer, address);
        }
        writer.EndArray();
    }
    void operator()(const MemberSet& v) const {
        writer.StartObject();
        for (const auto& [name, member] : v) {
            key(writer, name);
            writer.StartObject();
            // The key already names the member and its port.
            attributes(writer, *member, LagMember::attributes(), {"name", "interface"});
            writer.EndObject();
        }
        writer.EndObject();
    }
};

void value(Writer& writer, const AttributeValue& attribute) {
    std::visit(ValueWriter{writer}, attribute);
}

void platformRecords(Writer& writer, const Config& config) {
    if (const auto* strata = dynamic_cast<const StrataConfig*>(&config)) {
        key(writer, "strataModule");
        writer.StartArray();
        for (const auto& [module, flag] : strata->strataModule()) {
            writer.StartObject();
            attributes(writer, module, StrataModule::attributes());
            writer.EndObject();
        }
        writer.EndArray();
    }
    if (const auto* sand = dynamic_cast<const SandConfig*>(&config)) {
        key(writer, "sandFapConfig");
        writer.StartObject();
        for (const auto& [name, fap] : sand->sandFapConfig()) {
            key(writer, name);
            writer.StartObject();
            attributes(writer, fap, SandFapConfig::attributes());
            writer.EndObject();
        }
        writer.EndObject();
    }
}

} // namespace

std::string modelJson(const Config& config) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    attributes(writer, config, config.attributes());
    key(writer, "iptablesConfig");
    if (auto rules = config.iptablesConfig()) {
        writer.StartObject();
        attributes(writer, *rules, IptablesConfig::attributes());
        writer.EndObject();
    } else {
        writer.Null();
    }
    key(writer, "interfaces");
    writer.StartObject();
    for (const auto& [name, interface] : config.interface()) {
        key(writer, name);
        writer.StartObject();
        key(writer, "class");
        text(writer, interface->className());
        attributes(writer, *interface, interface->attributes());
        writer.EndObject();
    }
    writer.EndObject();
    platformRecords(writer, config);
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace Kestrune::Cli
