// The fabric command tables of the two chip families, and the check of a command against
// them: what the chip's driver takes from the fabric channel, word by word.
#include "Chip.h"
#include "util/KernelName.h"

#include <map>
#include <sstream>

namespace Kestrune::Sim {
namespace {

bool isInteger(const std::string& word) {
    if (word.empty()) {
        return false;
    }
    std::size_t at = word[0] == '-' ? 1 : 0;
    if (at == word.size()) {
        return false;
    }
    for (; at < word.size(); ++at) {
        if (word[at] < '0' || word[at] > '9') {
            return false;
        }
    }
    return true;
}

// The command tables of the two chip families: each command's words after its name. "%s" is a
// kernel device name, "%d" a decimal integer, "%w" any word (a FAP or PCI name); any other
// word is a fixed slot and must be there as written.
// A command may have more than one shape ("ifadd" of a port and of a LAG); it is well formed
// when it has one of them.
using CommandTable = std::multimap<std::string, std::vector<std::string>>;

const CommandTable& strataCommands() {
    static const CommandTable table{
        {"ifadd", {"%s", "%d", "%d", "-1", "%d", "%d", "%d"}},
        {"ifadd", {"%s", "-1", "-1", "%d", "%d", "0", "0"}},
        {"internalvlan", {"%s", "%d", "0", "1", "%d"}},
        {"lagmemberconfigadd", {"%d", "%d", "%d"}},
        {"lagmemberadd", {"%d", "%d", "%d"}},
        {"lagmemberupdate", {"%d", "%d", "%d", "%d"}},
    };
    return table;
}

const CommandTable& sandCommands() {
    static const CommandTable table{
        {"drvparams", {"%d", "%d", "%d"}},
        {"devname", {"%w", "%w"}},
        {"devparams", {"%w", "%d", "%d", "%d", "%d", "%d", "%d", "%d"}},
        {"devstate", {"%w", "up"}},
        {"ifadd", {"%s", "%d", "%d", "%w", "ctrl"}},
        {"native_vlan", {"%s", "%d", "%d"}},
        {"internalvlan", {"%d", "%s"}},
    };
    return table;
}

} // namespace

std::vector<std::string> Chip::wordsOf(const std::string& command) {
    std::istringstream stream(command);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

const std::set<std::string>& Chip::faultNames() {
    static const std::set<std::string> names = [] {
        std::set<std::string> all{"adddevice",    "interrupts", "bde-reopen", "fabric-mac",
                                  "fabric-up",    "port-mac",   "port-up",    "port-mtu",
                                  "fabric-reset", "port-reset", "fab",        "schan"};
        for (const CommandTable* table : {&strataCommands(), &sandCommands()}) {
            for (const auto& [name, shape] : *table) {
                all.insert(name);
            }
        }
        return all;
    }();
    return names;
}

std::string Chip::malformation(Family family, const std::string& command) {
    const std::vector<std::string> words = wordsOf(command);
    if (words.empty()) {
        return "empty command";
    }
    const CommandTable& table = family == Family::strata ? strataCommands() : sandCommands();
    const auto [first, last] = table.equal_range(words[0]);
    if (first == last) {
        return "unknown command " + words[0];
    }
    // The reason the closest shape gives: the one that matched the most leading arguments.
    std::string reason;
    std::size_t closest = 0;
    for (auto entry = first; entry != last; ++entry) {
        const std::vector<std::string>& shape = entry->second;
        if (words.size() != shape.size() + 1) {
            if (reason.empty()) {
                reason = words[0] + " takes " + std::to_string(shape.size()) + " arguments";
            }
            continue;
        }
        std::size_t i = 0;
        std::string wanted;
        for (; i < shape.size() && wanted.empty(); ++i) {
            const std::string& word = words[i + 1];
            if (shape[i] == "%d") {
                wanted = isInteger(word) ? "" : "an integer";
            } else if (shape[i] == "%s") {
                wanted = isKernelDeviceName(word) ? "" : "a device name";
            } else if (shape[i] != "%w" && word != shape[i]) {
                wanted = "\"" + shape[i] + "\"";
            }
        }
        if (wanted.empty()) {
            return {};
        }
        if (i > closest) {
            closest = i;
            reason = words[0] + " argument " + std::to_string(i) + " \"" + words[i] + "\" is not " +
                     wanted;
        }
    }
    return reason;
}

} // namespace Kestrune::Sim
