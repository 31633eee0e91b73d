// The chip device daemon: the switch chip's kernel side as a user-space program. It serves
// /dev/fabric and the bde device as real character devices through CUSE, makes the "fabric"
// net device and, on "ifadd", the CPU devices, and keeps them as the chip's kernel driver
// would, for as long as it runs. A switch image starts it where the DMA module would load, with
// an install line in /etc/modprobe.d/:
//
//   install strata-dma-drv kestrune-chip-daemon --family strata --module strata-dma-drv
//       --chip-log /run/kestrune/chip.log $CMDLINE_OPTS
//
// (one line in the file).
//
// It returns once both devices are registered, as a module load does, and runs on in the
// background until SIGTERM.
#include "Chip.h"
#include "CuseNode.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Kestrune::Sim;

volatile std::sig_atomic_t stopping = 0;

void stop(int) {
    stopping = 1;
}

struct Options {
    std::string family = "strata";
    std::string module;
    std::string chipLog;
    std::string pidFile;
    std::string refused;
    bool foreground = false;
    std::vector<std::string> parameters;
};

std::set<std::string> refusals(const std::string& names) {
    std::set<std::string> all;
    std::istringstream words(names);
    for (std::string name; std::getline(words, name, ',');) {
        if (Chip::faultNames().count(name) == 0) {
            throw std::invalid_argument("--refuse: the chip knows no \"" + name + "\"");
        }
        all.insert(name);
    }
    return all;
}

// Serves both devices until told to stop or the kernel closes them; 0 when stopped by signal.
int serve(CuseNode& fabric, CuseNode& bde, int readyPipe) {
    pollfd fds[2] = {{fabric.fd(), POLLIN, 0}, {bde.fd(), POLLIN, 0}};
    CuseNode* nodes[2] = {&fabric, &bde};
    while (stopping == 0) {
        if (readyPipe >= 0 && fabric.ready() && bde.ready()) {
            [[maybe_unused]] const ssize_t told = ::write(readyPipe, "", 1);
            ::close(readyPipe);
            readyPipe = -1;
            // Whoever loaded the module may wait for the end of its output: let go of it.
            const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            ::dup2(null, STDERR_FILENO);
            ::close(null);
        }
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return 1;
        }
        for (int i = 0; i < 2; ++i) {
            if ((fds[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0 && !nodes[i]->handle()) {
                return stopping != 0 ? 0 : 1;
            }
        }
    }
    return 0;
}

// The parent waits for the child to say both devices are up, then hands back as a module load
// would: 0, or 1 with the reason already printed.
int detached(int* readyPipe) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        return -1;
    }
    if (child > 0) {
        ::close(fds[1]);
        char byte = 0;
        const bool ready = ::read(fds[0], &byte, 1) == 1;
        std::_Exit(ready ? 0 : 1);
    }
    ::close(fds[0]);
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
    *readyPipe = fds[1];
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Serves the switch chip's character devices (/dev/fabric, /dev/kovana-bde) "
                 "through CUSE, as the chip's kernel driver would",
                 "kestrune-chip-daemon"};
    Options options;
    app.add_option("--family", options.family, "The chip family: strata or sand")
        ->check(CLI::IsMember({"strata", "sand"}));
    app.add_option("--module", options.module, "The module this daemon stands for (logged)");
    app.add_option("--chip-log", options.chipLog, "Where to write the chip log");
    app.add_option("--pid-file", options.pidFile, "Where to write the daemon's process id");
    std::string faults;
    for (const std::string& name : Chip::faultNames()) {
        faults += (faults.empty() ? "" : ", ") + name;
    }
    app.add_option("--refuse", options.refused,
                   "Rehearse a chip in trouble: what to refuse, comma-separated, of " + faults);
    app.add_flag("--foreground", options.foreground, "Stay in the foreground");
    app.add_option("parameters", options.parameters, "The module parameters (logged)");
    CLI11_PARSE(app, argc, argv);

    try {
        const std::set<std::string> refused = refusals(options.refused);
        int readyPipe = -1;
        if (!options.foreground && detached(&readyPipe) != 0) {
            std::perror("kestrune-chip-daemon: cannot detach");
            return 1;
        }
        // A CPU device holds one descriptor: the chip's ports need as many as the kernel
        // allows, as a kernel driver has no such limit.
        rlimit files{};
        if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
            files.rlim_cur = files.rlim_max;
            ::setrlimit(RLIMIT_NOFILE, &files);
        }
        std::signal(SIGTERM, stop);
        std::signal(SIGINT, stop);
        if (!options.pidFile.empty()) {
            std::ofstream(options.pidFile) << ::getpid() << "\n";
        }
        Chip chip(options.chipLog, Chip::familyNamed(options.family), refused);
        std::string load = "load " + (options.module.empty() ? options.family : options.module);
        for (const std::string& parameter : options.parameters) {
            load += " " + parameter;
        }
        chip.log(load);
        CuseNode fabric(chip, CuseNode::Kind::fabric);
        CuseNode bde(chip, CuseNode::Kind::bde);
        return serve(fabric, bde, readyPipe);
    } catch (const std::exception& error) {
        std::cerr << "kestrune-chip-daemon: " << error.what() << "\n";
        return 1;
    }
}
