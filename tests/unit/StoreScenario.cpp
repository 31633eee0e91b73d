#include "StoreScenario.h"

#include "model/LagInterface.h"
#include "model/SandConfig.h"
#include "model/StrataConfig.h"
#include "parser/SandConfigParser.h"
#include "parser/StrataConfigParser.h"
#include "util/RestoreGuards.h"

#include <fstream>

namespace Kestrune::Testing {

namespace {

template <class Object>
void describe(std::ostream& out, const std::string& key, const Object& object,
              AttributeTable<Object> table) {
    for (const auto& attribute : table) {
        out << key << '\t' << attribute.name << '\t' << attributeText(attribute.read(object))
            << '\n';
    }
}

void describe(std::ostream& out, const Config& config) {
    describe(out, "<config>", config, config.attributes());
    if (auto rules = config.iptablesConfig()) {
        describe(out, "<config>", *rules, IptablesConfig::attributes());
    }
    for (const auto& [name, interface] : config.interface()) {
        out << name << "\tclass\t" << interface->className() << '\n';
        describe(out, name, *interface, interface->attributes());
    }
    if (const auto* strata = dynamic_cast<const StrataConfig*>(&config)) {
        for (const auto& [module, flag] : strata->strataModule()) {
            out << "<modules>\t" << valueToStrep(module) << '\t' << flag << '\n';
        }
    }
    if (const auto* sand = dynamic_cast<const SandConfig*>(&config)) {
        for (const auto& [name, fap] : sand->sandFapConfig()) {
            out << "<fap " << name << ">\tvalue\t" << valueToStrep(fap) << '\n';
        }
    }
}

} // namespace

ParseOutcome parseIn(const TempDir& dir, Family family, const std::string& store,
                     bool libraryDefaults) {
    const std::string modelFile = dir.file("model.txt");
    ParseOutcome result;
    result.process = runProcess(dir, [&] {
        if (libraryDefaults) {
            restoreGuardsIs(RestoreGuards{});
        }
        rapidjson::Document document;
        document.Parse(store.c_str());
        ConfigParser::Ptr parser;
        if (family == Family::Strata) {
            parser = strataConfigParserFactory();
        } else {
            parser = sandConfigParserFactory();
        }
        parser->doCopyDocument(document);
        auto config = parser->parse();
        std::ofstream out(modelFile);
        describe(out, *config);
    });
    bool started = false;
    for (const auto& line : result.process.traces) {
        started = started || line == "Kestrune:0 parse";
        const bool lookup = line == "Kestrune:0 Found strata" || line == "Kestrune:0 Found sand";
        result.platformLookups += started && lookup ? 1 : 0;
        if (started && line != "Kestrune:0 parse" && !lookup) {
            result.traces.push_back(line);
        }
    }
    std::ifstream in(modelFile);
    for (std::string line; std::getline(in, line);) {
        auto first = line.find('\t');
        auto second = line.find('\t', first + 1);
        result.model[line.substr(0, first)][line.substr(first + 1, second - first - 1)] =
            line.substr(second + 1);
    }
    return result;
}

std::string storeWith(Family family, const std::map<std::string, std::string>& sections) {
    std::map<std::string, std::string> members = {
        {"Pell", R"({"inputIntfLag": {}, "collectDistribute": {}})"},
        {"Vant", R"({"bridgeMacAddr": "02:00:00:00:00:01", "subIntfNameToEncapVlanId": {},
                     "intfNameToVlanId": {}})"},
        {"Oku", R"({"interfaces": {}})"},
        {"Dorvel", R"({"intfMtus": {}})"},
        {"Sabrel", R"({"iptables": "", "ip6tables": ""})"},
    };
    if (family == Family::Strata) {
        members["Tessaline"] = R"({"platformType": "Strata", "devices": [], "interfaces": {}})";
    } else {
        members["SandTessaline"] = R"({"platformType": "Sand", "devices": [], "interfaces": {},
            "driverParams": {"oldestFapType": 0, "maxLags": 0, "maxMembersPerLag": 0}})";
    }
    for (const auto& [key, text] : sections) {
        members[key] = text;
    }
    std::string store = "{";
    for (const auto& [key, text] : members) {
        if (!text.empty()) {
            store += (store.size() > 1 ? ",\n\"" : "\"") + key + "\": " + text;
        }
    }
    return store + "}";
}

} // namespace Kestrune::Testing
