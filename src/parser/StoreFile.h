#pragma once

#include "util/Json.h"

#include <cstddef>
#include <string>

namespace Kestrune {

// The one way from a store file to a JSON document, shared by the restore and by
// `kestrune check` so that the two agree on every input. The parse is iterative, so no
// nesting exhausts the stack while parsing. Read whole (as `check` always reads, and the
// restore with RestoreGuards::storeBounds), only a regular file is read (a FIFO, a folder or a
// device where the store should be is refused without blocking), its size is bounded, and so
// is its nesting depth: no store crashes a command or makes it hang. The bytes are parsed
// exactly as they are: a byte-order mark is not JSON. Without the guard the restore parses the
// file as a stream (doParseStream), as its sequence does.
class StoreFile {
  public:
    static constexpr std::size_t maxBytes = std::size_t{64} * 1024 * 1024;
    // Far deeper than any store the agents write; a stack that deep is still no danger.
    static constexpr unsigned maxDepth = 64;

    enum class Outcome { Read, NotReadable, NotRegular, TooLarge };

    // Reads the whole file into bytes; why not, in reason, when the outcome is not Read.
    static Outcome doRead(const std::string& path, std::string& bytes, std::string& reason);
    // Parses the file as the restore's sequence does, through a read stream with a 65,535-byte
    // buffer: reading stops where the JSON goes wrong, so a device of endless bytes costs one
    // buffer. False when the file cannot be opened (why in reason); a document that is not JSON
    // is left as the parse left it, for the caller's assertion.
    static bool doParseStream(const std::string& path, rapidjson::Document& document,
                              std::string& reason);
    // Parses bytes into document; false, with the error and its byte offset in reason, when
    // they are not JSON (the document is then null).
    static bool doParse(const std::string& bytes, rapidjson::Document& document,
                        std::string& reason);
};

} // namespace Kestrune
