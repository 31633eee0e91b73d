#include "parser/SkippedEntries.h"

#include "log/Log.h"
#include "model/ChipFamily.h"
#include "parser/ConfigParserCreator.h"
#include "parser/ModelProblems.h"
#include "parser/SandConfigParser.h"
#include "parser/StorePointer.h"
#include "parser/StoreValue.h"
#include "parser/StrataConfigParser.h"
#include "util/Trace.h"

#include <algorithm>
#include <array>
#include <rapidjson/pointer.h>

namespace Kestrune {

namespace {

// Collects level-0 traces, keeps events out of the history and turns assertions into
// exceptions, for as long as it lives; then puts back what the caller had.
class Quiet {
  public:
    explicit Quiet(std::vector<std::string>& lines)
        : sink_(Trace::sink()), levels_(Trace::levels()) {
        Trace::levelsIs(1);
        Trace::sinkIs([&lines](std::string_view line) {
            lines.emplace_back(line.substr(std::string_view("Kestrune:0 ").size()));
        });
    }
    ~Quiet() {
        Trace::sinkIs(sink_);
        Trace::levelsIs(levels_);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

  private:
    Trace::Sink sink_;
    std::uint16_t levels_;
    AssertionsThrow assertions_;
    Log::Capture events_;
};

// The messages that skip one entry, and where in the store that entry is.
struct Message {
    std::string_view prefix;
    std::string_view suffix;
    std::string_view section;
    std::string_view entries; // empty: the entry is missing, point at the section's map
};

constexpr std::array<Message, 9> messages = {{
    {"doExtractVantInfo Skipping interface ", " as not in config", "Vant", "intfNameToVlanId"},
    {"doExtractOkuInfo interface ", " not found in config", "Oku", "interfaces"},
    {"Unexpected interface found in Oku interfaces ", "", "Oku", "interfaces"},
    {"doExtractOkuInfo Ignoring ", " due to invalid IP", "Oku", "interfaces"},
    {"Missing ipAddress information for ", "", "Oku", "interfaces"},
    {"Missing interface ", " in other PStores. Skipping", "Dorvel", "intfMtus"},
    {"Missing collectDistribute flags for member ", "", "Pell", ""},
    {"Skipping member ", "", "Pell", "inputIntfLag"},
    {"Skipping ", "", "Pell", "inputIntfLag"},
}};

// "M of L": the member's place in the Port-Channel's member list.
std::string memberPointer(const rapidjson::Document& store, const std::string& memberOfLag) {
    auto split = memberOfLag.rfind(" of ");
    std::string name = memberOfLag.substr(0, split);
    std::string lag = split == std::string::npos ? "" : memberOfLag.substr(split + 4);
    std::string members = pointerText({"Pell", "inputIntfLag", lag, "member"});
    const auto* list = rapidjson::Pointer(members.c_str()).Get(store);
    if (list && list->IsArray()) {
        for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
            if ((*list)[i].IsString() && textOf((*list)[i]) == name) {
                return members + "/" + std::to_string(i);
            }
        }
    }
    return members;
}

void addSkippedEntry(std::vector<StoreProblem>& problems, const rapidjson::Document& store,
                     const std::string& line) {
    for (const auto& message : messages) {
        if (!startsWith(line, message.prefix) ||
            line.size() < message.prefix.size() + message.suffix.size() ||
            line.compare(line.size() - message.suffix.size(), message.suffix.size(),
                         message.suffix) != 0) {
            continue;
        }
        const std::string name = line.substr(
            message.prefix.size(), line.size() - message.prefix.size() - message.suffix.size());
        std::string pointer;
        if (message.entries.empty()) {
            pointer = pointerText({message.section, "collectDistribute"});
        } else if (message.prefix == "Skipping member ") {
            pointer = memberPointer(store, name);
        } else {
            pointer = pointerText({message.section, message.entries, name});
        }
        problems.push_back({pointer, line, Consequence::SkipsEntry});
        return;
    }
}

struct ParserOutcome {
    bool parserMade = false;
    std::string assertion; // the assertion it ends on, "" when it gets through
};

ParserOutcome parserOutcomeOn(const rapidjson::Document& store) {
    std::vector<std::string> lines;
    const Quiet quiet(lines);
    ParserOutcome outcome;
    try {
        if (const auto parser = configParserCreatorFactory()->createFromDocument(store)) {
            outcome.parserMade = true;
            parser->parse();
        }
    } catch (const AssertionFailure& e) {
        outcome.assertion = e.what();
    }
    return outcome;
}

// Makes the problems that `predicts` agree with what `happens`: one that does not happen is
// never reached; one that happens unpredicted is added as `missing`.
template <class Predicate>
void settle(std::vector<StoreProblem>& problems, const Predicate& predicts, bool happens,
            StoreProblem missing) {
    const bool predicted = std::any_of(problems.begin(), problems.end(), predicts);
    if (happens && !predicted) {
        problems.push_back(std::move(missing));
    } else if (!happens && predicted) {
        for (StoreProblem& problem : problems) {
            if (predicts(problem)) {
                problem.message += "; the restore never reads this value";
                problem.consequence = Consequence::SkipsEntry;
            }
        }
    }
}

} // namespace

void settleWithTheParser(std::vector<StoreProblem>& problems, const rapidjson::Document& store) {
    const ParserOutcome outcome = parserOutcomeOn(store);
    const auto endsInParser = [](const StoreProblem& problem) {
        return problem.consequence == Consequence::EndsProcess && !problem.inDriver;
    };
    const auto noRestore = [](const StoreProblem& problem) {
        return problem.consequence == Consequence::NoRestore;
    };
    settle(problems, endsInParser, !outcome.assertion.empty(),
           {"", "the restore would end on the assertion " + outcome.assertion,
            Consequence::EndsProcess});
    if (outcome.assertion.empty()) {
        settle(problems, noRestore, !outcome.parserMade,
               {"", "the restore would find no parser for the store", Consequence::NoRestore});
    }
}

std::vector<StoreProblem> skippedEntriesOf(const rapidjson::Document& store,
                                           const std::string& platformType) {
    ConfigParser::Ptr parser;
    if (platformType == strataPlatform) {
        parser = strataConfigParserFactory();
    } else {
        parser = sandConfigParserFactory();
    }
    parser->doCopyDocument(store);
    std::vector<StoreProblem> problems;
    std::vector<std::string> lines;
    Config::Ptr config;
    {
        Quiet quiet(lines);
        try {
            config = parser->parse();
        } catch (const AssertionFailure& e) {
            problems.push_back({"",
                                std::string("the restore would end on the assertion ") + e.what(),
                                Consequence::EndsProcess});
        }
    }
    for (const auto& line : lines) {
        addSkippedEntry(problems, store, line);
    }
    if (config) {
        const auto more = modelProblemsOf(*config, store);
        problems.insert(problems.end(), more.begin(), more.end());
    }
    return problems;
}

} // namespace Kestrune
