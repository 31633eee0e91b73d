#include "parser/ModelProblems.h"

#include "driver/NamespaceName.h"
#include "parser/StorePointer.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Utils.h"

#include <arpa/inet.h>
#include <array>
#include <rapidjson/pointer.h>

namespace Kestrune {

namespace {

bool isLayer3(InterfaceType type) {
    return type == InterfaceType::SVI_ || type == InterfaceType::SubIntf_ ||
           type == InterfaceType::RoutedPort_ || type == InterfaceType::LagRouted_;
}

// Where in the store the interface comes from: the first section that names it.
std::string interfacePointer(const rapidjson::Document& store, const std::string& name) {
    constexpr std::array<std::pair<const char*, const char*>, 5> places = {{
        {"Tessaline", "interfaces"},
        {"SandTessaline", "interfaces"},
        {"Oku", "interfaces"},
        {"Pell", "inputIntfLag"},
        {"Vant", "intfNameToVlanId"},
    }};
    for (const auto& [section, entries] : places) {
        std::string pointer = pointerText({section, entries, name});
        if (rapidjson::Pointer(pointer.c_str()).Get(store)) {
            return pointer;
        }
    }
    return pointerText({"Oku", "interfaces", name});
}

class Finder {
  public:
    Finder(const rapidjson::Document& store, std::vector<StoreProblem>& problems)
        : store_(store), problems_(problems) {}

    void check(const Interface& intf) {
        const std::string& name = intf.name();
        if (kernelIntfName(name).empty()) {
            add(interfacePointer(store_, name),
                name + " is not a kernel device name: its device is not created",
                Consequence::SkipsEntry);
            return;
        }
        checkNamespace(intf);
        if (!isLayer3(intf.interfaceType())) {
            return;
        }
        const std::string okuEntry = pointerText({"Oku", "interfaces", name});
        checkAddress(okuEntry + "/ipAddress", intf.primaryIpv4(), AF_INET);
        for (const auto& [address, flag] : intf.secondaryIpv4()) {
            checkAddress(okuEntry + "/secondaryIpAddress", address, AF_INET);
        }
        for (const auto& [address, flag] : intf.ipv6()) {
            checkAddress(okuEntry + "/ip6Address", address, AF_INET6);
        }
    }

  private:
    void add(std::string pointer, std::string message, Consequence consequence) {
        problems_.push_back({std::move(pointer), std::move(message), consequence});
    }

    void checkNamespace(const Interface& intf) {
        const std::string& ns = intf.netNsName();
        if (ns.empty() || ns == DEFAULT_NS) {
            return;
        }
        const std::string pointer = pointerText({"Oku", "interfaces", intf.name(), "vrf"});
        if (ns.size() > NamespaceName::maxBytes) {
            add(pointer,
                "namespace " + ns + " of " + intf.name() + " is longer than " +
                    std::to_string(NamespaceName::maxBytes) +
                    " bytes: the restore ends on \"NamespaceName::bytes > 150 not allowed\"",
                Consequence::EndsProcess);
        } else if (namespacePath(ns).empty() && isLayer3(intf.interfaceType())) {
            add(pointer,
                "namespace " + ns + " of " + intf.name() +
                    " cannot be a named namespace: the restore ends when it enters it",
                Consequence::EndsProcess);
        }
    }

    void checkAddress(const std::string& pointer, const std::string& address, int family) {
        if (address.empty()) {
            return;
        }
        in6_addr parsed{}; // room for either family
        int prefixLength = 0;
        if (const std::string problem = addressProblem(address, family, &parsed, prefixLength);
            !problem.empty()) {
            add(pointer, problem + ": the address is not added", Consequence::SkipsEntry);
        }
    }

    const rapidjson::Document& store_;
    std::vector<StoreProblem>& problems_;
};

} // namespace

std::vector<StoreProblem> modelProblemsOf(const Config& config, const rapidjson::Document& store) {
    std::vector<StoreProblem> problems;
    Finder finder(store, problems);
    for (const auto& [name, intf] : config.interface()) {
        finder.check(*intf);
    }
    return problems;
}

} // namespace Kestrune
