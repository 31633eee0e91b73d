#pragma once

#include "parser/StoreCheck.h"
#include "util/Json.h"

#include <string>
#include <vector>

namespace Kestrune {

// The entries a restore skips because of the order of the sections (a name no earlier
// section creates, a name of no known kind): found by the restore's own parser, run over a
// store with nothing fatal left in it, quietly (traces collected, events kept out of the
// history, assertions thrown). An assertion it still meets is reported as ending the
// process.
// Settles what the problems say the restore comes to (ends the process in the parser, no
// restore) with what the restore's parser does with the store as it is: a value of the wrong
// type matters only where the parser reads it, and it skips whole entries and reads only the
// first of a key given twice.
void settleWithTheParser(std::vector<StoreProblem>& problems, const rapidjson::Document& store);

std::vector<StoreProblem> skippedEntriesOf(const rapidjson::Document& store,
                                           const std::string& platformType);

} // namespace Kestrune
