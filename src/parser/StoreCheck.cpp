#include "parser/StoreCheck.h"

#include "model/ChipFamily.h"
#include "parser/SkippedEntries.h"
#include "parser/StoreFile.h"
#include "parser/StorePointer.h"
#include "parser/StoreValue.h"
#include "util/Json.h"

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

constexpr std::array<std::pair<Consequence, std::string_view>, 5> consequenceTexts = {{
    {Consequence::Warning, "warning"},
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
    JsonWriter writer(buffer);
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
    explicit Checker(rapidjson::Document& store) : store_(store) {
        untouched_.CopyFrom(store, untouched_.GetAllocator());
    }

    std::vector<StoreProblem> run() {
        if (store_.IsObject()) {
            unknownKeys(untouched_, schemaJson(), "", 0);
        }
        if (checkPlatform()) {
            validate();
            applyRules();
            auto skipped = skippedEntriesOf(store_, platformType_);
            problems_.insert(problems_.end(), skipped.begin(), skipped.end());
            settleWithTheParser(problems_, untouched_);
        }
        return problems_;
    }

  private:
    void add(const std::string& pointer, std::string message, Consequence consequence) {
        problems_.push_back({pointer, std::move(message), consequence});
    }

    // A schema rule with its "$ref" followed (to this schema's own definitions).
    static const Value& resolved(const Value& rule) {
        const Value* ref = member(&rule, "$ref");
        if (ref && ref->IsString() && startsWith(textOf(*ref), "#")) {
            if (const Value* target = Pointer(textOf(*ref).substr(1).c_str()).Get(schemaJson())) {
                return *target;
            }
        }
        return rule;
    }

    // Keys the restore does not read, in the sections it does: a warning each. The top level
    // is every agent's, so its other sections are not the restore's business.
    void unknownKeys(const Value& value, const Value& rawRule, const std::string& at,
                     unsigned depth) {
        const Value& rule = resolved(rawRule);
        if (value.IsArray()) {
            if (const Value* items = member(&rule, "items"); items && items->IsObject()) {
                for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
                    unknownKeys(value[i], *items, at + "/" + std::to_string(i), depth + 1);
                }
            }
            return;
        }
        const Value* properties = member(&rule, "properties");
        const Value* others = member(&rule, "additionalProperties");
        if (!value.IsObject() || (!properties && !(others && others->IsObject()))) {
            return;
        }
        for (const auto& entry : value.GetObject()) {
            const std::string key = textOf(entry.name);
            const std::string pointer = at + pointerToken(key);
            if (const Value* known = member(properties, key.c_str())) {
                unknownKeys(entry.value, *known, pointer, depth + 1);
            } else if (others && others->IsObject()) {
                unknownKeys(entry.value, *others, pointer, depth + 1);
            } else if (depth > 0) {
                add(pointer, "\"" + key + "\" is not a key the restore reads here: ignored",
                    Consequence::Warning);
            }
        }
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
        if (ChipFamily family{}; !chipFamilyOf(platformType_, family)) {
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
            if (value.HasMember(key) || pruned_.count(original(at) + pointerToken(name))) {
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
            const std::string array = original(parentPointer);
            auto& gone = erased_[array];
            const std::size_t index = originalIndex(array, last.index);
            gone.insert(std::lower_bound(gone.begin(), gone.end(), index), index);
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
            // Ascending, so each removal before the index moves it on by one.
            for (std::size_t gone : erased->second) {
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
                text += pointerToken(std::string_view(token.name, token.length));
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
                add(pointerText({"Vant", "intfNameToVlanId", name}),
                    name + " is turned routed a second time", Consequence::EndsProcess);
                entry = vlans->EraseMember(entry);
            }
        }
        if (Value* interfaces = Pointer("/Oku/interfaces").Get(store_);
            interfaces && interfaces->IsObject()) {
            for (auto entry = interfaces->MemberBegin(); entry != interfaces->MemberEnd();) {
                const std::string name = textOf(entry->name);
                if (createsVlanInterface(name, entry->value) && !hasVlanNumber(name)) {
                    add(pointerText({"Oku", "interfaces", name}),
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

    rapidjson::Document& store_;
    rapidjson::Document untouched_;
    std::vector<StoreProblem> problems_;
    std::string platformType_;
    std::set<std::string> pruned_;
    std::map<std::string, std::vector<std::size_t>> erased_; // sorted original indexes
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
    std::string reason;
    if (!StoreFile::doParse(storeText, store, reason)) {
        return {{"", "not JSON: " + reason, Consequence::EndsProcess}};
    }
    return Checker(store).run();
}

} // namespace Kestrune
