#include "Scenario.h"
#include "util/Json.h"

#include <gtest/gtest.h>

namespace Kestrune {
namespace {

using Testing::shellOutput;
using Testing::TempDir;

std::string cli() {
    return KESTRUNE_CLI;
}
std::string example(const std::string& name) {
    return std::string(KESTRUNE_SOURCE_DIR) + "/examples/" + name;
}

rapidjson::Document showJson(const std::string& store) {
    int status = -1;
    std::string out =
        shellOutput(cli() + " show --json --trace 0 " + store + " 2>/dev/null", &status);
    EXPECT_EQ(status, 0);
    rapidjson::Document document;
    document.Parse(out.c_str());
    EXPECT_TRUE(document.IsObject()) << out.substr(0, 200);
    return document;
}

std::string text(const rapidjson::Value& value) {
    return value.GetString();
}

TEST(ShowCommand, PrintsEveryInterfaceKindWithItsAttributes) {
    TempDir dir;
    dir.write("store.json", R"({
      "Tessaline": {"platformType": "Strata",
        "devices": [{"modId": 0, "busId": 1, "chipModel": "BCM56850"}],
        "interfaces": {
          "Ethernet1/1": {"modId": 0, "port": 1, "uc_qbase": 16, "mc_qbase": 48},
          "Ethernet1/2": {"modId": 0, "port": 2, "uc_qbase": 24, "mc_qbase": 52},
          "Ethernet1/3": {"modId": 0, "port": 3, "uc_qbase": 32, "mc_qbase": 56}}},
      "Pell": {"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet1/2", "Ethernet1/3"]}},
               "collectDistribute": {"Ethernet1/2": {"collecting": true, "distributing": true},
                                     "Ethernet1/3": {"collecting": true, "distributing": false}}},
      "Vant": {"bridgeMacAddr": "02:1c:73:5e:00:01",
               "subIntfNameToEncapVlanId": {"Ethernet1/1.100": 100},
               "intfNameToVlanId": {"Ethernet1/1": 1006, "Ethernet1/1.100": 1007,
                                    "Port-Channel5": 1008}},
      "Oku": {"interfaces": {
          "Ethernet1/1": {"ipAddress": "10.0.0.1/31", "ip6Address": ["2001:db8::1/64"],
                          "secondaryIpAddress": ["10.0.1.1/24", "10.0.0.9/24"], "vrf": "red"},
          "Vlan10": {"ipAddress": "10.0.10.1/24", "ip6Address": [], "vrf": "blue"}}},
      "Dorvel": {"intfMtus": {"Ethernet1/1": {"mtu": 1500, "l2Mtu": 1514}}},
      "Sabrel": {"iptables": "*filter\nCOMMIT\n", "ip6tables": ""}})");
    auto model = showJson(dir.file("store.json"));

    EXPECT_EQ(text(model["platformType"]), "Strata");
    EXPECT_EQ(text(model["bridgeMac"]), "02:1c:73:5e:00:01");
    EXPECT_EQ(text(model["iptablesConfig"]["iptables"]), "*filter\nCOMMIT\n");
    EXPECT_EQ(text(model["iptablesConfig"]["ip6tables"]), "");
    ASSERT_EQ(model["strataModule"].Size(), 1U);
    EXPECT_EQ(model["strataModule"][0]["busId"].GetInt(), 1);
    EXPECT_EQ(text(model["strataModule"][0]["chipModel"]), "BCM56850");

    const auto& interfaces = model["interfaces"];
    const auto& port = interfaces["Ethernet1/1"];
    EXPECT_EQ(text(port["class"]), "StrataInterface");
    EXPECT_EQ(text(port["interfaceType"]), "RoutedPort");
    EXPECT_EQ(port["internalVlan"].GetInt(), 1006);
    EXPECT_EQ(text(port["netNsName"]), "ns-red");
    EXPECT_EQ(port["mtu"].GetInt(), 1500);
    EXPECT_EQ(port["l2Mtu"].GetInt(), 1514);
    ASSERT_EQ(port["secondaryIpv4"].Size(), 2U);
    EXPECT_EQ(text(port["secondaryIpv4"][0]), "10.0.0.9/24") << "sorted";
    EXPECT_EQ(text(port["ipv6"][0]), "2001:db8::1/64");

    const auto& sub = interfaces["Ethernet1/1.100"];
    EXPECT_EQ(text(sub["class"]), "SubInterface");
    EXPECT_EQ(text(sub["interfaceType"]), "SubIntf");
    EXPECT_EQ(sub["encapVlan"].GetInt(), 100);
    EXPECT_EQ(sub["internalVlan"].GetInt(), 1007);
    EXPECT_EQ(text(sub["netNsName"]), "default");
    EXPECT_EQ(sub["mtu"].GetInt(), 9214);

    const auto& lag = interfaces["Port-Channel5"];
    EXPECT_EQ(text(lag["interfaceType"]), "LagRouted");
    EXPECT_EQ(lag["internalVlan"].GetInt(), 1008);
    EXPECT_TRUE(lag["member"]["Ethernet1/2"]["distributing"].GetBool());
    EXPECT_FALSE(lag["member"]["Ethernet1/3"]["distributing"].GetBool());
    EXPECT_TRUE(lag["member"]["Ethernet1/3"]["collecting"].GetBool());

    const auto& svi = interfaces["Vlan10"];
    EXPECT_EQ(text(svi["class"]), "VlanInterface");
    EXPECT_EQ(svi["vlan"].GetInt(), 10);
    EXPECT_EQ(text(svi["netNsName"]), "ns-blue");
    EXPECT_EQ(text(interfaces["Ethernet1/2"]["interfaceType"]), "L2");
}

