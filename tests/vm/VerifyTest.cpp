#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <csignal>
#include <gtest/gtest.h>
#include <regex>
#include <tuple>

namespace Kestrune::Testing {
namespace {

const std::string strataExample = std::string(KESTRUNE_SOURCE_DIR) + "/examples/strata.json";

using Row = std::tuple<std::string, std::string, std::string, std::string, std::string>;

// The Strata example restored by `kestrune simulate --keep`, its sandbox left for a test to
// break one thing in and verify, as an operator would with nsenter.
class KeptRestore {
  public:
    KeptRestore() {
        outputOf({"/bin/sh", "-c",
                  std::string(KESTRUNE_CLI) + " simulate " + strataExample +
                      " --history '' --keep --report " + dir_.file("report.json") + " >" +
                      dir_.file("out.txt") + " 2>&1"});
        std::smatch found;
        const std::string out = contentOf(dir_.file("out.txt"));
        static const std::regex keeper("nsenter -t ([0-9]+) -n -m\n");
        if (std::regex_search(out, found, keeper)) {
            keeper_ = std::stoi(found[1]);
        }
        report_.Parse(contentOf(dir_.file("report.json")).c_str());
    }
    ~KeptRestore() {
        if (keeper_ > 0) {
            kill(keeper_, SIGKILL);
        }
    }
    KeptRestore(const KeptRestore&) = delete;
    KeptRestore& operator=(const KeptRestore&) = delete;

    bool kept() const { return keeper_ > 0; }
    const rapidjson::Document& report() const { return report_; }
    // A file of the test's own folder, which the sandbox sees too.
    std::string file(const std::string& name) const { return dir_.file(name); }

    // Runs a shell command line inside the sandbox; its exit status.
    int inside(const std::string& command) const {
        int status = -1;
        outputOf({"nsenter", "-t", std::to_string(keeper_), "-n", "-m", "/bin/sh", "-c", command},
                 &status);
        return status;
    }

    // `kestrune verify --json` inside the sandbox: its exit status and its drift.
    std::pair<int, std::vector<Row>> verified() const {
        int status = -1;
        const std::string json =
            outputOf({"nsenter", "-t", std::to_string(keeper_), "-n", "-m", "env",
                      "SIMULATION_VMID=1", KESTRUNE_CLI, "verify", "--json", strataExample},
                     &status);
        rapidjson::Document result;
        std::vector<Row> rows;
        if (result.Parse(json.c_str()).HasParseError() || !result.HasMember("drift")) {
            ADD_FAILURE() << "not the JSON of verify: " << json;
            return {status, rows};
        }
        for (const auto& d : result["drift"].GetArray()) {
            rows.emplace_back(d["namespace"].GetString(), d["device"].GetString(),
                              d["check"].GetString(), d["expected"].GetString(),
                              d["found"].GetString());
        }
        return {status, rows};
    }

