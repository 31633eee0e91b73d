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
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Sim {
namespace {

constexpr unsigned long addDeviceRequest = 0x4C34;
constexpr unsigned long enableInterruptsRequest = 0x4C06;

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

// The Strata command table: each command's words after its name. 's' a kernel device name,
// 'd' a decimal integer.
const std::map<std::string, std::string>& commandTable() {
    static const std::map<std::string, std::string> table{
        {"ifadd", "sdddddd"},    {"internalvlan", "sdddd"},   {"lagmemberconfigadd", "ddd"},
        {"lagmemberadd", "ddd"}, {"lagmemberupdate", "dddd"},
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

ChipSimulator::ChipSimulator(const std::string& logPath) {
    if (!logPath.empty()) {
        // Appending: the chip's tools add their lines to the same log as they run.
        std::fclose(std::fopen(logPath.c_str(), "w"));
        log_ = std::fopen(logPath.c_str(), "a");
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
    if (name == "/dev/fabric") {
        node = Node::fabric;
    } else if (name == "/dev/kovana-bde") {
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
    if (node == open_.end()) {
        errno = EBADF;
        return -1;
    }
    if (node->second == Node::bde) {
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

std::string ChipSimulator::malformation(const std::string& command) {
    const std::vector<std::string> words = wordsOf(command);
    if (words.empty()) {
        return "empty command";
    }
    const auto entry = commandTable().find(words[0]);
    if (entry == commandTable().end()) {
        return "unknown command " + words[0];
    }
    const std::string& shape = entry->second;
    if (words.size() != shape.size() + 1) {
        return words[0] + " takes " + std::to_string(shape.size()) + " arguments";
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const std::string& word = words[i + 1];
        if (shape[i] == 'd' ? !isInteger(word) : !isKernelDeviceName(word)) {
            return words[0] + " argument " + std::to_string(i + 1) + " \"" + word + "\" is not " +
                   (shape[i] == 'd' ? "an integer" : "a device name");
        }
    }
    return {};
}

int ChipSimulator::fabricCommand(const std::string& command) {
    log("fabric " + command);
    const std::string problem = malformation(command);
    if (!problem.empty()) {
        TRACE(0) << "chip simulator refuses \"" << command << "\": " << problem;
        errno = EINVAL;
        return -1;
    }
    const std::vector<std::string> words = wordsOf(command);
    const auto number = [&](std::size_t i) { return std::stoi(words[i]); };
    if (words[0] == "ifadd") {
        if (devices_.count(words[1]) != 0) {
            errno = EEXIST;
            return -1;
        }
        if (!cpuDeviceIs(words[1])) {
            errno = EIO;
            return -1;
        }
    } else if (words[0] == "internalvlan") {
        if (devices_.count(words[1]) == 0) {
            errno = ENODEV;
            return -1;
        }
        vlans_[words[1]][number(2)] = number(5);
    } else {
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
    }
    return 0;
}

int ChipSimulator::bdeRecord(unsigned long request, const unsigned char* record) {
    if (request == addDeviceRequest) {
        log("bde adddevice bus=" + std::to_string(u32At(record, 8)) +
            " mod=" + std::to_string(u32At(record, 12)));
        return 0;
    }
    if (request == enableInterruptsRequest) {
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
