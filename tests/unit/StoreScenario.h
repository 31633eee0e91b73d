#pragma once

#include "Scenario.h"

#include <map>
#include <string>

namespace Kestrune::Testing {

// The model a parse produced, as text: object -> attribute -> text form. Interfaces are
// keyed by name (with the pseudo-attribute "class"); the root is "<config>", Strata modules
// are "<modules>" (text form -> flag) and Sand FAPs "<fap NAME>".
using ModelText = std::map<std::string, std::map<std::string, std::string>>;

struct ParseOutcome {
    Outcome process;
    // The trace lines from the parse on, without the platform-section lookups ("Found
    // strata", "Found sand"), which are counted instead.
    std::vector<std::string> traces;
    int platformLookups = 0;
    ModelText model;
};

enum class Family { Strata, Sand };

// Parses `store` with the family's parser in a child process, as the restore does: with the
// command line's guards, or with none (`libraryDefaults`), as a start-up process that sets none.
ParseOutcome parseIn(const TempDir& dir, Family family, const std::string& store,
                     bool libraryDefaults = false);

// A store of the family in which every section is present and empty, so it parses without a
// message; `sections` replaces or adds top-level members (raw JSON text by key), and an empty
// text removes the member.
std::string storeWith(Family family, const std::map<std::string, std::string>& sections);

} // namespace Kestrune::Testing
