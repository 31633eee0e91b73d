#include "util/Utils.h"

#include "Scenario.h"
#include "util/HardwareFeatureStatus.h"
#include "util/Trace.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Kestrune::Testing {
namespace {

TEST(AddrAndPrefix, SplitsAddressAndPrefixLength) {
    const struct {
        const char* text;
        const char* address;
        int prefix;
    } cases[] = {
        {"192.168.1.1/24", "192.168.1.1", 24},
        {"fe80::1/64", "fe80::1", 64},
        {"10.0.0.1/ 8", "10.0.0.1", 8},
        {"10.0.0.1/32x", "10.0.0.1", 32},
        // Without "/", the whole text is read as the prefix length: callers always pass one.
        {"10.1.2.3", "10.1.2.3", 10},
    };
    for (const auto& c : cases) {
        std::string address;
        int prefix = -1;
        getAddrAndPrefix(c.text, address, prefix);
        EXPECT_EQ(address, c.address) << c.text;
        EXPECT_EQ(prefix, c.prefix) << c.text;
    }
}

TEST(AddrAndPrefix, APrefixThatIsNotANumberThrows) {
    std::string address;
    int prefix = 0;
    EXPECT_THROW(getAddrAndPrefix("10.0.0.1/", address, prefix), std::invalid_argument);
    EXPECT_THROW(getAddrAndPrefix("10.0.0.1/x", address, prefix), std::invalid_argument);
    EXPECT_THROW(getAddrAndPrefix("fe80::1", address, prefix), std::invalid_argument);
    EXPECT_THROW(getAddrAndPrefix("10.0.0.1/99999999999", address, prefix), std::out_of_range);
}

TEST(ParentIntfOfSubIntf, IsTheNameBeforeTheFirstDot) {
    EXPECT_EQ(parentIntfOfSubIntf("Ethernet1.100"), "Ethernet1");
    EXPECT_EQ(parentIntfOfSubIntf("Ethernet1/1.100"), "Ethernet1/1");
    EXPECT_EQ(parentIntfOfSubIntf("Port-Channel5.10.2"), "Port-Channel5");
    const TempDir dir;
    const Outcome outcome = runProcess(dir, [] { parentIntfOfSubIntf("Ethernet1"); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    ASSERT_FALSE(outcome.events.empty());
    EXPECT_EQ(outcome.events.back().group, "Assertion");
}

// A stand-in for the chip's register tool: records its arguments and prints what the test
// asks of it.
class Schan : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.write("schan", "#!/bin/sh\n"
                            "printf '%s\\n' \"$*\" >> \"$0.log\"\n"
                            "printf \"$(cat \"$0.reply\")\"\n");
        std::filesystem::permissions(dir_.file("schan"), std::filesystem::perms::owner_all);
        reply("");
        path_ = std::getenv("PATH");
        setenv("PATH", (dir_.path().string() + ":" + path_).c_str(), 1);
    }
    void TearDown() override { setenv("PATH", path_.c_str(), 1); }
    void reply(const std::string& text) const { dir_.write("schan.reply", text); }
    std::string lastCommand() const {
        const std::vector<std::string> commands = linesOf(dir_.file("schan.log"));
        return commands.empty() ? std::string() : commands.back();
    }

  private:
    TempDir dir_;
    std::string path_;
};

TEST_F(Schan, WritesSucceedOnlyWhenTheToolPrintsNothing) {
    EXPECT_TRUE(schanWriteReg32(3, 0, 1, 0x10, 5));
    EXPECT_EQ(lastCommand(), "3:00.0 writereg 0 1 16 5");
    EXPECT_TRUE(schanWriteReg64(12, 3, 0, 0x2000, 0xa, 0xb));
    EXPECT_EQ(lastCommand(), "12:00.0 writereg 3 0 8192 10 11");
    reply("error: no such register\\n");
    EXPECT_FALSE(schanWriteReg32(3, 0, 1, 0x10, 5));
}

TEST_F(Schan, ReadsParseTheToolsHexadecimalOutput) {
    const struct {
        const char* output;
        bool is32;
        bool ok;
        unsigned high;
        unsigned low;
    } cases[] = {
        {"1a 2b\\n", false, true, 0x1a, 0x2b},
        {"0xdeadbeef 0x1\\n", false, true, 0xdeadbeef, 0x1},
        {"1a\\n", false, false, 0, 0},
        {"ff\\n", true, true, 0, 0xff},
        {"", true, false, 0, 0},
        {"", false, false, 0, 0},
        {"zz\\n", true, false, 0, 0},
    };
    for (const auto& c : cases) {
        reply(c.output);
        unsigned high = 0;
        unsigned low = 0;
        const bool ok = c.is32 ? schanReadReg32(2, 0, 3, 0x2a, &low)
                               : schanReadReg64(2, 0, 3, 0x2a, &high, &low);
        EXPECT_EQ(ok, c.ok) << c.output;
        EXPECT_EQ(lastCommand(), "2:00.0 readreg 0 3 42") << c.output;
        if (c.ok) {
            EXPECT_EQ(high, c.high) << c.output;
            EXPECT_EQ(low, c.low) << c.output;
        }
    }
}

TEST(HardwareFeatureStatus, ReadsTheApplicationEnableFlag) {
    const TempDir dir;
    const struct {
        const char* file;
        bool applicationEnable;
    } cases[] = {
        {"applicationEnable=1\n", true},
        {"  applicationEnable = 1  # on for this platform\n", true},
        {"applicationEnable=0\n", false},
        {"# applicationEnable=1\n", false},
        {"otherFeature=1\napplicationEnable=1\n", true},
        {"applicationEnable=1\napplicationEnable=0\n", false},
        {"applicationEnable=yes\n", false},
        {"", false},
    };
    for (const auto& c : cases) {
        dir.write("features", c.file);
        HardwareFeatureStatus status(dir.file("features"));
        status.doPopulate();
        EXPECT_EQ(status.applicationEnable(), c.applicationEnable) << c.file;
    }
    HardwareFeatureStatus absent(dir.file("absent"));
    absent.doPopulate();
    EXPECT_FALSE(absent.applicationEnable());
}

TEST(HardwareFeatureStatus, ALineItCannotReadIsTracedWithItsPlace) {
    const TempDir dir;
    dir.write("features", "applicationEnable=1\n\nbroken line\n");
    std::vector<std::string> traces;
    Trace::sinkIs([&](std::string_view line) { traces.emplace_back(line); });
    HardwareFeatureStatus status(dir.file("features"));
    status.doPopulate();
    Trace::sinkIs({});
    EXPECT_TRUE(status.applicationEnable());
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0], "Kestrune:0 HardwareFeatureStatus " + dir.file("features") +
                             ":3 expected name=0 or name=1, found \"broken line\"");
}

} // namespace
} // namespace Kestrune::Testing
