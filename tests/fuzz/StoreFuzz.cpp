// Fuzzes the way from store bytes to the model, and the store checker beside it.
//
// The checker never ends the process, whatever the bytes, and its verdict agrees with what
// the restore's parser actually does with the same bytes, read the same way (byte-order mark
// and all): a store it passes as survivable never trips an assertion; one it says ends the
// process in the parser does trip one; one it says gives no restore yields no parser.
// Failed assertions throw here instead of aborting, so the assertions a store is meant to hit
// are not reported as crashes.
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "parser/StoreCheck.h"
#include "parser/StoreFile.h"
#include "util/Json.h"
#include "util/Trace.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

bool any(const std::vector<Kestrune::StoreProblem>& problems, Kestrune::Consequence consequence) {
    return std::any_of(problems.begin(), problems.end(),
                       [&](const auto& p) { return p.consequence == consequence; });
}

// Ends the run as a crash the fuzzer keeps, saying which way the two disagreed.
[[noreturn]] void disagree(const char* what) {
    std::fprintf(stderr, "check and the restore disagree: %s\n", what);
    __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Kestrune::Trace::levelsIs(0);
    Kestrune::Log::historyPathIs("");
    Kestrune::assertionHandlerIs(Kestrune::throwAssertionFailure);
    // The checker compiles its schema once per process; done here, it is not taken for a
    // leak of the first input.
    Kestrune::StoreCheck::problemsOf(R"({"Tessaline": {"platformType": "Strata"}})");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Kestrune::Consequence;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const auto problems = Kestrune::StoreCheck::problemsOf(bytes);
    // The driver's own assertions (namespace names) are past what a parser can show.
    const bool endsInDriver =
        std::any_of(problems.begin(), problems.end(), [](const Kestrune::StoreProblem& p) {
            return p.consequence == Consequence::EndsProcess && p.inDriver;
        });
    const bool ends = any(problems, Consequence::EndsProcess) && !endsInDriver;

    rapidjson::Document document;
    std::string reason;
    Kestrune::StoreFile::doParse(bytes, document, reason);
    bool asserted = false;
    bool parserMade = false;
    try {
        auto parser = Kestrune::configParserCreatorFactory()->createFromDocument(document);
        parserMade = parser != nullptr;
        if (parser) {
            parser->parse();
        }
    } catch (const Kestrune::AssertionFailure&) {
        asserted = true;
    }
    if (asserted && !any(problems, Consequence::EndsProcess)) {
        disagree("check passed a store the restore cannot survive");
    }
    if (ends && !asserted) {
        disagree("check said the restore ends, and the parser survived");
    }
    if (!asserted && !ends && parserMade == any(problems, Consequence::NoRestore)) {
        disagree("check and the parser differ on whether there is a restore at all");
    }
    return 0;
}