TEST(ShowCommand, PrintsBothExamplesWithTheirPlatformRecords) {
    auto strata = showJson(example("strata.json"));
    EXPECT_EQ(text(strata["platformType"]), "Strata");
    EXPECT_GE(strata["interfaces"].MemberCount(), 48U);
    EXPECT_FALSE(strata.HasMember("sandFapConfig"));

    auto sand = showJson(example("sand.json"));
    EXPECT_EQ(text(sand["platformType"]), "Sand");
    EXPECT_EQ(sand["maxLags"].GetInt(), 1024);
    const auto& fap = sand["sandFapConfig"]["Fap0"];
    for (const char* field : {"name", "pciName", "numFaps", "fapType", "cpuTm", "cpuSflow",
                              "cpuAradSysPort", "cpuArad", "cpuAradBridge"}) {
        EXPECT_TRUE(fap.HasMember(field)) << field;
    }
    EXPECT_EQ(text(sand["interfaces"]["Ethernet1/1"]["class"]), "SandInterface");
    EXPECT_FALSE(sand.HasMember("strataModule"));
}

TEST(ShowCommand, TableAndFailures) {
    int status = -1;
    std::string table =
        shellOutput(cli() + " show " + example("strata.json") + " 2>/dev/null", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(table.rfind("Strata switch, bridge MAC 02:1c:73:5e:00:01, ", 0), 0U) << table;
    EXPECT_NE(table.find("\nNAME "), std::string::npos);

    // Why there is no store is said in the command's own line, with the path it looked for,
    // also where no trace line is shown.
    TempDir dir;
    dir.write("lower.json", R"({"Tessaline": {"platformType": "strata"}})");
    const struct {
        std::string file;
        std::string why;
    } noStore[] = {
        {dir.file("none.json"), "create " + dir.file("none.json") + " file not present"},
        {dir.file("lower.json"), "its platformType is neither \"Strata\" nor \"Sand\""},
    };
    for (const auto& c : noStore) {
        const std::string said =
            shellOutput(cli() + " show " + c.file + " 2>" + dir.file("said") +
                            "; s=$?; tail -n 1 " + dir.file("said") + "; exit $s",
                        &status);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(said,
                  "kestrune show: " + c.file + ": no store of a known platform: " + c.why + "\n");
    }
    shellOutput(cli() + " show --trace 12 x.json 2>&1", &status);
    EXPECT_EQ(status, 2);
}

// An engineer compares `show`'s trace with a restore's: it is the restore's from its first line.
TEST(ShowCommand, TracesTheStoreLoadingAsTheRestoreDoes) {
    int status = -1;
    const std::string trace = shellOutput(
        cli() + " show --trace 3 " + example("sand.json") + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(
        trace.rfind("Kestrune:3 create\nKestrune:3 create pstore file= " + example("sand.json") +
                        "\nKestrune:3 create Creating sand config parser\n",
                    0),
        0U)
        << trace;
}

} // namespace
} // namespace Kestrune
