#include "parser/StoreCheck.h"

#include "log/Log.h"
#include "parser/SandConfigParser.h"
#include "parser/StoreValue.h"
#include "parser/StrataConfigParser.h"
#include "util/Json.h"
#include "util/Trace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <rapidjson/error/en.h>
#include <rapidjson/pointer.h>
#include <rapidjson/schema.h>
#include <set>

namespace Kestrune {

namespace {

using rapidjson::Pointer;
using rapidjson::Value;

constexpr std::array<std::pair<Consequence, std::string_view>, 4> consequenceTexts = {{
    {Consequence::SkipsEntry, "skips the entry"},
    {Consequence::SkipsSection, "skips the section"},
    {Consequence::NoRestore, "no restore"},
    {Consequence::EndsProcess, "ends the process"},
}};

Consequence consequenceOf(const Value* note, Consequence fallback) {
    if (note && note->IsString()) {
        for (const auto& [consequence, text] : consequenceTexts) {
            if (text == note->GetString()) {
                return consequence;
            }
        }
    }
    return fallback;
}

const Value* member(const Value* object, const char* key) {
    if (!object || !object->IsObject()) {
        return nullptr;
    }
    auto found = object->FindMember(key);
    return found == object->MemberEnd() ? nullptr : &found->value;
}

std::string textOfPointer(const Pointer& pointer) {
    rapidjson::StringBuffer buffer;
    pointer.Stringify(buffer);
    return buffer.GetString();
}

Pointer pointerOf(std::initializer_list<std::string_view> names) {
    Pointer pointer;
    for (std::string_view name : names) {
        pointer = pointer.Append(name.data(), static_cast<rapidjson::SizeType>(name.size()));
    }
    return pointer;
}

std::string jsonTypeOf(const Value& value) {
    if (value.IsNull()) {
        return "null";
    }
    if (value.IsBool()) {
        return "boolean";
    }
    if (value.IsNumber()) {
        return value.IsInt64() || value.IsUint64() ? "integer" : "number";
    }
    return value.IsString() ? "string" : value.IsArray() ? "array" : "object";
}

std::string jsonText(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

// Both live until exit and are destroyed then: RapidJSON packs flags into the high bits of
// its pointers, so a leak checker cannot see that a schema kept forever is still in use.
const rapidjson::Document& schemaJson() {
    static const rapidjson::Document document = [] {
        rapidjson::Document parsed;
        parsed.Parse(StoreCheck::schemaText());
        return parsed;
    }();
    return document;
}

const rapidjson::SchemaDocument& schema() {
    static const rapidjson::SchemaDocument compiled(schemaJson());
    return compiled;
}

// The store's problems, found one by one: each one found is recorded and the part of the
// store it spoils is removed, as the restore would pass it by, so the next one shows.
class Checker {
  public:
    explicit Checker(rapidjson::Document& store) : store_(store) {}

    std::vector<StoreProblem> run() {
        if (checkPlatform()) {
            validate();
            applyRules();
            parseRest();
        }
        return problems_;
    }

  private:
    void add(const std::string& pointer, std::string message, Consequence consequence) {
        problems_.push_back({pointer, std::move(message), consequence});
    }

    // The steps of opening a store, in the order the restore takes them; false when the
    // restore would read nothing more.
    bool checkPlatform() {
        if (!store_.IsObject()) {
            add("", "the store is not a JSON object", Consequence::EndsProcess);
            return false;
        }
        const bool strata = store_.HasMember("Tessaline");
        const bool sand = store_.HasMember("SandTessaline");
        if (strata && sand) {
            add("", "both platform sections, Tessaline and SandTessaline, are present",
                Consequence::EndsProcess);
            return false;
        }
        if (!strata && !sand) {
            add("", "no platform section: neither Tessaline nor SandTessaline is present",
                Consequence::NoRestore);
            return false;
        }
        const char* key = strata ? "Tessaline" : "SandTessaline";
        const Value& section = store_[key];
        const std::string at = "/" + std::string(key);
        if (!section.IsObject()) {
            add(at, "the platform section is " + jsonTypeOf(section) + ", not an object",
                Consequence::EndsProcess);
            return false;
        }
        const Value* type = member(&section, "platformType");
        if (!type) {
            add(at, "missing \"platformType\"", Consequence::NoRestore);
            return false;
        }
        if (!type->IsString()) {
            add(at + "/platformType", "expected string, found " + jsonTypeOf(*type),
                Consequence::EndsProcess);
            return false;
        }
        platformType_ = textOf(*type);
        if (platformType_ != "Strata" && platformType_ != "Sand") {
            add(at + "/platformType", jsonText(*type) + " is neither \"Strata\" nor \"Sand\"",
                Consequence::NoRestore);
            return false;
        }
        return true;
    }

    void validate() {
        for (;;) {
            rapidjson::SchemaValidator validator(schema());
            if (store_.Accept(validator)) {
                return;
            }
            Pointer at = validator.GetInvalidDocumentPointer();
            const std::string keyword = validator.GetInvalidSchemaKeyword();
            const Value* rule = validator.GetInvalidSchemaPointer().Get(schemaJson());
            const Value* value = at.Get(store_);
            if (at.GetTokenCount() == 0 || !rule || !value) {
                missingSections();
                return;
            }
            bool pruned = false;
            if (keyword == "required") {
                missingKeys(at, *rule, *value);
                pruned = prune(at);
            } else {
                auto consequence =
                    consequenceOf(member(rule, "x-kestrune-invalid"), Consequence::EndsProcess);
                add(original(at), describe(keyword, *rule, *value), consequence);
                pruned =
                    prune(consequence == Consequence::SkipsSection ? prefix(at, 1) : memberOf(at));
            }
            if (!pruned) {
                return;
            }
        }
    }

    // The root fails last, once every section is validated: only sections can be missing.
    void missingSections() {
        for (const char* section : {"Oku", "Vant", "Pell", "Dorvel", "Sabrel"}) {
            if (!store_.HasMember(section) && !pruned_.count("/" + std::string(section))) {
                add("", "missing section \"" + std::string(section) + "\"",
                    Consequence::SkipsSection);
            }
        }
    }

    void missingKeys(const Pointer& at, const Value& rule, const Value& value) {
        const Value* note = member(&rule, "x-kestrune-missing");
        for (const auto& key : rule["required"].GetArray()) {
            const std::string name = textOf(key);
            if (value.HasMember(key) ||
                pruned_.count(original(at) + "/" + textOfPointer(pointerOf({name})).substr(1))) {
                continue;
            }
            const Value* perKey = note && note->IsObject() ? member(note, name.c_str()) : note;
            add(original(at), "missing \"" + name + "\"",
                consequenceOf(perKey, Consequence::SkipsEntry));
        }
    }

    static std::string describe(const std::string& keyword, const Value& rule, const Value& value) {
        if (keyword == "type") {
            return "expected " + jsonText(rule["type"]) + ", found " + jsonTypeOf(value);
        }
        if (keyword == "minimum" || keyword == "maximum") {
            return jsonText(value) + " is outside " + jsonText(rule["minimum"]) + " to " +
                   jsonText(rule["maximum"]);
        }
        if (keyword == "enum") {
            return jsonText(value) + " is not one of " + jsonText(rule["enum"]);
        }
        return "does not match the schema's \"" + keyword + "\" rule";
    }

    static Pointer prefix(const Pointer& at, std::size_t count) {
        return Pointer(at.GetTokens(), std::min(count, at.GetTokenCount()));
    }

    // The nearest object member holding `at`: an array is removed whole, not element-wise.
    Pointer memberOf(const Pointer& at) const {
        std::size_t count = at.GetTokenCount();
        while (count > 1) {
            const Value* parent = prefix(at, count - 1).Get(store_);
            if (parent && parent->IsObject()) {
                break;
            }
            --count;
        }
        return prefix(at, count);
    }

    bool prune(const Pointer& at) {
        const std::size_t count = at.GetTokenCount();
        if (count == 0) {
            return false;
        }
        Pointer parentPointer = prefix(at, count - 1);
        Value* parent = parentPointer.Get(store_);
        const auto& last = at.GetTokens()[count - 1];
        pruned_.insert(original(at));
        if (parent && parent->IsArray() && last.index < parent->Size()) {
            erased_[original(parentPointer)].push_back(
                originalIndex(original(parentPointer), last.index));
            parent->Erase(parent->Begin() + last.index);
            return true;
        }
        if (parent && parent->IsObject()) {
            auto found = parent->FindMember(Value(last.name, last.length));
            if (found != parent->MemberEnd()) {
                parent->EraseMember(found);
                return true;
            }
        }
        return false;
    }

    std::size_t originalIndex(const std::string& array, std::size_t index) const {
        auto erased = erased_.find(array);
        if (erased != erased_.end()) {
            auto indexes = erased->second;
            std::sort(indexes.begin(), indexes.end());
            for (std::size_t gone : indexes) {
                index += gone <= index ? 1 : 0;
            }
        }
        return index;
    }

    // `at` in the store as it was read, before any element of an array was removed.
    std::string original(const Pointer& at) const {
        std::string text;
        const Value* value = &store_;
        for (std::size_t i = 0; i < at.GetTokenCount(); ++i) {
            const auto& token = at.GetTokens()[i];
            if (value && value->IsArray()) {
                text += "/" + std::to_string(originalIndex(text, token.index));
                value = token.index < value->Size() ? &(*value)[token.index] : nullptr;
            } else {
                text +=
                    textOfPointer(prefix(at, i + 1)).substr(textOfPointer(prefix(at, i)).size());
                value = member(value, std::string(token.name, token.length).c_str());
            }
        }
        return text;
    }

    void applyRules() {
        if (Value* vlans = Pointer("/Vant/intfNameToVlanId").Get(store_);
            vlans && vlans->IsObject()) {
            std::set<std::string> seen;
            for (auto entry = vlans->MemberBegin(); entry != vlans->MemberEnd();) {
                const std::string name = textOf(entry->name);
                if (seen.insert(name).second) {
                    ++entry;
                    continue;
                }
                add(textOfPointer(pointerOf({"Vant", "intfNameToVlanId", name})),
                    name + " is turned routed a second time", Consequence::EndsProcess);
                entry = vlans->EraseMember(entry);
            }
        }
        if (Value* interfaces = Pointer("/Oku/interfaces").Get(store_);
            interfaces && interfaces->IsObject()) {
            for (auto entry = interfaces->MemberBegin(); entry != interfaces->MemberEnd();) {
                const std::string name = textOf(entry->name);
                if (createsVlanInterface(name, entry->value) && !hasVlanNumber(name)) {
                    add(textOfPointer(pointerOf({"Oku", "interfaces", name})),
                        name + " has no VLAN number after \"Vlan\"", Consequence::EndsProcess);
                    entry = interfaces->EraseMember(entry);
                } else {
                    ++entry;
                }
            }
        }
    }

    static bool createsVlanInterface(const std::string& name, const Value& facts) {
        const Value* ip = member(&facts, "ipAddress");
        const Value* ip6 = member(&facts, "ip6Address");
        return startsWith(name, "Vlan") && ip && ip6 && ip->IsString() && ip6->IsArray() &&
               !(ip6->Empty() && startsWith(textOf(*ip), "0.0.0.0"));
    }

    static bool hasVlanNumber(const std::string& name) {
        int vlan = 0;
        return std::sscanf(name.c_str(), "Vlan%d", &vlan) == 1;
    }

    // What only the sections' order decides (which names exist when an entry is read) is
    // found by the restore's own parser, run over what is left of the store.
    void parseRest() {
        ConfigParser::Ptr parser;
        if (platformType_ == "Strata") {
            parser = strataConfigParserFactory();
        } else {
            parser = sandConfigParserFactory();
        }
        parser->doCopyDocument(store_);
        std::vector<std::string> lines;
        {
            Quiet quiet(lines);
            try {
                parser->parse();
            } catch (const AssertionFailure& e) {
                add("", std::string("the restore would end on the assertion ") + e.what(),
                    Consequence::EndsProcess);
            }
        }
        for (const auto& line : lines) {
            skippedEntry(line);
        }
    }

    // Collects level-0 traces, keeps events out of the history and turns assertions into
    // exceptions, for as long as it lives.
    class Quiet {
      public:
        explicit Quiet(std::vector<std::string>& lines)
            : sink_(Trace::sink()), levels_(Trace::levels()), handler_(assertionHandler()) {
            Trace::levelsIs(1);
            Trace::sinkIs([&lines](std::string_view line) {
                lines.emplace_back(line.substr(std::string_view("Kestrune:0 ").size()));
            });
            assertionHandlerIs(throwAssertionFailure);
        }
        ~Quiet() {
            assertionHandlerIs(handler_);
            Trace::sinkIs(sink_);
            Trace::levelsIs(levels_);
        }
        Quiet(const Quiet&) = delete;
        Quiet& operator=(const Quiet&) = delete;

      private:
        Trace::Sink sink_;
        std::uint16_t levels_;
        AssertionHandler handler_;
        Log::Capture events_;
    };

    void skippedEntry(const std::string& line) {
        struct Message {
            std::string_view prefix;
            std::string_view suffix;
            std::string_view section;
            std::string_view entries;
        };
        static constexpr std::array<Message, 9> messages = {{
            {"doExtractVantInfo Skipping interface ", " as not in config", "Vant",
             "intfNameToVlanId"},
            {"doExtractOkuInfo interface ", " not found in config", "Oku", "interfaces"},
            {"Unexpected interface found in Oku interfaces ", "", "Oku", "interfaces"},
            {"doExtractOkuInfo Ignoring ", " due to invalid IP", "Oku", "interfaces"},
            {"Missing ipAddress information for ", "", "Oku", "interfaces"},
            {"Missing interface ", " in other PStores. Skipping", "Dorvel", "intfMtus"},
            {"Missing collectDistribute flags for member ", "", "Pell", ""},
            {"Skipping member ", "", "Pell", "inputIntfLag"},
            {"Skipping ", "", "Pell", "inputIntfLag"},
        }};
        for (const auto& message : messages) {
            if (!startsWith(line, message.prefix) ||
                line.size() < message.prefix.size() + message.suffix.size() ||
                line.compare(line.size() - message.suffix.size(), message.suffix.size(),
                             message.suffix) != 0) {
                continue;
            }
            std::string name = line.substr(
                message.prefix.size(), line.size() - message.prefix.size() - message.suffix.size());
            std::string pointer;
            if (message.entries.empty()) {
                pointer = textOfPointer(pointerOf({message.section, "collectDistribute"}));
            } else if (message.prefix == "Skipping member ") {
                pointer = memberPointer(name);
            } else {
                pointer = textOfPointer(pointerOf({message.section, message.entries, name}));
            }
            add(pointer, line, Consequence::SkipsEntry);
            return;
        }
    }

    // "M of L": the member's place in the Port-Channel's member list.
    std::string memberPointer(const std::string& memberOfLag) const {
        auto split = memberOfLag.rfind(" of ");
        std::string name = memberOfLag.substr(0, split);
        std::string lag = split == std::string::npos ? "" : memberOfLag.substr(split + 4);
        Pointer members = pointerOf({"Pell", "inputIntfLag", lag, "member"});
        if (const Value* list = members.Get(store_); list && list->IsArray()) {
            for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
                if ((*list)[i].IsString() && textOf((*list)[i]) == name) {
                    return textOfPointer(members) + "/" + std::to_string(i);
                }
            }
        }
        return textOfPointer(members);
    }

    rapidjson::Document& store_;
    std::vector<StoreProblem> problems_;
    std::string platformType_;
    std::set<std::string> pruned_;
    std::map<std::string, std::vector<std::size_t>> erased_;
};

} // namespace

std::string_view textOf(Consequence consequence) {
    for (const auto& [value, text] : consequenceTexts) {
        if (value == consequence) {
            return text;
        }
    }
    return "unknown";
}

std::vector<StoreProblem> StoreCheck::problemsOf(const std::string& storeText) {
    rapidjson::Document store;
    store.Parse(storeText.c_str(), storeText.size());
    if (store.HasParseError()) {
        return {{"",
                 std::string("not JSON: ") + rapidjson::GetParseError_En(store.GetParseError()) +
                     " at offset " + std::to_string(store.GetErrorOffset()),
                 Consequence::EndsProcess}};
    }
    return Checker(store).run();
}

} // namespace Kestrune
