#pragma once

#include "model/Config.h"
#include "state/Drift.h"

#include <string>
#include <vector>

namespace Kestrune {

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

// Reads every namespace and the rules in force and compares them with what a restore in which
// nothing failed makes of the store's model. A start-up process calls it after its restore
// (and its hand-off, so that the VRF ports are held): it records no events, and the filter
// rules are loaded into a scratch network namespace of a child process, never the caller's.
Verification verification(const Config& config);

// The same for the store at path, read as `check` and the restore read it, so that whatever
// the file holds the answer is one of the three: a store that cannot be read, that gives no
// restore or that a restore cannot survive is "could not be read", with why in `problem`.
// Reading the store records no events either.
Verification verificationOfStore(const std::string& path);

// The model of the store at path, read so: null, with why in `problem`, for a store that cannot
// be read, gives no restore, or that a restore cannot survive.
Config::Ptr storeModel(const std::string& path, std::string& problem);

} // namespace Kestrune
