#pragma once

#include "model/Config.h"

#include <string>

namespace Kestrune::Cli {

// The model as one JSON object, every attribute under the name its class's table gives it.
std::string modelJson(const Config& config);

} // namespace Kestrune::Cli
