#pragma once

namespace Kestrune {

// Ends the process on a condition that must never occur: prints the condition with its
// place to standard error, records it in the event history with every event still pending,
// then aborts. Never compiled out: a restore that dies must leave its story on disk.
[[noreturn]] void assertionFailed(const char* condition, const char* file, int line) noexcept;

} // namespace Kestrune

#define KESTRUNE_ASSERT(condition) KESTRUNE_ASSERT_TEXT(condition, #condition)

// For conditions whose recorded text must read exactly as the operators know it.
#define KESTRUNE_ASSERT_TEXT(condition, text)                                                      \
    ((condition) ? static_cast<void>(0) : ::Kestrune::assertionFailed(text, __FILE__, __LINE__))
