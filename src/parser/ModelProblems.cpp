#include "parser/ModelProblems.h"

#include "driver/NamespaceName.h"
#include "model/SandConfig.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"
#include "parser/StorePointer.h"
#include "plan/RestorePlan.h"
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

constexpr std::int32_t smallestMtu = smallestDeviceMtu;
constexpr std::int32_t largestMtu = largestDeviceMtu;
constexpr auto smallestIpv6Mtu = static_cast<std::int32_t>(ipv6MinimumMtu);

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
    Finder(const rapidjson::Document& store, const RestorePlan& plan,
           std::vector<StoreProblem>& problems)
        : store_(store), plan_(plan), problems_(problems) {}

    // What the switch as a whole refuses: a bridge MAC the kernel does not give the fabric
    // device (then nothing is made), and a Sand FAP the chip does not bring up.
    void checkSwitch(const Config& config) {
        if (!isUnicastMac(macBytesOf(config.bridgeMac()))) {
            add("/Vant/bridgeMacAddr",
                "bridge MAC \"" + config.bridgeMac() +
                    "\" is not a unicast address the kernel takes: the fabric device refuses "
                    "it, and no interface is made",
                Consequence::SkipsSection);
        }
        if (const auto* sand = dynamic_cast<const SandConfig*>(&config)) {
            sand_ = sand;
            std::size_t index = 0;
            for (const auto& [name, fap] : sand->sandFapConfig()) {
                const auto faps = static_cast<std::int32_t>(fap.numFaps());
                if (faps < 1) {
                    add(fapPointer(name, index),
                        "device " + name + " has " + std::to_string(faps) +
                            " FAPs, which the chip refuses: the restore "
                            "ends on \"doFabIoctl( cmd )\"",
                        Consequence::EndsProcess, true);
                }
                ++index;
            }
        }
    }

    void check(const Interface& intf, const Config& config) {
        const std::string& name = intf.name();
        const PlannedDevice* planned = plan_.firstOf(name);
        if (planned != nullptr && planned->notMade == NotMade::kernelName) {
            add(interfacePointer(store_, name),
                name + " is not a kernel device name: its device is not created",
                Consequence::SkipsEntry);
            return;
        }
        checkNamespace(intf);
        if (!checkMade(intf) || !isLayer3(intf.interfaceType())) {
            return;
        }
        checkMtu(intf, config);
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
    // Whether the restore makes the interface's device at all, as the plan has it.
    bool checkMade(const Interface& intf) {
        const std::string& name = intf.name();
        const PlannedDevice* planned = plan_.firstOf(name);
        if (planned == nullptr || planned->notMade == NotMade::no) {
            return true;
        }
        const InterfaceType type = intf.interfaceType();
        const std::string entry = interfacePointer(store_, name);
        switch (planned->notMade) {
        case NotMade::family:
            add(entry,
                "a Sand switch makes no kernel device for " +
                    std::string(type == InterfaceType::SubIntf_ ? "a subinterface"
                                                                : "a Port-Channel") +
                    ": " + name + " is reported as not created",
                Consequence::SkipsEntry);
            break;
        case NotMade::noFapDevice:
            add(pointerText({"SandTessaline", "interfaces", name, "deviceName"}),
                "no device \"" + planned->whyNot + "\" in the Sand section: " + name +
                    " is not created",
                Consequence::SkipsEntry);
            break;
        case NotMade::vlanIdRange: {
            const bool svi = type == InterfaceType::SVI_;
            const std::uint32_t vlan = svi ? dynamic_cast<const VlanInterface&>(intf).vlan()
                                           : dynamic_cast<const SubInterface&>(intf).encapVlan();
            add(svi ? pointerText({"Oku", "interfaces", name})
                    : pointerText({"Vant", "subIntfNameToEncapVlanId", name}),
                vlanIdProblem(vlan) + ": " + name + " is not created", Consequence::SkipsEntry);
            break;
        }
        case NotMade::parentNotMade:
            add(entry,
                "its parent interface " + planned->whyNot +
                    (plan_.firstOf(planned->whyNot) == nullptr ? " is not in the store"
                                                               : " has no device") +
                    ": " + name + " is not created",
                Consequence::SkipsEntry);
            break;
        case NotMade::vlanTaken:
            add(entry,
                "VLAN " + std::to_string(planned->vlanId) + " on " + planned->parent + " is " +
                    planned->whyNot + "'s already: " + name + " is not created",
                Consequence::SkipsEntry);
            break;
        case NotMade::nameTaken:
            add(entry,
                "its kernel name " + planned->name + " is " + planned->whyNot +
                    "'s already: " + name + " is not created",
                Consequence::SkipsEntry);
            break;
        default: // the bridge MAC, said once for the switch; a name without a dot ends the
                 // restore, and the parse says so
            break;
        }
        return false;
    }

    // Where the store has the FAP: the entry of "devices" that holds its name.
    std::string fapPointer(const std::string& name, std::size_t fallback) const {
        const rapidjson::Value* devices = rapidjson::Pointer("/SandTessaline/devices").Get(store_);
        std::size_t index = fallback;
        if (devices && devices->IsArray()) {
            for (rapidjson::SizeType i = 0; i < devices->Size(); ++i) {
                const rapidjson::Value& device = (*devices)[i];
                if (device.IsObject() && device.HasMember("name") && device["name"].IsString() &&
                    name == device["name"].GetString()) {
                    index = i;
                }
            }
        }
        return "/SandTessaline/devices/" + std::to_string(index) + "/numFaps";
    }

    void checkMtu(const Interface& intf, const Config& config) {
        const std::string& name = intf.name();
        std::string pointer = pointerText({"Dorvel", "intfMtus", name, "mtu"});
        if (!rapidjson::Pointer(pointer.c_str()).Get(store_)) {
            pointer = interfacePointer(store_, name);
        }
        const std::int32_t mtu = intf.mtu();
        const auto refused = [&](const std::string& why) {
            add(pointer,
                "MTU " + std::to_string(mtu) + " of " + name + " " + why + ": the MTU is not set",
                Consequence::SkipsEntry);
        };
        // Its IPv6 switches are set before its own MTU: what its port does to it comes first.
        if (const Interface* port = routedPortBelowIpv6(intf, config)) {
            add(pointerText({"Dorvel", "intfMtus", port->name(), "mtu"}),
                "MTU " + std::to_string(port->mtu()) + " of " + port->name() + " is below IPv6's " +
                    std::to_string(smallestIpv6Mtu) +
                    ": the kernel takes IPv6 off its VLAN devices too, and the restore ends on "
                    "\"fp\" setting the IPv6 switches of " +
                    name,
                Consequence::EndsProcess, true);
            return;
        }
        if (mtu < smallestMtu || mtu > largestMtu) {
            refused("is outside " + std::to_string(smallestMtu) + " to " +
                    std::to_string(largestMtu) + ", which the kernel takes");
            return;
        }
        const InterfaceType type = intf.interfaceType();
        if (type == InterfaceType::SVI_ || type == InterfaceType::SubIntf_) {
            const std::int32_t lower = lowerMtu(intf);
            if (mtu > lower) {
                refused("is larger than the " + std::to_string(lower) +
                        " of the device it is a VLAN of");
                return;
            }
        }
        if (mtu < smallestIpv6Mtu && !intf.ipv6().empty()) {
            add(pointer,
                "MTU " + std::to_string(mtu) + " of " + name + " is below IPv6's " +
                    std::to_string(smallestIpv6Mtu) +
                    ": the kernel takes IPv6 off the device, and its IPv6 addresses are not added",
                Consequence::SkipsEntry);
        }
    }

    // A subinterface's port, when it is routed in the default namespace with an MTU the kernel
    // takes but IPv6 does not: the port's configure comes first, and lowers the
    // subinterface's MTU with its own.
    static const Interface* routedPortBelowIpv6(const Interface& intf, const Config& config) {
        const Interface* port = portOf(intf, config);
        if (port == nullptr || !routedInDefault(*port) || kernelIntfName(port->name()).empty()) {
            return nullptr;
        }
        return port->mtu() >= smallestMtu && port->mtu() < smallestIpv6Mtu ? port : nullptr;
    }

    static bool routedInDefault(const Interface& port) {
        return (port.interfaceType() == InterfaceType::RoutedPort_ ||
                port.interfaceType() == InterfaceType::LagRouted_) &&
               (port.netNsName().empty() || port.netNsName() == DEFAULT_NS);
    }

    // A subinterface's port; null for any other interface or a port the store does not have.
    static const Interface* portOf(const Interface& intf, const Config& config) {
        // A name without a dot ends the restore before this matters; it must not end a check.
        const std::size_t dot = intf.name().find('.');
        if (intf.interfaceType() != InterfaceType::SubIntf_ || dot == std::string::npos) {
            return nullptr;
        }
        const auto parent = config.interface().find(intf.name().substr(0, dot));
        return parent == config.interface().end() ? nullptr : parent->second.get();
    }

    // The MTU of the device a VLAN device is made over, when its own MTU is set.
    std::int32_t lowerMtu(const Interface& intf) const {
        const PlannedDevice* planned = plan_.firstOf(intf.name());
        return static_cast<std::int32_t>(planned != nullptr ? planned->lowerMtu : chipDeviceMtu);
    }

    void add(std::string pointer, std::string message, Consequence consequence,
             bool inDriver = false) {
        problems_.push_back({std::move(pointer), std::move(message), consequence, inDriver});
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
                Consequence::EndsProcess, true);
        } else if (namespacePath(ns).empty() && isLayer3(intf.interfaceType())) {
            add(pointer,
                "namespace " + ns + " of " + intf.name() +
                    " cannot be a named namespace: the restore ends when it enters it",
                Consequence::EndsProcess, true);
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
    const RestorePlan& plan_;
    std::vector<StoreProblem>& problems_;
    const SandConfig* sand_ = nullptr;
};

} // namespace

std::vector<StoreProblem> modelProblemsOf(const Config& config, const rapidjson::Document& store) {
    std::vector<StoreProblem> problems;
    // Check speaks of the command line's restore, which turns every guard on.
    const RestorePlan plan = restorePlan(config, false, true);
    Finder finder(store, plan, problems);
    finder.checkSwitch(config);
    for (const auto& [name, intf] : config.interface()) {
        finder.check(*intf, config);
    }
    return problems;
}

} // namespace Kestrune
