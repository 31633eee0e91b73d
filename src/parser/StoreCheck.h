#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Kestrune {

// What the restore does about a problem in a store, least severe first. A warning changes
// nothing the restore does (a key it does not read, rules it could not load to see), but may
// show a mistake: an interface whose "vfr" is not its "vrf" lands in the default VRF.
enum class Consequence { Warning, SkipsEntry, SkipsSection, NoRestore, EndsProcess };

std::string_view textOf(Consequence consequence);

struct StoreProblem {
    std::string pointer; // JSON Pointer into the store ("" for the whole document)
    std::string message;
    Consequence consequence;
    // Ends the process in the driver, past what parsing the store shows (a namespace name the
    // driver cannot enter, a device the chip refuses).
    bool inDriver = false;
};

// The pre-flight check of a store: every problem a restore from it would meet, found
// without ever ending the process. It validates the store against the store's JSON Schema
// (built into the library, schema/pstore.schema.json in the source), applies the rules a
// schema cannot say, and parses what remains with the restore's own parser to find the
// entries that name interfaces no earlier section creates.
class StoreCheck {
  public:
    static std::vector<StoreProblem> problemsOf(const std::string& storeText);
    static const char* schemaText();
};

} // namespace Kestrune
