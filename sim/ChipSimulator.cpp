#include "ChipSimulator.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Kestrune::Sim {

ChipSimulator::ChipSimulator(const std::string& logPath, Family family)
    : chip_(logPath, family, {}, Chip::LogWrites::buffered) {}

ChipSimulator::~ChipSimulator() {
    for (const auto& [fd, node] : open_) {
        ::close(fd);
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

void ChipSimulator::refusedIs(std::set<std::string> names) {
    std::string hanging;
    for (const char* tool : {"fab", "schan"}) {
        if (names.count(tool) != 0) {
            hanging += hanging.empty() ? tool : std::string(",") + tool;
        }
    }
    if (hanging.empty()) {
        unsetenv("KESTRUNE_CHIP_TOOLS_HANG");
    } else {
        setenv("KESTRUNE_CHIP_TOOLS_HANG", hanging.c_str(), 1);
    }
    chip_.refusedIs(std::move(names));
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
        // The restore's own memory: the record is as long as it says.
        const auto* record = static_cast<const unsigned char*>(argument);
        return chip_.bdeRecord(request, record,
                               Chip::recordSize(request, record, Chip::largestRequest));
    }
    // The request number is the command's length with its terminating NUL.
    const char* text = static_cast<const char*>(argument);
    if (request == 0 || text[request - 1] != '\0' || std::strlen(text) != request - 1) {
        errno = EINVAL;
        return -1;
    }
    return chip_.fabricCommand(text);
}

} // namespace Kestrune::Sim
