#pragma once

// Named network namespaces, kept the way `ip netns` keeps them: a file under /var/run/netns
// bind-mounted on the namespace, so operators can `ip netns list` and `ip netns exec` them.
// Entering a namespace changes the calling thread's namespace only.

#include <functional>
#include <map>
#include <string>
#include <string_view>

// The name under which the namespace the restore started in is known. It equals the
// `netNsName` the model gives interfaces of the default VRF.
inline constexpr std::string_view DEFAULT_NS = "default";

namespace Kestrune {

inline constexpr std::string_view namespaceDir = "/var/run/netns";

// The file of a named namespace, or the empty string when the name could leave the folder
// or is not a file name at all ("", ".", "..", anything with "/").
std::string namespacePath(std::string_view name);

// Puts the calling thread into a named namespace for the life of the object, then back into
// the namespace it was in. Failing to get back ends the process: the thread would go on
// configuring the wrong namespace.
class NamespaceVisit {
  public:
    // `operation` names the caller in the trace of a failure to enter.
    NamespaceVisit(const char* operation, std::string_view name);
    // Enters the namespace of a descriptor the caller holds (see NamespaceFiles), which saves
    // the opening of its file on every visit; `name` is for the trace.
    NamespaceVisit(const char* operation, std::string_view name, int namespaceFd);
    ~NamespaceVisit();
    NamespaceVisit(const NamespaceVisit&) = delete;
    NamespaceVisit& operator=(const NamespaceVisit&) = delete;

    bool entered() const { return entered_; }

  private:
    void enter(const char* operation, std::string_view name, int namespaceFd);

    int original_ = -1;
    bool entered_ = false;
};

// The descriptors of named namespaces, each file opened at its first use and kept until this
// object goes.
class NamespaceFiles {
  public:
    // `operation` names the user in the trace of a file that cannot be opened.
    explicit NamespaceFiles(const char* operation) : operation_(operation) {}
    ~NamespaceFiles();
    NamespaceFiles(const NamespaceFiles&) = delete;
    NamespaceFiles& operator=(const NamespaceFiles&) = delete;

    const char* operation() const { return operation_; }
    // The namespace's descriptor; -1 (traced) when its file cannot be opened.
    int fdOf(std::string_view name);

  private:
    const char* operation_;
    std::map<std::string, int, std::less<>> fds_;
};

// Enters named namespaces one after the other for the calling thread, as switchToNs does, for
// a walk that enters one per item: each namespace's file is opened once, and the namespace
// the walk entered last is not entered again. Nothing else may move the thread meanwhile
// (a NamespaceVisit may: it returns).
class NamespaceWalk {
  public:
    // `operation` names the walk's user in the trace of a failure to enter.
    explicit NamespaceWalk(const char* operation = "switchToNs") : files_(operation) {}

    // 0 when the thread is in the namespace, -1 (traced) when not.
    int enter(std::string_view name);

  private:
    NamespaceFiles files_;
    std::string current_;
    bool inCurrent_ = false;
};

} // namespace Kestrune

// A socket whose network namespace is `name`; the thread stays in its own. -1 on failure.
int openSocketInNs(int domain, int type, int protocol, std::string_view name);
// Enters the named namespace: 0 on success.
int switchToNs(std::string_view name);
// Makes the calling thread's namespace reachable as DEFAULT_NS: 0 on success.
int mountDefaultNs();
// Creates the named namespace; one that exists already counts as created. 0 on success.
int addNsEvenIfPresent(std::string_view name);
// Moves a device from one named namespace to another: 0 on success.
int moveIntfToNs(std::string_view kernelName, std::string_view fromNs, std::string_view toNs);
