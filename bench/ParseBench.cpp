// Times the store's way into the model against RapidJSON's bare DOM parse of the same file.
//
//   parse-bench STORE [RUNS]
//
// "bare" is what any reader of the file pays: a file read stream and a DOM parse. "restore"
// is what the restore pays: the same parse, the parser's deep copy and every section
// extracted into the model, with level-0 traces built and dropped as a quiet start-up
// process would, and events kept out of the history.
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "util/Json.h"
#include "util/Trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

namespace {

double medianMs(int runs, const std::function<void()>& work) {
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        auto start = std::chrono::steady_clock::now();
        work();
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s STORE [RUNS]\n", argv[0]);
        return 2;
    }
    const std::string store = argv[1];
    const int runs = argc > 2 ? std::atoi(argv[2]) : 21;
    Kestrune::Log::historyPathIs("");
    Kestrune::Trace::sinkIs([](std::string_view) {});

    std::size_t interfaces = 0;
    double bare = medianMs(runs, [&] {
        std::FILE* file = std::fopen(store.c_str(), "r");
        std::vector<char> buffer(65535);
        rapidjson::FileReadStream stream(file, buffer.data(), buffer.size());
        rapidjson::Document document;
        document.ParseStream(stream);
        std::fclose(file);
    });
    auto restore = [&] {
        auto parser = Kestrune::configParserCreatorFactory()->createFrom(store);
        interfaces = parser->parse()->interface().size();
    };
    Kestrune::Trace::levelsIs(1);
    double traced = medianMs(runs, restore);
    Kestrune::Trace::levelsIs(0);
    double quiet = medianMs(runs, restore);

    std::printf("store: %s, %zu interfaces, median of %d runs\n", store.c_str(), interfaces, runs);
    std::printf("bare DOM parse:               %8.2f ms\n", bare);
    std::printf("restore parse, level 0 on:    %8.2f ms  (%.2fx)\n", traced, traced / bare);
    std::printf("restore parse, traces off:    %8.2f ms  (%.2fx)\n", quiet, quiet / bare);
    return 0;
}
