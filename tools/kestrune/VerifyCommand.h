#pragma once

#include "Drift.h"
#include "model/Config.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Kestrune::Cli {

// Whether the kernel still holds what the store says the restore makes.
struct Verification {
    bool read = false;   // the kernel's state and the rules could be read
    std::string problem; // why not
    std::vector<Drift> drift;
    std::size_t devices = 0;
    std::size_t namespaces = 0;
    std::size_t rules = 0;

    // 0 the kernel matches, 1 it drifted, 2 it could not be read.
    int exitStatus() const { return !read ? 2 : drift.empty() ? 0 : 1; }
    std::string json() const;
    // The drift as a table and a closing line, or that it matches.
    std::string text() const;
};

// Reads every namespace and the rules in force and compares them with the store's model.
Verification verification(const Config& config);

// `kestrune verify [FILE]`: after a restore, whether the kernel still matches the store.
void addVerifyCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
