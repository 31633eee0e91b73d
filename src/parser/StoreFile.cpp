#include "parser/StoreFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <rapidjson/error/en.h>
#include <rapidjson/filereadstream.h>
#include <rapidjson/memorystream.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Kestrune {

namespace {

// The document's own SAX handler, refusing nesting deeper than maxDepth.
class DepthBounded {
  public:
    DepthBounded(rapidjson::Document& document, unsigned maxDepth)
        : document_(document), maxDepth_(maxDepth) {}

    bool Null() { return document_.Null(); }
    bool Bool(bool b) { return document_.Bool(b); }
    bool Int(int i) { return document_.Int(i); }
    bool Uint(unsigned i) { return document_.Uint(i); }
    bool Int64(std::int64_t i) { return document_.Int64(i); }
    bool Uint64(std::uint64_t i) { return document_.Uint64(i); }
    bool Double(double d) { return document_.Double(d); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
        return document_.RawNumber(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        return document_.String(text, length, copy);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) {
        return document_.Key(text, length, copy);
    }
    bool StartObject() { return deeper() && document_.StartObject(); }
    bool EndObject(rapidjson::SizeType members) {
        --depth_;
        return document_.EndObject(members);
    }
    bool StartArray() { return deeper() && document_.StartArray(); }
    bool EndArray(rapidjson::SizeType elements) {
        --depth_;
        return document_.EndArray(elements);
    }

    bool tooDeep() const { return tooDeep_; }

  private:
    bool deeper() {
        tooDeep_ = ++depth_ > maxDepth_;
        return !tooDeep_;
    }

    rapidjson::Document& document_;
    unsigned maxDepth_;
    unsigned depth_ = 0;
    bool tooDeep_ = false;
};

std::string failure(const std::string& path, const char* what) {
    return path + " " + what + ": " + std::strerror(errno);
}

} // namespace

StoreFile::Outcome StoreFile::doRead(const std::string& path, std::string& bytes,
                                     std::string& reason) {
    // Non-blocking, so that opening a FIFO does not wait for a writer.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        reason = failure(path, "cannot be opened");
        return Outcome::NotReadable;
    }
    struct stat status {};
    Outcome outcome = Outcome::Read;
    if (fstat(fd, &status) != 0) {
        reason = failure(path, "cannot be examined");
        outcome = Outcome::NotReadable;
    } else if (!S_ISREG(status.st_mode)) {
        reason = path + " is not a regular file";
        outcome = Outcome::NotRegular;
    } else if (static_cast<std::size_t>(status.st_size) > maxBytes) {
        reason = path + " is " + std::to_string(status.st_size) + " bytes, more than a store's " +
                 std::to_string(maxBytes);
        outcome = Outcome::TooLarge;
    }
    if (outcome == Outcome::Read) {
        bytes.resize(static_cast<std::size_t>(status.st_size));
        std::size_t done = 0;
        // The file may grow or shrink while it is read: read to its end, within the bound.
        for (;;) {
            if (done == bytes.size()) {
                bytes.resize(std::min(maxBytes + 1, bytes.size() + 65536));
                if (done == bytes.size()) {
                    break;
                }
            }
            const ssize_t count = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                if (count < 0) {
                    reason = failure(path, "cannot be read");
                    outcome = Outcome::NotReadable;
                }
                break;
            }
            done += static_cast<std::size_t>(count);
        }
        bytes.resize(done);
        if (outcome == Outcome::Read && done > maxBytes) {
            reason = path + " is more than a store's " + std::to_string(maxBytes) + " bytes";
            outcome = Outcome::TooLarge;
        }
    }
    ::close(fd);
    return outcome;
}

bool StoreFile::doParseStream(const std::string& path, rapidjson::Document& document,
                              std::string& reason) {
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        reason = failure(path, "cannot be opened");
        return false;
    }
    std::vector<char> buffer(65535);
    rapidjson::FileReadStream stream(file, buffer.data(), buffer.size());
    document.ParseStream<rapidjson::kParseIterativeFlag>(stream);
    std::fclose(file);
    return true;
}

bool StoreFile::doParse(const std::string& bytes, rapidjson::Document& document,
                        std::string& reason) {
    rapidjson::MemoryStream stream(bytes.data(), bytes.size());
    rapidjson::Reader reader;
    bool tooDeep = false;
    auto generator = [&](rapidjson::Document& handler) {
        DepthBounded depthBounded(handler, maxDepth);
        const bool parsed =
            !reader.Parse<rapidjson::kParseIterativeFlag>(stream, depthBounded).IsError();
        tooDeep = depthBounded.tooDeep();
        return parsed;
    };
    document.SetNull();
    document.Populate(generator);
    if (!reader.HasParseError()) {
        return true;
    }
    document.SetNull();
    reason = tooDeep ? "nested more than " + std::to_string(maxDepth) + " levels deep"
                     : rapidjson::GetParseError_En(reader.GetParseErrorCode());
    // Where an editor shows it: line and column, counted from 1 (the column in bytes).
    const std::size_t offset = std::min(reader.GetErrorOffset(), bytes.size());
    const std::size_t lineStart = bytes.rfind('\n', offset == 0 ? 0 : offset - 1);
    const std::size_t line =
        1 + static_cast<std::size_t>(
                std::count(bytes.begin(), bytes.begin() + static_cast<long>(offset), '\n'));
    const std::size_t column =
        offset - (lineStart == std::string::npos || offset == 0 ? 0 : lineStart + 1) + 1;
    reason += " at line " + std::to_string(line) + ", column " + std::to_string(column) +
              " (byte " + std::to_string(offset) + ")";
    return false;
}

} // namespace Kestrune
