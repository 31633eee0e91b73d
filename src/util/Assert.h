#pragma once

#include <stdexcept>

namespace Kestrune {

// Ends the process on a condition that must never occur: prints the condition with its
// place to standard error, records it in the event history with every event still pending,
// then aborts. Never compiled out: a restore that dies must leave its story on disk.
[[noreturn]] void assertionFailed(const char* condition, const char* file, int line);

// What a throwing assertion handler raises.
class AssertionFailure : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

// Whether standard error is the journal's stream, as the service manager says it is
// (JOURNAL_STREAM): its lines may then carry a priority, "<2>" and the like.
bool stderrIsJournal();

// Replaces the record-and-abort ending, for code that must survive a failed assertion: the
// store checker and the fuzz targets. The handler must not return; a null handler restores
// the default.
using AssertionHandler = void (*)(const char* condition, const char* file, int line);
void assertionHandlerIs(AssertionHandler handler);
AssertionHandler assertionHandler();
// A handler that throws AssertionFailure carrying the condition.
[[noreturn]] void throwAssertionFailure(const char* condition, const char* file, int line);

// For as long as it lives, a failed assertion throws AssertionFailure; then the handler the
// caller had is back, however the scope is left.
class AssertionsThrow {
  public:
    AssertionsThrow() : previous_(assertionHandler()) { assertionHandlerIs(throwAssertionFailure); }
    ~AssertionsThrow() { assertionHandlerIs(previous_); }
    AssertionsThrow(const AssertionsThrow&) = delete;
    AssertionsThrow& operator=(const AssertionsThrow&) = delete;

  private:
    AssertionHandler previous_;
};

} // namespace Kestrune

#define KESTRUNE_ASSERT(condition) KESTRUNE_ASSERT_TEXT(condition, #condition)

// For conditions whose recorded text must read exactly as the operators know it.
#define KESTRUNE_ASSERT_TEXT(condition, text)                                                      \
    ((condition) ? static_cast<void>(0) : ::Kestrune::assertionFailed(text, __FILE__, __LINE__))
