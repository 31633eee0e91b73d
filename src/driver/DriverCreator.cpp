#include "driver/DriverCreator.h"

#include "platform/StrataDriver.h"
#include "util/Trace.h"

namespace Kestrune {

Driver::Ptr DriverCreator::create() const {
    TRACE(3) << "create"
             << " platform = " << config_->platformType();
    if (config_->platformType() == "Strata") {
        TRACE(0) << "Creating Strata driver";
        return std::make_shared<StrataDriver>(config_);
    }
    // The Sand driver comes with its chip bring-up; until then its platform, like an unknown
    // one, gets null.
    return nullptr;
}

} // namespace Kestrune
