#include "parser/ConfigParser.h"

#include "log/Log.h"
#include "model/IptablesConfig.h"
#include "model/LagInterface.h"
#include "parser/ConfigParserCreator.h"
#include "parser/StoreValue.h"
#include "util/Trace.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace Kestrune {

Config::Ptr ConfigParser::parse() {
    return nullptr;
}

void ConfigParser::doCopyDocument(const rapidjson::Document& source) {
    document_ = std::make_unique<rapidjson::Document>();
    document_->CopyFrom(source, document_->GetAllocator());
}

void ConfigParser::eventIs(const std::string& message) {
    Log::logEvent("ConfigParser", message);
}

void ConfigParser::report(const std::string& message) {
    TRACE(0) << message;
    eventIs(message);
}

const rapidjson::Document& ConfigParser::store() const {
    KESTRUNE_ASSERT(document_ != nullptr);
    return *document_;
}

const rapidjson::Value* ConfigParser::memberOrReport(const rapidjson::Value& object,
                                                     const char* key, const std::string& missing) {
    auto member = object.FindMember(key);
    if (member == object.MemberEnd()) {
        report(missing);
        return nullptr;
    }
    return &member->value;
}

void ConfigParser::doExtractCommonSections(const Config::Ptr& config) {
    doExtractPellInfo(config);
    doExtractVantInfo(config);
    doExtractOkuInfo(config);
    doExtractDorvelInfo(config);
    doExtractSabrelInfo(config);
    documentDel();
}

const rapidjson::Value* ConfigParser::platformMember(const char* key) {
    const auto& doc = store();
    auto platform = getPlatformData(&doc);
    if (platform == doc.MemberEnd()) {
        report("Missing Tessaline key in PStore");
        return nullptr;
    }
    return memberOrReport(platform->value, key,
                          "Missing " + std::string(key) + " key in Tessaline PStore");
}

void ConfigParser::reportMissingDevice(std::size_t index) {
    const std::string text = "Missing devices info for device ";
    TRACE(0) << text << index;
    eventIs(text.substr(std::min(index, text.size())));
}

void ConfigParser::doExtractPellInfo(const Config::Ptr& config) {
    const auto& doc = store();
    const rapidjson::Value* pell = memberOrReport(doc, "Pell", "Missing Pell key in PStore");
    if (!pell) {
        return;
    }
    const auto& section = *pell;
    const rapidjson::Value* lags =
        memberOrReport(section, "inputIntfLag", "Missing inputIntfLag in Pell PStore");
    if (!lags) {
        return;
    }
    const rapidjson::Value* flags = memberOrReport(section, "collectDistribute",
                                                   "Missing collectDistribute key in Pell PStore");
    if (!flags) {
        return;
    }
    // Each member's flags are looked up by name; an index keeps that from growing with the
    // square of the member count. The first entry of a name wins, as in a member lookup. It is
    // made at the first lookup: flags no member is looked up in are never read.
    std::optional<std::unordered_map<std::string_view, const rapidjson::Value*>> flagsOf;
    const auto flagsFor = [&](const std::string& name) -> const rapidjson::Value* {
        if (!flagsOf) {
            flagsOf.emplace();
            for (const auto& entry : flags->GetObject()) {
                flagsOf->try_emplace(
                    std::string_view(entry.name.GetString(), entry.name.GetStringLength()),
                    &entry.value);
            }
        }
        const auto found = flagsOf->find(name);
        return found != flagsOf->end() ? found->second : nullptr;
    };
    for (const auto& lagEntry : lags->GetObject()) {
        const std::string lagName = textOf(lagEntry.name);
        if (!startsWith(lagName, "Port-Channel")) {
            TRACE(0) << "Skipping " << lagName;
            continue;
        }
        auto members = lagEntry.value.FindMember("member");
        if (members == lagEntry.value.MemberEnd()) {
            report("Missing member info in Pell");
            continue;
        }
        // Created with its first usable member: a LAG without one has no CPU path.
        LagInterface::Ptr lag;
        for (const auto& memberName : members->value.GetArray()) {
            const std::string name = textOf(memberName);
            Interface::Ptr port = config->interface(name);
            if (!port) {
                TRACE(0) << "Skipping member " << name << " of " << lagName;
                continue;
            }
            const rapidjson::Value* state = flagsFor(name);
            if (state == nullptr) {
                report("Missing collectDistribute flags for member " + name);
                continue;
            }
            const bool collecting = (*state)["collecting"].GetBool();
            const bool distributing = (*state)["distributing"].GetBool();
            if (!lag) {
                lag = lagInterfaceFactory(lagName);
                lag->interfaceTypeIs(InterfaceType::Lag_);
                config->interfaceIs(lag);
                TRACE(0) << "doExtractPellInfo Added Lag " << lagName << " to config";
            }
            auto member = lagMemberFactory();
            member->interfaceIs(port);
            member->collectingIs(collecting);
            member->distributingIs(distributing);
            lag->memberIs(member);
            TRACE(0) << "doExtractPellInfo Added " << name << " to " << lagName;
        }
    }
}

void ConfigParser::doExtractDorvelInfo(const Config::Ptr& config) {
    const auto& doc = store();
    const rapidjson::Value* dorvel = memberOrReport(doc, "Dorvel", "Missing Dorvel key in PStore");
    if (!dorvel) {
        return;
    }
    const rapidjson::Value* mtus =
        memberOrReport(*dorvel, "intfMtus", "Missing intfMtus key in Dorvel PStore");
    if (!mtus) {
        return;
    }
    for (const auto& entry : mtus->GetObject()) {
        const std::string name = textOf(entry.name);
        Interface::Ptr interface = config->interface(name);
        if (!interface) {
            report("Missing interface " + name + " in other PStores. Skipping");
            continue;
        }
        auto mtu = entry.value.FindMember("mtu");
        auto l2Mtu = entry.value.FindMember("l2Mtu");
        if (mtu == entry.value.MemberEnd() || l2Mtu == entry.value.MemberEnd()) {
            report("Missing MTU info for " + name);
            continue;
        }
        interface->mtuIs(mtu->value.GetInt());
        interface->l2MtuIs(l2Mtu->value.GetInt());
        TRACE(3) << "doExtractDorvelInfo Added MTU info to " << interface->name();
    }
}

void ConfigParser::doExtractSabrelInfo(const Config::Ptr& config) {
    const auto& doc = store();
    const rapidjson::Value* sabrel = memberOrReport(doc, "Sabrel", "Missing Sabrel key in PStore");
    if (!sabrel) {
        return;
    }
    const auto& section = *sabrel;
    const rapidjson::Value* iptables =
        memberOrReport(section, "iptables", "Missing iptables key in Sabrel PStore");
    if (!iptables) {
        return;
    }
    const rapidjson::Value* ip6tables =
        memberOrReport(section, "ip6tables", "Missing ip6tables key in Sabrel PStore");
    if (!ip6tables) {
        return;
    }
    config->iptablesConfigIs(iptablesConfigFactory(textOf(*iptables), textOf(*ip6tables)));
}

} // namespace Kestrune
