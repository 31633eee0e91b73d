#pragma once

#include <string>

namespace Kestrune {

// The files root writes where an operator asks (a report, a trace, the metrics), which may be
// in folders other users can write. Nothing another user could swap is followed on the way:
// the path is walked one folder at a time from "/" (or the working folder), and a link is
// followed only where it stands in a folder nobody but root and this user can write. The file
// is then made or opened in the folder the walk holds, so a folder swapped later changes
// nothing. The file itself is never a link, another user's or another file's second name, and
// never a FIFO or a socket: one there is refused without blocking. A character device (only
// root makes those) is written as asked: /dev/null discards.

// Opens path for writing with flags (O_APPEND or O_TRUNC, and O_CREAT with mode 0644): the
// descriptor, blocking as usual; or -1 with why in problem ("it is a link", "it is not a
// regular file", "/tmp/x is a link in a folder others can write", ...).
int openOutput(const std::string& path, int flags, std::string& problem);

// Replaces path with text as one step: readers see the old file or the new one whole. The
// text is written under a name of random letters beside it that nobody can take first (made
// with O_EXCL, never through a link), then renamed over path. False with why in problem.
bool outputReplaced(const std::string& path, const std::string& text, std::string& problem);

} // namespace Kestrune
