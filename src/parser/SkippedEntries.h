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
// The assertion the restore's parser ends on with this store, "" when it gets through:
// whether a problem the schema finds is ever reached.
std::string parserAssertionOn(const rapidjson::Document& store);

std::vector<StoreProblem> skippedEntriesOf(const rapidjson::Document& store,
                                           const std::string& platformType);

} // namespace Kestrune
