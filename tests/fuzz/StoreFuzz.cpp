// Fuzzes the way from store bytes to the model, and the store checker beside it.
//
// Two properties: the checker never ends the process, whatever the bytes; and a store the
// checker passes as survivable never trips an assertion of the restore's parser. Failed
// assertions throw here instead of aborting, so the assertions a store is meant to hit are
// not reported as crashes.
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "parser/StoreCheck.h"
#include "util/Json.h"
#include "util/Trace.h"

#include <algorithm>
#include <cstdint>
#include <string>

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
    const std::string text(reinterpret_cast<const char*>(data), size);
    auto problems = Kestrune::StoreCheck::problemsOf(text);
    const bool survivable =
        std::none_of(problems.begin(), problems.end(), [](const Kestrune::StoreProblem& p) {
            return p.consequence == Kestrune::Consequence::EndsProcess;
        });
    // The checker reads with StoreCheck's own parse call; the restore with a stream, which
    // stops at the same place for the same bytes.
    rapidjson::Document document;
    document.Parse(text.c_str(), text.size());
    try {
        auto parser = Kestrune::configParserCreatorFactory()->createFromDocument(document);
        if (parser) {
            parser->parse();
        }
    } catch (const Kestrune::AssertionFailure& failure) {
        if (survivable) {
            __builtin_trap(); // the checker passed a store the restore cannot survive
        }
    }
    return 0;
}
