#include "Chip.h"

#include "model/ChipFamily.h"
#include "platform/ChipDevice.h"
#include "util/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Kestrune::Sim {
namespace {

std::uint32_t u32At(const unsigned char* record, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

} // namespace

Chip::Family Chip::familyOf(const std::string& platformType) {
    return platformType == sandPlatform ? Family::sand : Family::strata;
}

Chip::Family Chip::familyNamed(const std::string& name) {
    if (name != "strata" && name != "sand") {
        throw std::invalid_argument("no chip family \"" + name + "\": strata or sand");
    }
    return name == "sand" ? Family::sand : Family::strata;
}

Chip::Chip(const std::string& logPath, Family family, std::set<std::string> refused,
           LogWrites writes)
    : family_(family), refused_(std::move(refused)), writes_(writes), logPath_(logPath) {
    if (!logPath.empty()) {
        // Appending: the chip's tools add their lines to the same log as they run.
        log_ = std::fopen(logPath.c_str(), "w");
        if (log_ == nullptr || std::freopen(logPath.c_str(), "a", log_) == nullptr) {
            throw std::runtime_error("cannot write the chip log " + logPath + ": " +
                                     std::strerror(errno));
        }
    }
    // The chip picks the MAC; the driver sets the bridge MAC afterwards.
    if (ports_.made("fabric", kindFor("fabric")) != 0) {
        TRACE(0) << "chip: cannot make the fabric device: " << std::strerror(errno);
    }
}

Chip::~Chip() {
    if (log_ != nullptr) {
        std::fclose(log_);
    }
}

void Chip::log(const std::string& line) {
    if (log_ == nullptr) {
        return;
    }
    // The log lives on /run, in memory: whoever can reach the nodes must not fill it.
    std::string cut;
    const std::string* text = &line;
    if (line.size() > largestLogLine) {
        cut = line.substr(0, largestLogLine) + "... (" + std::to_string(line.size()) + " bytes)";
        text = &cut;
    }
    const long incoming = static_cast<long>(text->size()) + 1;
    if (logBytes_ + incoming > largestLog) {
        doRotateLog(incoming);
    }
    std::fwrite(text->data(), 1, text->size(), log_);
    std::fputc('\n', log_);
    logBytes_ += incoming;
    if (writes_ == LogWrites::eachLine) {
        std::fflush(log_);
    }
}

void Chip::doRotateLog(long incoming) {
    std::fflush(log_);
    // The chip's tools append to the same path, so what they wrote counts too.
    const long size = std::ftell(log_);
    if (size >= 0 && size + incoming <= largestLog) {
        logBytes_ = size;
        return;
    }
    const std::string older = logPath_ + ".1";
    if (std::rename(logPath_.c_str(), older.c_str()) != 0 ||
        std::freopen(logPath_.c_str(), "a", log_) == nullptr) {
        // Nowhere to write: better no more lines than a full /run.
        if (log_ != nullptr) {
            std::fclose(log_);
        }
        log_ = nullptr;
        return;
    }
    logBytes_ = 0;
}

void Chip::doFlushLog() {
    if (log_ != nullptr) {
        std::fflush(log_);
    }
}

int Chip::deviceRequest(bool bde, unsigned long number, const unsigned char* bytes,
                        std::size_t size, std::size_t* wanted, unsigned client) {
    if (bde) {
        *wanted = std::min(recordSize(number, bytes, size), largestRequest);
        if (*wanted == 0) {
            errno = ENOTTY;
            return -1;
        }
        // The enable-interrupts record's length is known only once its count is read, so it
        // can take two rounds.
        return size < *wanted ? 0 : bdeRecord(number, bytes, size);
    }
    // The request number is the command's length with its terminating NUL.
    *wanted = std::min<std::size_t>(number, largestRequest);
    if (size < *wanted) {
        return 0;
    }
    const char* text = reinterpret_cast<const char*>(bytes);
    if (number == 0 || number > largestRequest || text[number - 1] != '\0' ||
        std::strlen(text) != number - 1) {
        log("refused fabric request " + std::to_string(number) +
            ": its number is not the command's length plus one");
        errno = EINVAL;
        return -1;
    }
    return fabricCommand(text, client);
}

int Chip::tableRoom(std::size_t entries, const char* table) {
    if (entries < largestTable) {
        return 0;
    }
    log(std::string("refused: the ") + table + " table is full (" + std::to_string(largestTable) +
        " entries)");
    errno = ENOSPC;
    return -1;
}

int Chip::fabricCommand(const std::string& command, unsigned client) {
    log("fabric " + command);
    std::string problem = malformation(family_, command);
    const std::vector<std::string> words = wordsOf(command);
    if (problem.empty() && refuses(words[0])) {
        problem = "told to refuse " + words[0];
    }
    if (!problem.empty()) {
        TRACE(0) << "chip refuses \"" << command << "\": " << problem;
        errno = EINVAL;
        return -1;
    }
    try {
        const int result = family_ == Family::strata ? strataCommand(command, words, client)
                                                     : sandCommand(command, words, client);
        if (result == 0) {
            afterCommand(words);
        }
        return result;
    } catch (const std::out_of_range&) {
        // A number the driver's 32-bit fields cannot hold.
        errno = ERANGE;
        return -1;
    }
}

void Chip::afterCommand(const std::vector<std::string>& words) {
    if (words[0] == "ifadd" && refuses("fabric-reset") && !fabricReset_) {
        fabricReset_ = ports_.reset("fabric");
    }
    if (words[0] == "internalvlan" && refuses("port-reset")) {
        ports_.reset(family_ == Family::strata ? words[1] : words[2]);
    }
}

ChipPorts::Kind Chip::kindFor(const std::string& device) const {
    if (refuses(device + "-mac")) {
        return ChipPorts::Kind::noMac;
    }
    if (refuses(device + "-up")) {
        return ChipPorts::Kind::noUp;
    }
    // A port the chip resets is a VLAN kind too: its lower device is what goes down.
    if (refuses(device + "-mtu") || refuses(device + "-reset")) {
        return ChipPorts::Kind::jumbo;
    }
    return ChipPorts::Kind::ethernet;
}

int Chip::newCpuDevice(const std::string& name, const std::string& command, unsigned client) {
    unsigned& made = devicesOf_[client];
    if (client != rootClient && made >= devicesPerClient) {
        log("refused ifadd " + name + " from uid " + std::to_string(client) + ": it has made " +
            std::to_string(made) + " devices, the most a client other than root may");
        errno = EDQUOT;
        return -1;
    }
    // The device's record names who asked for it when that is not root: a device another
    // user had made is never what a restore's own command made, whatever its words.
    const std::string record =
        client == rootClient ? command : command + " (uid " + std::to_string(client) + ")";
    if (ports_.made(name, kindFor("port"), record) != 0) {
        const int error = errno;
        TRACE(0) << "chip: cannot make the CPU device " << name << ": " << std::strerror(error);
        errno = error == EEXIST ? EEXIST : error == EMFILE ? EMFILE : EIO;
        return -1;
    }
    ++made;
    return 0;
}

std::size_t Chip::recordSize(unsigned long request, const unsigned char* known,
                             std::size_t knownSize) {
    if (request == bdeAddDeviceRequest) {
        return 16;
    }
    if (request == bdeEnableInterruptsRequest) {
        // A count past the largest request says the record is that large, not 32 bytes more
        // than a count that wraps around a 32-bit size.
        return knownSize < 32 ? 32
                              : static_cast<std::size_t>(std::min<std::uint64_t>(
                                    32 + std::uint64_t{u32At(known, 28)}, largestRequest + 1));
    }
    return 0;
}

int Chip::strataCommand(const std::string& command, const std::vector<std::string>& words,
                        unsigned client) {
    const auto number = [&](std::size_t i) { return std::stoi(words[i]); };
    if (words[0] == "ifadd") {
        return newCpuDevice(words[1], command, client);
    }
    if (words[0] == "internalvlan") {
        if (!ports_.has(words[1])) {
            errno = ENODEV;
            return -1;
        }
        auto& vlans = vlans_[words[1]];
        if (vlans.count(number(2)) == 0) {
            if (tableRoom(vlanEntries_, "VLAN") != 0) {
                return -1;
            }
            ++vlanEntries_;
        }
        vlans[number(2)] = number(5);
        return 0;
    }
    const auto lag = lags_.find(number(1));
    if (lag == lags_.end() || lag->second.count({number(2), number(3)}) == 0) {
        if (tableRoom(lagMembers_, "LAG member") != 0) {
            return -1;
        }
        ++lagMembers_;
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

int Chip::sandCommand(const std::string& command, const std::vector<std::string>& words,
                      unsigned client) {
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
        if (tableRoom(faps_.size(), "FAP") != 0) {
            return -1;
        }
        return faps_.emplace(words[1], Fap{words[2], {}, false}).second ? 0 : refuse(EEXIST);
    }
    if (words[0] == "devparams" || words[0] == "devstate") {
        const auto fap = faps_.find(words[1]);
        if (fap == faps_.end()) {
            return refuse(ENODEV);
        }
        if (words[0] == "devparams") {
            // A device of no FAPs is no device: the driver keeps it down.
            if (number(2) < 1) {
                return refuse(EINVAL);
            }
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
        if (newCpuDevice(words[1], command, client) != 0) {
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

int Chip::bdeRecord(unsigned long request, const unsigned char* record, std::size_t size) {
    const std::size_t needed = recordSize(request, record, size);
    if (needed > size || needed > largestRequest) {
        log("refused bde request " + std::to_string(request) + ": its record says " +
            std::to_string(needed) + " bytes, " + std::to_string(size) + " given, at most " +
            std::to_string(largestRequest));
        errno = EINVAL;
        return -1;
    }
    std::string line;
    const char* name = nullptr;
    if (request == bdeAddDeviceRequest) {
        name = "adddevice";
        line = "bde adddevice bus=" + std::to_string(u32At(record, 8)) +
               " mod=" + std::to_string(u32At(record, 12));
    } else if (request == bdeEnableInterruptsRequest) {
        name = "interrupts";
        const std::uint32_t count = u32At(record, 28);
        line = "bde interrupts " + std::to_string(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            line += " " + std::to_string(record[32 + i]);
        }
    } else {
        errno = ENOTTY;
        return -1;
    }
    log(line);
    if (refuses(name)) {
        TRACE(0) << "chip refuses the bde request " << name << ": told to";
        errno = EIO;
        return -1;
    }
    return 0;
}

} // namespace Kestrune::Sim
