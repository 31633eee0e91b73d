#pragma once

#include "driver/Driver.h"
#include "model/Config.h"

#include <memory>

namespace Kestrune {

// Chooses the platform driver for the restored configuration's platform type.
class DriverCreator {
  public:
    using Ptr = std::shared_ptr<DriverCreator>;
    using PtrConst = std::shared_ptr<const DriverCreator>;

    explicit DriverCreator(Config::PtrConst config) : config_(std::move(config)) {}

    const Config::PtrConst& config() const { return config_; }

    // The driver of "Strata" or "Sand" (exact, case-sensitive); null for any other type.
    Driver::Ptr create() const;

  private:
    Config::PtrConst config_;
};

} // namespace Kestrune
