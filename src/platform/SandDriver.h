#pragma once

#include "driver/Driver.h"
#include "model/SandConfig.h"
#include "model/SandFapConfig.h"

#include <cstdint>
#include <string>

namespace Kestrune {

// The driver of Sand-family switches. Its bring-up differs from Strata's on purpose: the DMA
// module is loaded unconditionally and the descriptor opened then is the one commands go to,
// the FAP devices are registered by fabric commands rather than bde records, and there is no
// interrupt step. Ports become CPU devices through "ifadd"; subinterfaces and LAGs are not
// made in the kernel on this platform.
class SandDriver : public Driver {
  public:
    using Ptr = std::shared_ptr<SandDriver>;
    using PtrConst = std::shared_ptr<const SandDriver>;

    // One past the largest VLAN id: what the chip takes as "no native VLAN".
    static constexpr int noNativeVlan = 4096;

    explicit SandDriver(Config::PtrConst config) : Driver(std::move(config)) {}

    std::int32_t fabFd() const { return fabFd_; }

    bool doInit() override;
    void setupFabricDevice();
    static void setupBdeDevice();
    bool doSetDriverParams() const;
    bool doAddDevice(const SandFapConfig& fap) const;
    bool doEnableInterrupts() const;
    // Sends one command on the fabric channel: true when the chip's driver took it.
    bool doFabIoctl(const std::string& cmd) const;

    std::string chipDeviceCommand(const Interface& intf) const override;
    bool createInterface(const Interface* intf, const std::string& mac, bool routed);
    bool createL2Interface(const Interface* intf, const std::string& mac) override;
    bool createRoutedPortInterface(const Interface* intf, const std::string& mac) override;
    bool createSubInterface(const Interface* intf, const std::string& mac) override;
    bool createLagInterface(const Interface* intf, const std::string& mac) override;

    static void eventIs(const std::string& message);

  private:
    const SandConfig& sandConfig() const;
    // The failure's trace and its event, with the same text.
    static bool failed(const std::string& message);

    std::int32_t fabFd_ = 0;
};

} // namespace Kestrune
