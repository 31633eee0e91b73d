// The promise of `kestrune check`, where every device can be made: over the fuzz corpus and
// stores holding what the kernel or the chip refuses (VLAN ids and MTUs of VLAN devices, a
// Sand chip's FAPs), check's verdict is what the restore comes to, and `verify` answers every
// one of them with its JSON, never an abort.
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>

namespace Kestrune::Testing {
namespace {

// What `kestrune simulate` exits with for each of check's verdicts; an abort is 128 + SIGABRT
// as the shell says it.
const std::map<std::string, int> outcomeOf{
    {"complete", 0}, {"incomplete", 1}, {"no restore", 2}, {"ends the process", 134}};

std::vector<std::string> storesIn(const std::string& folder) {
    std::vector<std::string> stores;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".json") {
            stores.push_back(entry.path().string());
        }
    }
    std::sort(stores.begin(), stores.end());
    return stores;
}

TEST(CheckForesees, EachStoreEndsAsCheckSaysAndVerifyAnswersIt) {
    const TempDir dir;
    int status = -1;
    shellOutput("python3 " KESTRUNE_SOURCE_DIR "/tests/vm/hostile-stores.py " + dir.file("stores"),
                &status);
    ASSERT_EQ(status, 0);
    std::vector<std::string> stores = storesIn(dir.file("stores"));
    const auto corpus = storesIn(KESTRUNE_SOURCE_DIR "/tests/fuzz/corpus");
    stores.insert(stores.end(), corpus.begin(), corpus.end());
    const std::string cli = KESTRUNE_CLI;
    for (const std::string& store : stores) {
        SCOPED_TRACE(store);
        const std::string check = shellOutput(cli + " check --json " + store, &status);
        rapidjson::Document verdict;
        verdict.Parse(check.c_str());
        ASSERT_TRUE(verdict.IsObject()) << check;
        const std::string said = verdict["restore"].GetString();
        ASSERT_EQ(outcomeOf.count(said), 1U) << said;

        const std::string report = dir.file("report.json");
        std::remove(report.c_str());
        const std::string restored = shellOutput(cli + " simulate " + store +
                                                     " --history '' --trace-file /dev/null "
                                                     "--brief --report " +
                                                     report + " 2>&1",
                                                 &status);
        EXPECT_EQ(status, outcomeOf.at(said)) << "check says " << said << "\n"
                                              << check << "\n"
                                              << restored;
        // What the restore made is what the plan says it makes: a device check says is not
        // created is not expected by verify either, and every other one is there.
        if (status == 0 || status == 1) {
            rapidjson::Document written;
            written.Parse(contentOf(report).c_str());
            ASSERT_TRUE(written.IsObject() && written.HasMember("verify")) << restored;
            for (const auto& drift : written["verify"]["drift"].GetArray()) {
                EXPECT_STRNE(drift["check"].GetString(), "device")
                    << drift["namespace"].GetString() << " " << drift["device"].GetString() << " "
                    << drift["found"].GetString();
            }
        }

        const std::string verified =
            shellOutput(cli + " verify --json " + store + " 2>/dev/null", &status);
        EXPECT_TRUE(status >= 0 && status <= 2) << "verify ended with " << status;
        rapidjson::Document answer;
        answer.Parse(verified.c_str());
        EXPECT_TRUE(answer.IsObject()) << verified;
    }
}

} // namespace
} // namespace Kestrune::Testing
