#pragma once

#include "model/Config.h"
#include "parser/StoreCheck.h"
#include "util/Json.h"

#include <vector>

namespace Kestrune {

// What the driver will make of a parsed model that the parser took without complaint: names
// that cannot be kernel devices, VRF names that cannot be namespaces, addresses that cannot
// be added. Found with the same functions the driver uses, so the check and the restore
// agree.
std::vector<StoreProblem> modelProblemsOf(const Config& config, const rapidjson::Document& store);

} // namespace Kestrune
