#pragma once

#include "driver/Driver.h"
#include "model/StrataConfig.h"
#include "model/StrataModule.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace Kestrune {

// The driver of Strata-family switches: brings the chip's kernel side up (bde module id, DMA
// module and the "fabric" device, device nodes, chip registration, register fixes,
// interrupts) and creates the CPU devices of ports, LAGs and subinterfaces through the
// fabric command channel.
class StrataDriver : public Driver {
  public:
    using Ptr = std::shared_ptr<StrataDriver>;
    using PtrConst = std::shared_ptr<const StrataDriver>;

    static constexpr const char* bdeOptionsFile = "/etc/modprobe.d/kovana-bde.conf";
    static constexpr mode_t bdeOptionsMode = 0644;

    explicit StrataDriver(Config::PtrConst config) : Driver(std::move(config)) {}

    std::int32_t fabFd() const { return fabFd_; }

    bool doInit() override;
    static void configureBdeModuleParam();
    static void setupFabricDevice();
    static void setupBdeDevice();
    bool doAddDevice(const StrataModule& module) const;
    bool doEnableInterrupts() const;
    // Sends one command on the fabric channel: true when the chip's driver took it.
    bool doFabIoctl(const std::string& cmd) const;

    std::string chipDeviceCommand(const Interface& intf) const override;
    bool createInterface(const Interface* intf, const std::string& mac);
    bool createL2Interface(const Interface* intf, const std::string& mac) override;
    bool createRoutedPortInterface(const Interface* intf, const std::string& mac) override;
    bool createSubInterface(const Interface* intf, const std::string& mac) override;
    bool createLagInterface(const Interface* intf, const std::string& mac) override;

    static void eventIs(const std::string& message);

  private:
    const StrataConfig& strataConfig() const;
    // The failure's trace and its event, with the same text.
    static bool failed(const std::string& message);

    std::int32_t fabFd_ = 0;
};

// The register fixes some chip models need before use; true when none is needed.
bool chipSpecificInit(const StrataModule& module);
// "Port-Channel12" -> 12; -1 for any other name.
int getLagIdFromName(const std::string& name);

} // namespace Kestrune
