// Fuzzes the chip device daemon's side of its character devices: every byte a local user can
// send through /dev/fabric or the bde node (both 0666, as the chip's are) reaches the same
// request reader, command parser and tables as in the daemon, with the bytes in a buffer of
// exactly their size so that a read past them is caught.
//
// An input is: one byte of choices (bit 0: Sand, bit 1: the bde node, bit 2: a second client,
// bit 3: a request number that does not follow from the bytes), then for a raw number four
// bytes of it, then the record or command. The clients are users other than root, so the
// devices they have the chip make stay within the daemon's cap; as root, in a network
// namespace of its own, so that they are real TAP devices nobody else sees.
#include "Chip.h"
#include "log/Log.h"
#include "platform/ChipDevice.h"
#include "util/Trace.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Kestrune::Sim::Chip;

std::string logPath;
std::unique_ptr<Chip> chips[2];

void removeLogs() {
    std::remove(logPath.c_str());
    std::remove((logPath + ".1").c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Kestrune::Trace::levelsIs(0);
    Kestrune::Log::historyPathIs("");
    if (geteuid() == 0 && unshare(CLONE_NEWNET) != 0) {
        std::perror("chip-fuzz: cannot have a network namespace of its own");
        std::exit(1);
    }
    const char* folder = std::getenv("TMPDIR");
    logPath = std::string(folder != nullptr ? folder : "/tmp") + "/chip-fuzz-" +
              std::to_string(getpid()) + ".log";
    std::atexit(removeLogs);
    chips[0] = std::make_unique<Chip>(logPath, Chip::Family::strata);
    chips[1] = std::make_unique<Chip>(logPath, Chip::Family::sand);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::uint8_t choices = data[0];
    const bool bde = (choices & 2) != 0;
    const unsigned client = (choices & 4) != 0 ? 65534 : 1000;
    std::size_t at = 1;
    unsigned long number = 0;
    if ((choices & 8) != 0) {
        std::uint32_t raw = 0;
        if (size < at + sizeof raw) {
            return 0;
        }
        std::memcpy(&raw, data + at, sizeof raw);
        at += sizeof raw;
        number = raw;
    } else if (bde) {
        number = (choices & 16) != 0 ? Kestrune::bdeEnableInterruptsRequest
                                     : Kestrune::bdeAddDeviceRequest;
    }
    std::vector<unsigned char> bytes(data + at, data + size);
    if (!bde && (choices & 8) == 0) {
        // A command as the driver sends it: its text, its NUL, and its length plus one.
        bytes.push_back('\0');
        number = bytes.size();
    }
    // The kernel hands the daemon nothing at first, then what it asks for and no more: go
    // round again, as CUSE does, with the size the chip wants while the input has it.
    Chip& chip = *chips[choices & 1];
    std::size_t given = 0;
    for (int round = 0; round < 3; ++round) {
        std::unique_ptr<unsigned char[]> exact(new unsigned char[given + (given == 0 ? 1 : 0)]);
        if (given != 0) {
            std::memcpy(exact.get(), bytes.data(), given);
        }
        std::size_t wanted = 0;
        const int result = chip.deviceRequest(bde, number, exact.get(), given, &wanted, client);
        if (result != 0 || wanted <= given || wanted > bytes.size()) {
            break;
        }
        given = wanted;
    }
    return 0;
}
