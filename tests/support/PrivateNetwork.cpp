#include "PrivateNetwork.h"

#include "util/Json.h"
#include "util/Trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune::Testing {

void PrivateNetwork::SetUp() {
    ASSERT_EQ(geteuid(), 0U) << "the kernel tests need root: they make network namespaces";
    ASSERT_EQ(unshare(CLONE_NEWNET | CLONE_NEWNS), 0)
        << "cannot make a private network and mount namespace: " << std::strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0)
        << "cannot make mounts private: " << std::strerror(errno);
    // A fresh /run: the named-namespace folder and the iptables lock are the test's own.
    ASSERT_EQ(mount("kestrune-test", "/run", "tmpfs", 0, "mode=0755"), 0)
        << "cannot mount a private /run: " << std::strerror(errno);
    run({"ip", "link", "set", "lo", "up"});
    traces_->clear();
    Trace::levelsIs(Trace::allLevels);
    Trace::sinkIs([traces = traces_](std::string_view line) { traces->emplace_back(line); });
}

void PrivateNetwork::TearDown() {
    Trace::sinkIs({});
    Trace::levelsIs(1U);
    // Detaching /run lets go of the named namespaces mounted under it.
    umount2("/run", MNT_DETACH);
}

bool PrivateNetwork::traced(const std::string& line) const {
    return std::find(traces_->begin(), traces_->end(), line) != traces_->end();
}

bool Link::hasFlag(const std::string& flag) const {
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

const Address* Link::address(const std::string& local) const {
    const auto found = std::find_if(addresses.begin(), addresses.end(),
                                    [&](const Address& address) { return address.local == local; });
    return found != addresses.end() ? &*found : nullptr;
}

std::string outputOf(const std::vector<std::string>& argv, int* status) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    // "Device does not exist" and the like are answers here, not noise for the test log.
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> words;
    for (const std::string& word : argv) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, words[0], &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string output;
    std::array<char, 4096> piece{};
    for (ssize_t count = 0;
         error == 0 && (count = read(ends[0], piece.data(), piece.size())) > 0;) {
        output.append(piece.data(), static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int waitStatus = 0;
    if (error == 0) {
        waitpid(pid, &waitStatus, 0);
    }
    if (status != nullptr) {
        *status = error != 0                ? -1
                  : WIFEXITED(waitStatus)   ? WEXITSTATUS(waitStatus)
                  : WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus)
                                            : -1;
    }
    return output;
}

void run(const std::vector<std::string>& argv) {
    int status = 0;
    outputOf(argv, &status);
    ASSERT_EQ(status, 0) << "setting up failed: " << argv[0] << " "
                         << (argv.size() > 1 ? argv[1] : "");
}

namespace {

std::vector<std::string> ipJson(const std::string& ns, std::vector<std::string> rest) {
    std::vector<std::string> argv{"ip", "-j", "-d"};
    if (!ns.empty()) {
        argv.insert(argv.end(), {"-n", ns});
    }
    argv.insert(argv.end(), rest.begin(), rest.end());
    return argv;
}

std::string text(const rapidjson::Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member != object.MemberEnd() && member->value.IsString() ? member->value.GetString()
                                                                    : std::string();
}

Link linkFrom(const rapidjson::Value& entry) {
    Link link;
    link.name = text(entry, "ifname");
    link.mtu = entry["mtu"].GetInt();
    link.mac = text(entry, "address");
    link.operState = text(entry, "operstate");
    link.parent = text(entry, "link");
    for (const auto& flag : entry["flags"].GetArray()) {
        link.flags.emplace_back(flag.GetString());
    }
    const auto info = entry.FindMember("linkinfo");
    if (info != entry.MemberEnd()) {
        link.kind = text(info->value, "info_kind");
        const auto data = info->value.FindMember("info_data");
        if (data != info->value.MemberEnd() && data->value.HasMember("id")) {
            link.vlanId = data->value["id"].GetInt();
        }
    }
    const auto addresses = entry.FindMember("addr_info");
    if (addresses != entry.MemberEnd()) {
        for (const auto& address : addresses->value.GetArray()) {
            Address seen;
            seen.family = text(address, "family");
            seen.local = text(address, "local");
            seen.prefixLength = address["prefixlen"].GetInt();
            seen.secondary = address.HasMember("secondary");
            if (!address.HasMember("scope") || text(address, "scope") != "link") {
                link.addresses.push_back(seen);
            }
        }
    }
    return link;
}

} // namespace

std::optional<Link> linkOf(const std::string& name, const std::string& ns) {
    int status = 0;
    const std::string json = outputOf(ipJson(ns, {"addr", "show", "dev", name}), &status);
    rapidjson::Document document;
    if (status != 0 || document.Parse(json.c_str()).HasParseError() || !document.IsArray() ||
        document.Empty()) {
        return std::nullopt;
    }
    return linkFrom(document[0]);
}

std::vector<std::string> linkNames(const std::string& ns) {
    const std::string json = outputOf(ipJson(ns, {"link", "show"}));
    rapidjson::Document document;
    std::vector<std::string> names;
    if (document.Parse(json.c_str()).HasParseError() || !document.IsArray()) {
        return names;
    }
    for (const auto& entry : document.GetArray()) {
        names.push_back(text(entry, "ifname"));
    }
    return names;
}

std::string stdoutOf(const std::function<void()>& body) {
    std::fflush(stdout);
    std::string pattern = std::filesystem::temp_directory_path() / "kestrune-stdout-XXXXXX";
    const int capture = mkstemp(pattern.data());
    const int saved = dup(STDOUT_FILENO);
    dup2(capture, STDOUT_FILENO);
    body();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string output;
    std::array<char, 4096> piece{};
    lseek(capture, 0, SEEK_SET);
    for (ssize_t count = 0; (count = read(capture, piece.data(), piece.size())) > 0;) {
        output.append(piece.data(), static_cast<std::size_t>(count));
    }
    close(capture);
    unlink(pattern.c_str());
    return output;
}

std::vector<NamespaceState> settledState() {
    std::vector<NamespaceState> state = kernelState();
    for (NamespaceState& ns : state) {
        // The kernel lists by index, which a device made inside its namespace gets there and
        // a moved one brings along: the same devices, in another order.
        std::sort(ns.devices.begin(), ns.devices.end(),
                  [](const DeviceState& a, const DeviceState& b) { return a.name < b.name; });
        for (DeviceState& device : ns.devices) {
            device.operState = device.carrier ? "carrier" : "-";
        }
    }
    return state;
}

} // namespace Kestrune::Testing
