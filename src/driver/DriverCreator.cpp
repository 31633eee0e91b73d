#include "driver/DriverCreator.h"

#include "model/ChipFamily.h"
#include "platform/SandDriver.h"
#include "platform/StrataDriver.h"
#include "util/Trace.h"

namespace Kestrune {

Driver::Ptr DriverCreator::create() const {
    TRACE(3) << "create"
             << " platform = " << config_->platformType();
    if (config_->platformType() == strataPlatform) {
        TRACE(0) << "Creating Strata driver";
        return std::make_shared<StrataDriver>(config_);
    }
    if (config_->platformType() == sandPlatform) {
        TRACE(0) << "Creating Sand driver";
        return std::make_shared<SandDriver>(config_);
    }
    return nullptr;
}

} // namespace Kestrune
