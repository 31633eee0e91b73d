#pragma once

#include "model/Config.h"

#include <ostream>

namespace Kestrune::Cli {

// The model for a person: a summary line, a table of interfaces (one row each, the common
// attributes in columns, the class's own ones under DETAILS), then the chip records.
void printModelTable(std::ostream& out, const Config& config);

} // namespace Kestrune::Cli
