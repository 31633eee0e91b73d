#include "util/HardwareFeatureStatus.h"

#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <fstream>
#include <string_view>

namespace Kestrune {
namespace {

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const std::size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

} // namespace

void HardwareFeatureStatus::doPopulate() {
    applicationEnable_ = false;
    std::ifstream file(path_);
    if (!file) {
        TRACE_EXTRA(9) << "HardwareFeatureStatus " << path_ << " absent: every feature off";
        return;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::string_view text = line;
        text = trimmed(text.substr(0, text.find('#')));
        if (text.empty()) {
            continue;
        }
        const std::size_t equals = text.find('=');
        const std::string_view name = trimmed(text.substr(0, equals));
        const std::string_view value = equals == std::string_view::npos
                                           ? std::string_view{}
                                           : trimmed(text.substr(equals + 1));
        if (equals == std::string_view::npos || name.empty() || (value != "0" && value != "1")) {
            TRACE_EXTRA(0) << "HardwareFeatureStatus " << path_ << ":" << number
                           << " expected name=0 or name=1, found \"" << line << "\"";
            continue;
        }
        if (name == "applicationEnable") {
            applicationEnable_ = value == "1";
        }
    }
}

} // namespace Kestrune
