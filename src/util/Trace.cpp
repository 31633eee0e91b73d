#include "util/Trace.h"

#include "util/RestoreGuards.h"
#include "util/Text.h"

#include <charconv>
#include <stdexcept>

namespace Kestrune {

namespace {

// Never destroyed: a Log stored at process exit may still trace after other statics are gone.
Trace::Sink& currentSink() {
    static auto* sink = new Trace::Sink(Trace::streamSink(stderr));
    return *sink;
}

std::function<void()>& currentFlusher() {
    static auto* flusher = new std::function<void()>();
    return *flusher;
}

int levelAt(std::string_view text, std::string_view whole) {
    int level = -1;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || level < 0 ||
        level > Trace::maxLevel) {
        throw std::invalid_argument("invalid trace level '" + std::string(text) + "' in '" +
                                    std::string(whole) + "': levels are 0 to 9");
    }
    return level;
}

} // namespace

void Trace::flusherIs(std::function<void()> flusher) {
    currentFlusher() = std::move(flusher);
}

void Trace::flush() {
    if (currentFlusher()) {
        currentFlusher()();
    }
}

void Trace::sinkIs(Sink sink) {
    currentSink() = sink ? std::move(sink) : streamSink(stderr);
}

Trace::Sink Trace::sink() {
    return currentSink();
}

Trace::Sink Trace::streamSink(std::FILE* stream) {
    return [stream](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stream);
        std::fputc('\n', stream);
        std::fflush(stream);
    };
}

void Trace::write(int level, std::string_view message) {
    std::string line = "Kestrune:";
    line += static_cast<char>('0' + level);
    line += ' ';
    if (!restoreGuards().traceEscaping) {
        line += message;
        currentSink()(line);
        return;
    }
    // A name holding a newline must not forge a trace line of its own; a message may still
    // end its own line, as some of the restore's texts do.
    const bool ownEnd = !message.empty() && message.back() == '\n';
    line += escapedText(message.substr(0, message.size() - (ownEnd ? 1 : 0)));
    if (ownEnd) {
        line += '\n';
    }
    currentSink()(line);
}

std::uint16_t Trace::levelsOf(std::string_view text) {
    std::uint16_t mask = 0;
    std::string_view rest = text;
    for (;;) {
        auto comma = rest.find(',');
        std::string_view piece = rest.substr(0, comma);
        auto dash = piece.find('-');
        int first = levelAt(piece.substr(0, dash), text);
        int last = dash == std::string_view::npos ? first : levelAt(piece.substr(dash + 1), text);
        if (last < first) {
            throw std::invalid_argument("invalid trace range '" + std::string(piece) + "' in '" +
                                        std::string(text) + "'");
        }
        for (int level = first; level <= last; ++level) {
            mask |= static_cast<std::uint16_t>(1U << level);
        }
        if (comma == std::string_view::npos) {
            return mask;
        }
        rest = rest.substr(comma + 1);
    }
}

} // namespace Kestrune
