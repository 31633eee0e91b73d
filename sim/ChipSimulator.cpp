#include "ChipSimulator.h"

#include "util/Command.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/ether.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Sim {
namespace {

bool isInteger(const std::string& word) {
    if (word.empty()) {
        return false;
    }
    std::size_t at = word[0] == '-' ? 1 : 0;
    if (at == word.size()) {
        return false;
    }
    for (; at < word.size(); ++at) {
        if (word[at] < '0' || word[at] > '9') {
            return false;
        }
    }
    return true;
}

// The command tables of the two chip families: each command's words after its name. "%s" is a
// kernel device name, "%d" a decimal integer, "%w" any word (a FAP or PCI name); any other
// word must be there as written.
using CommandTable = std::map<std::string, std::vector<std::string>>;

const CommandTable& strataCommands() {
    static const CommandTable table{
        {"ifadd", {"%s", "%d", "%d", "%d", "%d", "%d", "%d"}},
        {"internalvlan", {"%s", "%d", "%d", "%d", "%d"}},
        {"lagmemberconfigadd", {"%d", "%d", "%d"}},
        {"lagmemberadd", {"%d", "%d", "%d"}},
        {"lagmemberupdate", {"%d", "%d", "%d", "%d"}},
    };
    return table;
}

const CommandTable& sandCommands() {
    static const CommandTable table{
        {"drvparams", {"%d", "%d", "%d"}},
        {"devname", {"%w", "%w"}},
        {"devparams", {"%w", "%d", "%d", "%d", "%d", "%d", "%d", "%d"}},
        {"devstate", {"%w", "up"}},
        {"ifadd", {"%s", "%d", "%d", "%w", "ctrl"}},
        {"native_vlan", {"%s", "%d", "%d"}},
        {"internalvlan", {"%d", "%s"}},
    };
    return table;
}

std::vector<std::string> wordsOf(const std::string& command) {
    std::istringstream stream(command);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

std::uint32_t u32At(const unsigned char* record, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

} // namespace

ChipSimulator::ChipSimulator(const std::string& logPath, Family family) : family_(family) {
    if (!logPath.empty()) {
        // Appending: the chip's tools add their lines to the same log as they run.
        log_ = std::fopen(logPath.c_str(), "w");
        if (log_ == nullptr || std::freopen(logPath.c_str(), "a", log_) == nullptr) {
            throw std::runtime_error("cannot write the chip log " + logPath + ": " +
                                     std::strerror(errno));
        }
    }
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    cpuDeviceIs("fabric");
}

ChipSimulator::~ChipSimulator() {
    for (const auto& [fd, node] : open_) {
        ::close(fd);
    }
    ::close(socket_);
    if (log_ != nullptr) {
        std::fclose(log_);
    }
}

ChipSimulator::Family ChipSimulator::familyOf(const std::string& platformType) {
    return platformType == "Sand" ? Family::sand : Family::strata;
}

void ChipSimulator::environmentIs(const std::string& toolsDir, const std::string& chipLog,
                                  const std::string& registers) {
    setenv("SIMULATION_VMID", "kestrune-simulate", 0);
    const char* path = std::getenv("PATH");
    setenv("PATH", (toolsDir + ":" + (path != nullptr ? path : "")).c_str(), 1);
    setenv("KESTRUNE_CHIP_LOG", chipLog.c_str(), 1);
    setenv("KESTRUNE_CHIP_REGISTERS", registers.c_str(), 1);
}

bool ChipSimulator::cpuDeviceIs(const std::string& name) {
    // The chip picks the MAC; the driver sets the bridge MAC afterwards.
    if (!taps_.createIntf(name, ether_addr{}, true, DEFAULT_NS)) {
        return false;
    }
    setMtu(name.c_str(), cpuMtu, socket_);
    devices_.insert(name);
    return true;
}

void ChipSimulator::log(const std::string& line) {
    if (log_ != nullptr) {
        std::fprintf(log_, "%s\n", line.c_str());
        std::fflush(log_);
    }
}

int ChipSimulator::open(const char* path, int) {
    const std::string name(path);
    Node node{};
    if (name == fabricDevicePath) {
        node = Node::fabric;
    } else if (name == bdeDevicePath) {
        node = Node::bde;
    } else {
        errno = ENOENT;
        return -1;
    }
    // A real descriptor number, so it is unique and positive like the driver's.
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        open_[fd] = node;
    }
    return fd;
}

int ChipSimulator::close(int fd) {
    if (open_.erase(fd) == 0) {
        errno = EBADF;
        return -1;
    }
    return ::close(fd);
}

int ChipSimulator::mknod(const char*, mode_t, dev_t) {
    // The simulated driver's nodes exist as soon as it does.
    errno = EEXIST;
    return -1;
}

int ChipSimulator::ioctl(int fd, unsigned long request, void* argument) {
    const auto node = open_.find(fd);
    // On a simulated switch a driver that loads no module never opens /dev/fabric and sends on
    // descriptor 0; the simulated kernel takes that as its fabric channel.
    const bool fabric = node == open_.end() ? fd == 0 : node->second == Node::fabric;
    if (node == open_.end() && !fabric) {
        errno = EBADF;
        return -1;
    }
    if (!fabric) {
        return bdeRecord(request, static_cast<const unsigned char*>(argument));
    }
    // The request number is the command's length with its terminating NUL.
    const char* text = static_cast<const char*>(argument);
    if (request == 0 || text[request - 1] != '\0' || std::strlen(text) != request - 1) {
        errno = EINVAL;
        return -1;
    }
    return fabricCommand(text);
}

std::string ChipSimulator::malformation(Family family, const std::string& command) {
    const std::vector<std::string> words = wordsOf(command);
    if (words.empty()) {
        return "empty command";
    }
    const CommandTable& table = family == Family::strata ? strataCommands() : sandCommands();
    const auto entry = table.find(words[0]);
    if (entry == table.end()) {
        return "unknown command " + words[0];
    }
    const std::vector<std::string>& shape = entry->second;
    if (words.size() != shape.size() + 1) {
        return words[0] + " takes " + std::to_string(shape.size()) + " arguments";
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const std::string& word = words[i + 1];
        std::string wanted;
        if (shape[i] == "%d") {
            wanted = isInteger(word) ? "" : "an integer";
        } else if (shape[i] == "%s") {
            wanted = isKernelDeviceName(word) ? "" : "a device name";
        } else if (shape[i] != "%w" && word != shape[i]) {
            wanted = "\"" + shape[i] + "\"";
        }
        if (!wanted.empty()) {
            std::string reason = words[0];
            reason += " argument " + std::to_string(i + 1);
            reason += " \"" + word + "\" is not ";
            return reason + wanted;
        }
    }
    return {};
}

int ChipSimulator::fabricCommand(const std::string& command) {
    log("fabric " + command);
    std::string problem = malformation(family_, command);
    const std::vector<std::string> words = wordsOf(command);
    if (problem.empty() && refused_.count(words[0]) != 0) {
        problem = "told to refuse " + words[0];
    }
    if (!problem.empty()) {
        TRACE(0) << "chip simulator refuses \"" << command << "\": " << problem;
        errno = EINVAL;
        return -1;
    }
    return family_ == Family::strata ? strataCommand(words) : sandCommand(words);
}

int ChipSimulator::strataCommand(const std::vector<std::string>& words) {
    const auto number = [&](std::size_t i) { return std::stoi(words[i]); };
    if (words[0] == "ifadd") {
        return newCpuDevice(words[1]);
    }
    if (words[0] == "internalvlan") {
        if (devices_.count(words[1]) == 0) {
            errno = ENODEV;
            return -1;
        }
        vlans_[words[1]][number(2)] = number(5);
        return 0;
    }
    LagMember& member = lags_[number(1)][{number(2), number(3)}];
    member.modId = number(2);
    member.port = number(3);
    if (words[0] == "lagmemberconfigadd") {
        member.configured = true;
    } else if (words[0] == "lagmemberadd") {
        member.added = true;
    } else {
        if (number(4) < 0 || number(4) > 3) {
            errno = EINVAL;
            return -1;
        }
        member.state = number(4);
    }
    return 0;
}

int ChipSimulator::sandCommand(const std::vector<std::string>& words) {
    const auto number = [&](std::size_t i) { return std::stoi(words[i]); };
    const auto refuse = [](int error) {
        errno = error;
        return -1;
    };
    // The chip's driver sizes its tables from the driver parameters: nothing else before them.
    if (words[0] == "drvparams") {
        driverParams_ = {number(1), number(2), number(3)};
        return 0;
    }
    if (!driverParams_) {
        return refuse(EINVAL);
    }
    if (words[0] == "devname") {
        return faps_.emplace(words[1], Fap{words[2], {}, false}).second ? 0 : refuse(EEXIST);
    }
    if (words[0] == "devparams" || words[0] == "devstate") {
        const auto fap = faps_.find(words[1]);
        if (fap == faps_.end()) {
            return refuse(ENODEV);
        }
        if (words[0] == "devparams") {
            fap->second.params.clear();
            for (std::size_t i = 2; i < words.size(); ++i) {
                fap->second.params.push_back(number(i));
            }
        } else if (fap->second.params.empty()) {
            return refuse(EINVAL);
        } else {
            fap->second.up = true;
        }
        return 0;
    }
    if (words[0] == "ifadd") {
        const auto fap = faps_.find(words[4]);
        if (fap == faps_.end() || !fap->second.up) {
            return refuse(ENODEV);
        }
        if (newCpuDevice(words[1]) != 0) {
            return -1;
        }
        sandPorts_[words[1]] = SandPort{number(2), number(3), words[4]};
        return 0;
    }
    const std::string& device = words[0] == "native_vlan" ? words[1] : words[2];
    const auto port = sandPorts_.find(device);
    if (port == sandPorts_.end()) {
        return refuse(ENODEV);
    }
    if (words[0] == "native_vlan") {
        // 4096, one past the largest VLAN id, is how the driver says "untagged".
        if (number(3) < 1 || number(3) > 4096) {
            return refuse(EINVAL);
        }
        port->second.dot1qTunnel = number(2);
        port->second.nativeVlan = number(3);
    } else {
        port->second.internalVlan = number(1);
    }
    return 0;
}

int ChipSimulator::newCpuDevice(const std::string& name) {
    if (devices_.count(name) != 0) {
        errno = EEXIST;
        return -1;
    }
    if (!cpuDeviceIs(name)) {
        errno = EIO;
        return -1;
    }
    return 0;
}

int ChipSimulator::bdeRecord(unsigned long request, const unsigned char* record) {
    if (request == bdeAddDeviceRequest) {
        log("bde adddevice bus=" + std::to_string(u32At(record, 8)) +
            " mod=" + std::to_string(u32At(record, 12)));
        return 0;
    }
    if (request == bdeEnableInterruptsRequest) {
        const std::uint32_t count = u32At(record, 28);
        std::string line = "bde interrupts " + std::to_string(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            line += " " + std::to_string(record[32 + i]);
        }
        log(line);
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

} // namespace Kestrune::Sim
