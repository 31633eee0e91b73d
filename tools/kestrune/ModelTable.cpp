#include "ModelTable.h"

#include "model/LagMember.h"
#include "model/SandConfig.h"
#include "model/StrataConfig.h"

#include <algorithm>
#include <array>
#include <iomanip>

namespace Kestrune::Cli {

namespace {

constexpr std::array<std::string_view, 7> columns = {
    "name", "interfaceType", "netNsName", "mtu", "l2Mtu", "primaryIpv4", "secondaryIpv4"};
constexpr std::array<std::string_view, 7> headings = {"NAME",  "TYPE", "NAMESPACE", "MTU",
                                                      "L2MTU", "IPV4", "SECONDARY"};

struct PlainText {
    std::string operator()(const std::string& v) const { return v.empty() ? "-" : v; }
    std::string operator()(const FlagSet& v) const {
        std::string text;
        for (const auto& [address, flag] : v) {
            text += (text.empty() ? "" : ",") + address;
        }
        return text.empty() ? "-" : text;
    }
    std::string operator()(const MemberSet& v) const {
        std::string text;
        for (const auto& [name, member] : v) {
            text += (text.empty() ? "" : ",") + name + "(" + (member->collecting() ? "c" : "-") +
                    (member->distributing() ? "d" : "-") + ")";
        }
        return text.empty() ? "-" : text;
    }
    template <class T>
    std::string operator()(const T& v) const {
        return attributeText(v);
    }
};

std::string plain(const AttributeValue& value) {
    return std::visit(PlainText{}, value);
}

bool isColumn(std::string_view name) {
    return std::find(columns.begin(), columns.end(), name) != columns.end();
}

std::vector<std::string> rowOf(const Interface& interface) {
    std::vector<std::string> row;
    for (std::string_view column : columns) {
        const auto* attribute = attributeNamed(interface.attributes(), column);
        row.push_back(plain(attribute->read(interface)));
    }
    std::string details;
    for (const auto& attribute : interface.attributes()) {
        if (!isColumn(attribute.name)) {
            details += (details.empty() ? "" : " ") + std::string(attribute.name) + "=" +
                       plain(attribute.read(interface));
        }
    }
    row.push_back(details);
    return row;
}

std::size_t lineCount(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) +
           (!text.empty() && text.back() != '\n' ? 1 : 0);
}

void printSummary(std::ostream& out, const Config& config) {
    out << (config.platformType().empty() ? "Unknown" : config.platformType())
        << " switch, bridge MAC " << plain(config.bridgeMac()) << ", " << config.interface().size()
        << " interfaces, filter rules: ";
    if (auto rules = config.iptablesConfig()) {
        out << lineCount(rules->iptables()) << " IPv4 lines, " << lineCount(rules->ip6tables())
            << " IPv6 lines\n";
    } else {
        out << "none\n";
    }
}

void printRecords(std::ostream& out, const Config& config) {
    if (const auto* strata = dynamic_cast<const StrataConfig*>(&config)) {
        out << "\nModules:\n";
        for (const auto& [module, flag] : strata->strataModule()) {
            out << "  " << module << '\n';
        }
    }
    if (const auto* sand = dynamic_cast<const SandConfig*>(&config)) {
        // The attributes Sand adds to the root's: its driver parameters.
        out << "\nDriver parameters:";
        const AttributeTable<Config> root = Config().attributes();
        for (const auto& attribute : sand->attributes()) {
            if (!attributeNamed(root, attribute.name)) {
                out << ' ' << attribute.name << '=' << plain(attribute.read(*sand));
            }
        }
        out << "\nFAP devices:\n";
        for (const auto& [name, fap] : sand->sandFapConfig()) {
            out << "  " << fap << '\n';
        }
    }
}

} // namespace

void printModelTable(std::ostream& out, const Config& config) {
    printSummary(out, config);
    std::vector<std::vector<std::string>> rows;
    rows.emplace_back(headings.begin(), headings.end());
    rows.back().emplace_back("DETAILS");
    for (const auto& [name, interface] : config.interface()) {
        rows.push_back(rowOf(*interface));
    }
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    out << '\n';
    for (const auto& row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); ++i) {
            out << std::left << std::setw(static_cast<int>(widths[i] + 2)) << row[i];
        }
        out << row.back() << '\n';
    }
    printRecords(out, config);
}

} // namespace Kestrune::Cli