  private:
    TempDir dir_;
    pid_t keeper_ = 0;
    rapidjson::Document report_;
};

struct BreakCase {
    const char* what;
    const char* command;
    std::vector<Row> drift;
};

// One thing broken after the restore, and exactly that reported; the untouched restore
// matches, as `simulate` itself found.
TEST(Verify, ReportsExactlyTheOneThingBrokenAfterARestore) {
    const std::vector<BreakCase> cases{
        {"untouched", "true", {}},
        {"a device deleted",
         "ip -n ns-red link del vlan11",
         {{"ns-red", "vlan11", "device", "present", "missing"}}},
        {"an MTU changed",
         "ip link set et1_7 mtu 1400",
         {{"default", "et1_7", "mtu", "9000", "1400"}}},
        {"an address removed",
         "ip -n ns-blue addr del 10.1.2.1/24 dev et1_3",
         {{"ns-blue", "et1_3", "address", "10.1.2.1/24", "missing"}}},
        {"an address added",
         "ip addr add 192.0.2.1/24 dev vlan10",
         {{"default", "vlan10", "address", "-", "192.0.2.1/24"}}},
        {"a device moved to another namespace",
         "ip -n ns-red link set vlan11 netns ns-blue",
         {{"ns-red", "vlan11", "device", "present", "in ns-blue"}}},
        {"a rule flushed",
         "iptables -D INPUT -j CONTROL-PLANE",
         {{"default", "iptables filter", "rule", "-A INPUT -j CONTROL-PLANE", "missing"}}},
        // The kernel drops the IPv6 addresses of a device that goes down.
        {"a device down",
         "ip -n ns-red link set et1_2 down",
         {{"ns-red", "et1_2", "admin", "up", "down"},
          {"ns-red", "et1_2", "address", "2001:db8:1:1::1/64", "missing"}}},
        // The SVIs sit on "fabric", in every namespace: the kernel takes them down with it,
        // and their IPv6 addresses go.
        {"fabric down",
         "ip link set fabric down",
         {{"default", "fabric", "admin", "up", "down"},
          {"default", "vlan10", "admin", "up", "down"},
          {"default", "vlan10", "address", "2001:db8:4::1/64", "missing"},
          {"ns-red", "vlan11", "admin", "up", "down"},
          {"ns-red", "vlan11", "address", "2001:db8:4:1::1/64", "missing"},
          {"ns-blue", "vlan12", "admin", "up", "down"},
          {"ns-blue", "vlan12", "address", "2001:db8:4:2::1/64", "missing"},
          {"default", "vlan13", "admin", "up", "down"},
          {"default", "vlan13", "address", "2001:db8:4:3::1/64", "missing"},
          {"ns-red", "vlan14", "admin", "up", "down"},
          {"ns-red", "vlan14", "address", "2001:db8:4:4::1/64", "missing"},
          {"ns-blue", "vlan15", "admin", "up", "down"},
          {"ns-blue", "vlan15", "address", "2001:db8:4:5::1/64", "missing"}}},
        {"a subinterface made again on another VLAN",
         "ip link del po1.100 && ip link add link po1 name po1.100 type vlan id 200 && "
         "ip link set po1.100 mtu 1500 up && ip addr add 10.3.0.1/24 dev po1.100 && "
         "ip addr add 2001:db8:3::1/64 dev po1.100",
         {{"default", "po1.100", "vlan id", "100", "200"}}},
    };
    for (const BreakCase& c : cases) {
        SCOPED_TRACE(c.what);
        const KeptRestore restore;
        ASSERT_TRUE(restore.kept());
        ASSERT_TRUE(restore.report()["verify"]["matches"].GetBool());
        ASSERT_EQ(restore.inside(c.command), 0);
        const auto [status, drift] = restore.verified();
        EXPECT_EQ(drift, c.drift);
        EXPECT_EQ(status, c.drift.empty() ? 0 : 1);
    }
}

// Everything verify found broken above, at once, beside what the store does not name: the dry
// run changes nothing, and the repair puts back the store's part and leaves the rest.
TEST(Repair, PutsBackWhatDriftedAndLeavesWhatTheStoreDoesNotName) {
    const KeptRestore restore;
    ASSERT_TRUE(restore.kept());
    ASSERT_TRUE(restore.report()["verify"]["matches"].GetBool());
    for (const char* drift : {
             "ip -n ns-red link del vlan11",
             "ip -n ns-blue link set vlan12 netns default",
             "ip link set et1_7 mtu 1400",
             "ip -n ns-blue addr del 10.1.2.1/24 dev et1_3",
             "ip -n ns-red link set et1_2 down",
             "iptables -F && ip6tables -F",
             // Not the store's:
             "ip addr add 192.0.2.1/24 dev vlan10",
             "ip -n ns-red tuntap add foreign0 mode tap",
             "iptables -A INPUT -s 198.51.100.9 -j DROP",
         }) {
        ASSERT_EQ(restore.inside(drift), 0) << drift;
    }
    const std::string dir = restore.file("");
    // The kernel as the repair finds it: every namespace's devices (flags, MTU, MAC) and
    // addresses, and the rules, without what changes by itself (counters, DAD's flags).
    const std::string stateNow =
        "{ for ns in default ns-blue ns-red; do "
        "ip -n $ns -o link | sed -E 's/^[0-9]+: //; s/ state [A-Z]+//'; "
        "ip -n $ns -o addr | awk '{print $2, $3, $4}'; done | sort; "
        "iptables-save; ip6tables-save; } | grep -v '^#' | sed 's/\\[[0-9]*:[0-9]*\\]//' >";
    ASSERT_EQ(restore.inside(stateNow + dir + "before.txt"), 0);
    const std::string repair = "env SIMULATION_VMID=1 " + std::string(KESTRUNE_CLI) + " repair " +
                               strataExample + " --history " + dir + "history.db";
    const int dryRun = restore.inside(repair + " >" + dir + "dry.txt 2>/dev/null");
    ASSERT_EQ(restore.inside(stateNow + dir + "after-dry.txt"), 0);
    EXPECT_EQ(dryRun, 1);
    EXPECT_EQ(contentOf(dir + "before.txt"), contentOf(dir + "after-dry.txt"))
        << "the dry run changed the kernel";
    const std::string steps = contentOf(dir + "dry.txt");
    for (const char* step :
         {"  do     ns-red vlan11: made as VLAN 11 on fabric\n",
          "  do     ns-blue vlan12: moved back from default\n",
          "  do     default et1_7: MTU 9000\n",
          "  do     ns-blue et1_3: address 10.1.2.1/24 added\n", "  do     ns-red et1_2: up\n",
          "  do     default iptables filter: rule -A INPUT -j CONTROL-PLANE put back\n",
          "  left   default vlan10: address 192.0.2.1/24 (not the store's: left as it is)\n",
          "  left   ns-red foreign0: device (not the store's: left as it is)\n",
          "  left   default iptables filter: rule -A INPUT -s 198.51.100.9/32 -j DROP (not the "
          "store's: left as it is)\n",
          "nothing was changed"}) {
        EXPECT_NE(steps.find(step), std::string::npos) << step << " in\n" << steps;
    }

    const int applied = restore.inside(repair + " --apply >" + dir + "applied.txt 2>/dev/null");
    EXPECT_EQ(applied, 1) << contentOf(dir + "applied.txt");
    EXPECT_EQ(contentOf(dir + "applied.txt").find("FAILED"), std::string::npos)
        << contentOf(dir + "applied.txt");
    const auto [status, drift] = restore.verified();
    EXPECT_EQ(status, 1);
    EXPECT_EQ(drift, (std::vector<Row>{
                         {"default", "vlan10", "address", "-", "192.0.2.1/24"},
                         {"default", "iptables filter", "rule", "-",
                          "-A INPUT -s 198.51.100.9/32 -j DROP"},
                     }));
    EXPECT_EQ(restore.inside("ip -n ns-red link show foreign0 >/dev/null"), 0);
    // What it did is in the switch's history.
    EXPECT_EQ(restore.inside(std::string(KESTRUNE_CLI) + " events --history " + dir +
                             "history.db | grep -q 'Put back vlan11 in ns-red: made as VLAN 11 on "
                             "fabric'"),
              0);
}

} // namespace
} // namespace Kestrune::Testing
