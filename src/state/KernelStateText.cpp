#include "state/KernelState.h"
#include "util/Json.h"

#include <cstdio>
#include <sstream>

namespace Kestrune {

std::string kernelStateJson(const std::vector<NamespaceState>& state) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    for (const NamespaceState& ns : state) {
        writer.Key(ns.name.c_str());
        writer.StartArray();
        for (const DeviceState& device : ns.devices) {
            writer.StartObject();
            writer.Key("name");
            writer.String(device.name.c_str());
            writer.Key("kind");
            writer.String(device.kind.c_str());
            writer.Key("mtu");
            writer.Uint(device.mtu);
            writer.Key("mac");
            writer.String(device.mac.c_str());
            writer.Key("adminUp");
            writer.Bool(device.adminUp);
            writer.Key("carrier");
            writer.Bool(device.carrier);
            writer.Key("operState");
            writer.String(device.operState.c_str());
            writer.Key("qdisc");
            writer.String(device.qdisc.c_str());
            if (device.kind == "vlan") {
                writer.Key("vlanId");
                writer.Uint(device.vlanId);
                writer.Key("parent");
                writer.String(device.parent.c_str());
                writer.Key("parentNamespace");
                writer.String(device.parentNamespace.c_str());
            }
            for (const auto& [key, list] :
                 {std::pair{"ipv4", &device.ipv4}, {"ipv6", &device.ipv6}}) {
                writer.Key(key);
                writer.StartArray();
                for (const std::string& address : *list) {
                    writer.String(address.c_str());
                }
                writer.EndArray();
            }
            writer.EndObject();
        }
        writer.EndArray();
    }
    writer.EndObject();
    return buffer.GetString();
}

std::string kernelStateTable(const std::vector<NamespaceState>& state) {
    std::ostringstream out;
    for (const NamespaceState& ns : state) {
        out << "namespace " << ns.name << "\n";
        char line[256];
        std::snprintf(line, sizeof line, "  %-15s %-6s %5s  %-17s %-5s %-8s %-10s %s\n", "device",
                      "kind", "mtu", "mac", "admin", "oper", "qdisc", "addresses");
        out << line;
        for (const DeviceState& device : ns.devices) {
            std::string addresses;
            for (const auto* list : {&device.ipv4, &device.ipv6}) {
                for (const std::string& address : *list) {
                    addresses += (addresses.empty() ? "" : " ") + address;
                }
            }
            std::snprintf(line, sizeof line, "  %-15s %-6s %5u  %-17s %-5s %-8s %-10s %s\n",
                          device.name.c_str(), device.kind.empty() ? "-" : device.kind.c_str(),
                          device.mtu, device.mac.c_str(), device.adminUp ? "up" : "down",
                          device.operState.c_str(),
                          device.qdisc.empty() ? "-" : device.qdisc.c_str(), addresses.c_str());
            out << line;
        }
    }
    return out.str();
}

std::string kernelStateBrief(const std::vector<NamespaceState>& state) {
    constexpr std::size_t width = 88;
    std::ostringstream out;
    for (const NamespaceState& ns : state) {
        std::size_t up = 0;
        std::size_t addressed = 0;
        for (const DeviceState& device : ns.devices) {
            up += device.adminUp && device.carrier ? 1 : 0;
            addressed += device.ipv4.empty() && device.ipv6.empty() ? 0 : 1;
        }
        out << "namespace " << ns.name << ": " << ns.devices.size() << " devices, " << up
            << " up with carrier, " << addressed << " with addresses\n";
        std::string line = " ";
        for (const DeviceState& device : ns.devices) {
            if (line.size() + 1 + device.name.size() > width) {
                out << line << "\n";
                line = " ";
            }
            line += " " + device.name;
        }
        if (line.size() > 1) {
            out << line << "\n";
        }
    }
    return out.str();
}

} // namespace Kestrune
