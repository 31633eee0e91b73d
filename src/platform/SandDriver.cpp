#include "platform/SandDriver.h"

#include "driver/CpuDevice.h"
#include "log/Log.h"
#include "platform/ChipDevice.h"
#include "util/Assert.h"
#include "util/Command.h"
#include "util/Format.h"
#include "util/HardwareFeatureStatus.h"
#include "util/Namespace.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace Kestrune {

const SandConfig& SandDriver::sandConfig() const {
    return dynamic_cast<const SandConfig&>(*config());
}

void SandDriver::eventIs(const std::string& message) {
    Log::logEvent("SandDriver", message);
}

bool SandDriver::failed(const std::string& message) {
    TRACE(0) << message;
    eventIs(message);
    return false;
}

bool SandDriver::doInit() {
    TRACE(3) << "doInit";
    const SandConfig& sand = sandConfig();
    Driver::doInit();
    setupFabricDevice();
    setupBdeDevice();
    // A refused command has already ended the process; there is no false to act on.
    doSetDriverParams();
    for (const auto& [name, fap] : sand.sandFapConfig()) {
        doAddDevice(fap);
    }
    // No doEnableInterrupts(): the Sand chip's driver enables its own.
    if (const std::string failure = fabricDeviceUp(config()->bridgeMac(), sockFd(DEFAULT_NS));
        !failure.empty()) {
        return failed(failure);
    }
    return true;
}

void SandDriver::setupFabricDevice() {
    if (simulatedSwitch()) {
        return;
    }
    HardwareFeatureStatus features;
    features.doPopulate();
    const std::string command =
        std::string("/sbin/modprobe sand-dma") + (features.applicationEnable() ? " app_en=1" : "");
    TRACE(0) << "setupFabricDevice"
             << " Loading sand-dma module: " << command;
    const int status = runCommand(command);
    if (status != 0) {
        TRACE(0) << "setupFabricDevice"
                 << " modprobe sand-dma rc " << status;
        eventIs(std::string("setupFabricDevice") + " modprobe sand-dma failed");
    }
    ChipDevice& device = chipDevice();
    const int made = device.mknod(fabricDevicePath, S_IFCHR | 0666, makedev(fabricDeviceMajor, 0));
    if (made != 0) {
        TRACE(0) << "setupFabricDevice"
                 << " mknod /dev/fabric rc " << made;
        eventIs(std::string("setupFabricDevice") + " mknod /dev/fabric failed");
    }
    const int fd = device.open(fabricDevicePath, O_RDWR);
    if (fd < 0) {
        TRACE(0) << "setupFabricDevice"
                 << " open failed. errno: " << errno;
        eventIs(std::string("setupFabricDevice") + " open failed.");
        KESTRUNE_ASSERT(0);
    }
    // Kept open: this is the channel every later command goes to.
    fabFd_ = fd;
    TRACE(0) << "setupFabricDevice"
             << " sand-dma driver loaded.";
}

void SandDriver::setupBdeDevice() {
    if (simulatedSwitch()) {
        return;
    }
    TRACE(0) << "setupBdeDevice"
             << " Loading "
             << "kovana-bde"
             << " kernel module and creating device";
    ChipDevice& device = chipDevice();
    const int made = device.mknod(bdeDevicePath, S_IFCHR | 0666, makedev(bdeDeviceMajor, 0));
    if (made != 0) {
        TRACE(0) << "setupBdeDevice"
                 << " mknod /dev/kovana-bde failed rc " << made;
        eventIs(std::string("setupBdeDevice") + " mknod /dev/kovana-bde failed");
    }
    const int fd = device.open(bdeDevicePath, O_RDWR | O_SYNC);
    if (fd < 0) {
        TRACE(0) << "setupBdeDevice"
                 << " open failed. errno " << errno;
        eventIs(std::string("setupBdeDevice") + " open failed.");
        KESTRUNE_ASSERT(0);
    }
    TRACE(0) << "setupBdeDevice"
             << " "
             << "kovana-bde"
             << "  driver loaded.";
    device.close(fd);
}

bool SandDriver::doSetDriverParams() const {
    TRACE(3) << "doSetDriverParams";
    const SandConfig& sand = sandConfig();
    const std::string cmd = formatted("drvparams %d %d %d", static_cast<int>(sand.maxLags()),
                                      static_cast<int>(sand.maxMembersPerLag()),
                                      static_cast<int>(sand.oldestFapType()));
    KESTRUNE_ASSERT_TEXT(doFabIoctl(cmd), "doFabIoctl( cmd )");
    return true;
}

bool SandDriver::doAddDevice(const SandFapConfig& fap) const {
    TRACE(3) << "doAddDevice"
             << " " << fap;
    const auto integer = [](std::uint32_t value) { return static_cast<int>(value); };
    for (const std::string& cmd :
         {formatted("devname %s %s", fap.name().c_str(), fap.pciName().c_str()),
          formatted("devparams %s %d %d %d %d %d %d %d", fap.name().c_str(), integer(fap.numFaps()),
                    integer(fap.fapType()), integer(fap.cpuTm()), integer(fap.cpuSflow()),
                    integer(fap.cpuAradSysPort()), integer(fap.cpuArad()),
                    integer(fap.cpuAradBridge())),
          formatted("devstate %s up", fap.name().c_str())}) {
        KESTRUNE_ASSERT_TEXT(doFabIoctl(cmd), "doFabIoctl( cmd )");
    }
    return true;
}

bool SandDriver::doEnableInterrupts() const {
    TRACE(3) << "doEnableInterrupts";
    return true;
}

bool SandDriver::doFabIoctl(const std::string& cmd) const {
    TRACE(3) << "doFabIoctl"
             << " " << cmd;
    return fabricIoctl(fabFd_, cmd);
}

} // namespace Kestrune
