#include "driver/DriverCreator.h"

#include "platform/StrataDriver.h"
#include "util/Trace.h"

namespace Kestrune {

Driver::Ptr DriverCreator::create() const {
    TRACE(3) << "create"
             << " platform = " << config_->platformType();
    // The Strata and Sand drivers come with their chip bring-up; until then no platform has a
    // driver and the caller gets null, as for an unknown platform.
    return nullptr;
}

} // namespace Kestrune
