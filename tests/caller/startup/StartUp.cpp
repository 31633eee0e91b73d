// A switch's start-up process: the restore's sequence and nothing more, as an image builder
// writes it against the installed headers. It sets no guard; it only chooses where the trace
// and the events go, then hands the VRF ports' queues over and checks the kernel before it
// exits.
//
//     kestrune-startup TRACE_FILE HISTORY_FILE
//
// Exit status: 0 the sequence ran and the kernel matches the store, 1 it drifted or could
// not be read, 2 there was no parser or no driver. The verification is printed on standard
// output as JSON.
#include "driver/DriverCreator.h"
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "state/QueueHolder.h"
#include "state/Verification.h"
#include "util/Trace.h"

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: kestrune-startup TRACE_FILE HISTORY_FILE\n");
        return 2;
    }
    std::FILE* trace = std::fopen(argv[1], "w");
    if (trace == nullptr) {
        std::perror(argv[1]);
        return 2;
    }
    std::setvbuf(trace, nullptr, _IOLBF, 0);
    Kestrune::Trace::levelsIs(Kestrune::Trace::allLevels);
    Kestrune::Trace::sinkIs(Kestrune::Trace::streamSink(trace));
    Kestrune::Log::historyPathIs(argv[2]);

    auto parser = Kestrune::configParserCreatorFactory()->create();
    if (!parser) {
        return 2;
    }
    auto config = parser->parse();
    auto driver = Kestrune::DriverCreator(config).create();
    if (!driver) {
        return 2;
    }
    driver->doInit();
    driver->doCreateKernelInterfaces();
    Kestrune::QueueHolder::doHandOff(*driver);

    // What follows is the start-up process's own check, not the restore's: its trace stays
    // out of the restore's.
    Kestrune::Trace::levelsIs(0);
    const Kestrune::Verification verified = Kestrune::verification(*config);
    std::printf("%s\n", verified.json().c_str());
    return verified.exitStatus() == 0 ? 0 : 1;
}
