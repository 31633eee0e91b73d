#pragma once

#include <string>

namespace Kestrune {

// The hardware features the platform enables, read from a file of "name=value" lines
// ("applicationEnable=1"); "#" starts a comment. A flag is set when its value is 1. With no
// file every flag is off.
class HardwareFeatureStatus {
  public:
    static constexpr const char* defaultPath = "/etc/kestrune/hardware-features";

    explicit HardwareFeatureStatus(std::string path = defaultPath) : path_(std::move(path)) {}

    // Reads the file; a line it cannot read is traced with its place and skipped.
    void doPopulate();

    bool applicationEnable() const { return applicationEnable_; }

  private:
    std::string path_;
    bool applicationEnable_ = false;
};

} // namespace Kestrune
