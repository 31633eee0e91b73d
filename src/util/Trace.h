#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>

namespace Kestrune {

// The "Kestrune" trace facility. Levels: 0 failures and findings, 3 entry and progress,
// 9 detail. A message is built only when its level is on, so a disabled TRACE costs one
// load and one branch.
class Trace {
  public:
    static constexpr int maxLevel = 9;
    // Receives one finished line, "Kestrune:<level> <message>", without a newline.
    using Sink = std::function<void(std::string_view line)>;

    static bool enabled(int level) noexcept { return (mask_ >> level) & 1U; }
    static std::uint16_t levels() noexcept { return mask_; }
    static void levelsIs(std::uint16_t mask) noexcept { mask_ = mask & allLevels; }
    // An empty sink restores the default, standard error.
    static void sinkIs(Sink sink);
    static Sink sink();
    // A sink that writes each line and a newline to the stream and flushes it, so a
    // process that dies still leaves its last lines behind.
    static Sink streamSink(std::FILE* stream);
    static void write(int level, std::string_view message);
    // A sink that holds a line back (to choose its journal priority once it knows more) gives
    // it out when flushed: before a process ends on an assertion, and when its caller says.
    static void flusherIs(std::function<void()> flusher);
    static void flush();

    // "0,3", "0-9", "2-4,9": the levels a caller enables. Throws std::invalid_argument
    // naming the offending piece.
    static std::uint16_t levelsOf(std::string_view text);

    static constexpr std::uint16_t allLevels = (1U << (maxLevel + 1)) - 1;

  private:
    static inline std::uint16_t mask_ = 1U; // level 0: failures are worth seeing by default
};

// One message under construction; written to the sink when the statement ends.
class TraceLine {
  public:
    explicit TraceLine(int level) : level_(level) {}
    TraceLine(const TraceLine&) = delete;
    TraceLine& operator=(const TraceLine&) = delete;
    ~TraceLine() { Trace::write(level_, stream_.view()); }

    template <class T>
    TraceLine& operator<<(const T& piece) {
        stream_ << piece;
        return *this;
    }

  private:
    int level_;
    std::ostringstream stream_;
};

} // namespace Kestrune

#define TRACE(level)                                                                               \
    if (!::Kestrune::Trace::enabled(level)) {                                                      \
    } else                                                                                         \
        ::Kestrune::TraceLine(level)
