// The chip's command-line tools as the simulator ships them: one program that acts as `fab`
// or `schan` by the name it is run under. Each run is a line of the chip log
// ($KESTRUNE_CHIP_LOG); `schan` keeps the chip's registers in $KESTRUNE_CHIP_REGISTERS. A
// start-up process may run them with no environment at all: then the log is the one the chip
// device daemon keeps on a switch (a chip without its register store answers no read).
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string environment(const char* name, const char* otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

void logRun(const std::string& tool, const std::vector<std::string>& words) {
    const std::string path = environment("KESTRUNE_CHIP_LOG", "/run/kestrune/chip.log");
    if (path.empty()) {
        return;
    }
    std::ofstream log(path, std::ios::app);
    log << "run " << tool;
    for (const std::string& word : words) {
        log << " " << word;
    }
    log << "\n";
}

int fab(const std::vector<std::string>& words) {
    if (words.size() == 3 && ((words[0] == "devrole" && words[2] == "switch") ||
                              (words[0] == "devstate" && words[2] == "up"))) {
        return 0;
    }
    std::fprintf(stderr, "fab: expected \"devrole N switch\" or \"devstate N up\"\n");
    return 1;
}

// Registers by "<pci address> <block> <index> <register>", each holding its words in hex.
using Registers = std::map<std::string, std::string>;

Registers loaded(const std::string& path) {
    Registers registers;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t tab = line.find('\t');
        if (tab != std::string::npos) {
            registers[line.substr(0, tab)] = line.substr(tab + 1);
        }
    }
    return registers;
}

void saved(const std::string& path, const Registers& registers) {
    std::ofstream file(path, std::ios::trunc);
    for (const auto& [key, value] : registers) {
        file << key << "\t" << value << "\n";
    }
}

// The one 32-bit register the restore touches; the others it reads are 64-bit.
bool is32(const std::string& reg) {
    return std::stoul(reg) == 0x08000034UL;
}

int schan(const std::vector<std::string>& words) {
    const std::string path = environment("KESTRUNE_CHIP_REGISTERS", "");
    if (words.size() < 5 || path.empty()) {
        std::printf("schan: usage: schan PCI readreg|writereg BLOCK INDEX REG [HIGH] LOW\n");
        return 1;
    }
    const std::string key = words[0] + " " + words[2] + " " + words[3] + " " + words[4];
    Registers registers = loaded(path);
    if (words[1] == "readreg" && words.size() == 5) {
        const auto found = registers.find(key);
        std::printf("%s\n", found != registers.end() ? found->second.c_str()
                                                     : (is32(words[4]) ? "0" : "0 0"));
        return 0;
    }
    if (words[1] == "writereg" && (words.size() == 6 || words.size() == 7)) {
        std::ostringstream value;
        value << std::hex << std::stoul(words[5]);
        if (words.size() == 7) {
            value << " " << std::stoul(words[6]);
        }
        registers[key] = value.str();
        saved(path, registers);
        return 0; // silence is success
    }
    std::printf("schan: cannot %s with %zu arguments\n", words[1].c_str(), words.size());
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string tool = argv[0];
    tool = tool.substr(tool.find_last_of('/') + 1);
    const std::vector<std::string> words(argv + 1, argv + argc);
    logRun(tool, words);
    // A chip in trouble: its tool never answers, and whoever runs it must end it.
    const std::string hanging = "," + environment("KESTRUNE_CHIP_TOOLS_HANG", "") + ",";
    if (hanging.find("," + tool + ",") != std::string::npos) {
        for (;;) {
            pause();
        }
    }
    // A slow chip: "fab:300,schan:5" has each run of fab take 300 ms more, each schan 5.
    const std::string slow = "," + environment("KESTRUNE_CHIP_TOOLS_SLOW", "");
    if (const std::size_t at = slow.find("," + tool + ":"); at != std::string::npos) {
        usleep(static_cast<useconds_t>(std::atoi(slow.c_str() + at + tool.size() + 2)) * 1000);
    }
    if (tool == "fab") {
        return fab(words);
    }
    if (tool == "schan") {
        return schan(words);
    }
    std::fprintf(stderr, "%s: run this program as fab or schan\n", tool.c_str());
    return 2;
}
