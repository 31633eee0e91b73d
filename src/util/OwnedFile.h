#pragma once

#include <string>
#include <sys/stat.h>

namespace Kestrune {

// The files the restore trusts because nobody else could have made or changed them: the
// restore lock, the history, its journals. Each is opened without following a link and
// without blocking (a FIFO or a device would hang a read), and checked through the
// descriptor, so what is checked is what is then read.

// Why a file is not this process's own: "it is not a regular file" ("... a folder"), "it
// belongs to uid N"; "" when it is.
std::string notOwnedBecause(const struct stat& status, bool folder = false);

// Opens path with flags (and O_NOFOLLOW, O_NONBLOCK, O_CLOEXEC), then checks the file with
// notOwnedBecause. The descriptor, with the file's status; or -1 with why in problem: "it is
// a link", the open's error (errno is the open's), or notOwnedBecause's (errno is EPERM).
int openOwned(const std::string& path, int flags, std::string& problem, struct stat& status,
              bool folder = false);

} // namespace Kestrune
