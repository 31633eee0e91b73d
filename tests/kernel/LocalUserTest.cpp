// What another local user (uid 65534) or a planted file can do to a restore, one row per way
// found: each row does what was found to work, then shows what happens now. The restore's
// lock and history are root's alone, the chip device daemon's request reader bounds what a
// user sends it, and the history reads only what this process's user wrote.
#include "Chip.h"
#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "log/EventJournal.h"
#include "log/EventLogQueue.h"
#include "log/HistoryStore.h"
#include "log/Log.h"
#include "platform/ChipDevice.h"
#include "state/QueueHolder.h"
#include "util/OutputFile.h"
#include "util/RestoreLock.h"
#include "util/Trace.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <memory>
#include <net/if.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

constexpr uid_t nobody = 65534;

// Runs attack as uid and gid 65534 in a child process; its exit status.
int asNobody(const std::function<int()>& attack) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(99);
        }
        _exit(attack());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// As nobody: opens path read-only (all flock needs) and holds a shared lock on it until
// killed, saying on `ready` once it does. Exits 13 when the open is refused with EACCES.
pid_t nobodyLocks(const std::string& path, int ready) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
            _exit(99);
        }
        const int fd = ::open(path.c_str(), O_RDONLY);
        if (fd < 0) {
            _exit(errno == EACCES ? 13 : 12);
        }
        flock(fd, LOCK_SH);
        [[maybe_unused]] const ssize_t told = ::write(ready, "x", 1);
        pause();
        _exit(0);
    }
    return child;
}

// Whether the child said it holds its lock (true) or ended first (false, with its status).
bool holds(pid_t child, int ready, int* status) {
    char byte = 0;
    if (::read(ready, &byte, 1) == 1) {
        return true;
    }
    waitpid(child, status, 0);
    return false;
}

void end(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::size_t sizeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

// Runs one restore process that records an event with the history at dir/history.db; how
// long it took, in seconds.
double recordOne(const TempDir& dir) {
    const auto start = std::chrono::steady_clock::now();
    runProcess(dir, [] {
        Log::logEvent("Driver", "one");
        Log::doStorePending();
    });
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool hasEvent(const std::vector<Event>& events, const std::string& message) {
    return std::any_of(events.begin(), events.end(),
                       [&](const Event& event) { return event.message == message; });
}

// An sqlite3 script run on a history before the restore opens it.
void sqlite(const std::string& history, const std::string& script) {
    int status = 0;
    shellOutput("python3 -c \"import sqlite3, sys; db = sqlite3.connect(sys.argv[1]); "
                "db.executescript(sys.argv[2]); db.commit()\" " +
                    history + " \"" + script + "\"",
                &status);
    ASSERT_EQ(status, 0) << script;
}

constexpr const char* eventTable =
    "CREATE TABLE event (id INTEGER PRIMARY KEY, time REAL NOT NULL, persistence TEXT NOT NULL,"
    " agent TEXT NOT NULL, message_group TEXT NOT NULL, message TEXT NOT NULL, origin TEXT);";

class LocalUser : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        // Where a user may walk, as /var/lib is: only the files' own modes keep them out.
        chmod(dir_.path().c_str(), 0755);
    }
    const TempDir dir_;
};

struct Finding {
    const char* what;
    std::function<void(const TempDir&)> shown;
};

const Finding findings[] = {
    {"a user holds the restore lock",
     [](const TempDir&) {
         {
             RestoreLock made;
             ASSERT_TRUE(made.doTake()) << made.error();
         }
         int ready[2];
         ASSERT_EQ(pipe(ready), 0);
         const pid_t locker = nobodyLocks(RestoreLock::defaultPath, ready[1]);
         close(ready[1]);
         int status = 0;
         EXPECT_FALSE(holds(locker, ready[0], &status)) << "a user holds the lock";
         EXPECT_EQ(WEXITSTATUS(status), 13) << "the open was not refused for want of access";
         RestoreLock restore;
         EXPECT_TRUE(restore.doTake()) << restore.error();
         end(locker);
         close(ready[0]);
         EXPECT_EQ(modeOf(RestoreLock::defaultPath), 0600);
         EXPECT_EQ(modeOf("/run/kestrune"), 0755);
     }},
    {"a restore lock left readable by all",
     [](const TempDir&) {
         mkdir("/run/kestrune", 0755);
         const int fd = ::open(RestoreLock::defaultPath, O_CREAT | O_WRONLY, 0644);
         ASSERT_GE(fd, 0);
         fchmod(fd, 0644);
         close(fd);
         RestoreLock restore;
         EXPECT_TRUE(restore.doTake()) << restore.error();
         EXPECT_EQ(modeOf(RestoreLock::defaultPath), 0600);
     }},
    {"/run/kestrune is a link",
     [](const TempDir& dir) {
         mkdir(dir.file("elsewhere").c_str(), 0755);
         ASSERT_EQ(symlink(dir.file("elsewhere").c_str(), "/run/kestrune"), 0);
         RestoreLock restore;
         EXPECT_FALSE(restore.doTake());
         EXPECT_NE(restore.error().find("it is a link or not a folder"), std::string::npos)
             << restore.error();
         EXPECT_FALSE(std::filesystem::exists(dir.file("elsewhere/restore.lock")));
     }},
    {"/run/kestrune belongs to a user",
     [](const TempDir&) {
         mkdir("/run/kestrune", 0755);
         ASSERT_EQ(chown("/run/kestrune", nobody, nobody), 0);
         RestoreLock restore;
         EXPECT_FALSE(restore.doTake());
         EXPECT_NE(restore.error().find("belongs to uid 65534"), std::string::npos)
             << restore.error();
     }},
    {"a user holds a shared lock on the history's -shm",
     [](const TempDir& dir) {
         recordOne(dir);
         const std::string history = dir.file("history.db");
         // A restore at work has the history open: its -shm is there.
         HistoryStore open(eventLogQueueFactory(), history);
         ASSERT_TRUE(open.doRestore());
         ASSERT_TRUE(std::filesystem::exists(history + "-shm"));
         int ready[2];
         ASSERT_EQ(pipe(ready), 0);
         const pid_t locker = nobodyLocks(history + "-shm", ready[1]);
         close(ready[1]);
         int status = 0;
         EXPECT_FALSE(holds(locker, ready[0], &status)) << "a user holds the -shm";
         EXPECT_EQ(WEXITSTATUS(status), 13);
         end(locker);
         close(ready[0]);
         for (const char* suffix : {"", "-shm", "-wal"}) {
             EXPECT_EQ(modeOf(history + suffix), 0600) << suffix;
         }
     }},
    {"a history left readable by all",
     [](const TempDir& dir) {
         recordOne(dir);
         chmod(dir.file("history.db").c_str(), 0644);
         recordOne(dir);
         EXPECT_EQ(modeOf(dir.file("history.db")), 0600);
     }},
    {"a bde enable-interrupts record whose count is 0xffffffff",
     [](const TempDir& dir) {
         Sim::Chip chip(dir.file("chip.log"), Sim::Chip::Family::strata);
         // A record as long as it must be to hold the count, and not a byte more: a read past
         // it is caught by AddressSanitizer in the sanitizer build.
         std::vector<unsigned char> record(32, 0);
         const std::uint32_t count = 0xffffffff;
         std::memcpy(record.data() + 28, &count, sizeof count);
         std::size_t wanted = 0;
         EXPECT_EQ(chip.deviceRequest(true, bdeEnableInterruptsRequest, record.data(),
                                      record.size(), &wanted, nobody),
                   0);
         EXPECT_EQ(wanted, Sim::Chip::largestRequest) << "asks for more than the driver's bound";
         record.resize(wanted);
         errno = 0;
         EXPECT_EQ(chip.deviceRequest(true, bdeEnableInterruptsRequest, record.data(),
                                      record.size(), &wanted, nobody),
                   -1);
         EXPECT_EQ(errno, EINVAL);
         chip.doFlushLog();
         EXPECT_TRUE(anyContains(linesOf(dir.file("chip.log")),
                                 "refused bde request 19462: its record says 4097 bytes"))
             << contentOf(dir.file("chip.log"));
     }},
    {"1,100 ifadd requests from one user",
     [](const TempDir& dir) {
         Sim::Chip chip(dir.file("chip.log"), Sim::Chip::Family::strata);
         int made = 0;
         int refused = 0;
         for (int i = 0; i < 1100; ++i) {
             const std::string command = "ifadd u" + std::to_string(i) + " 0 1 -1 1 0 0";
             const int result = chip.fabricCommand(command, nobody);
             made += result == 0 ? 1 : 0;
             refused += result != 0 && errno == EDQUOT ? 1 : 0;
         }
         EXPECT_EQ(made, static_cast<int>(Sim::Chip::devicesPerClient));
         EXPECT_EQ(refused, 1100 - made);
         chip.doFlushLog();
         EXPECT_TRUE(anyContains(linesOf(dir.file("chip.log")),
                                 "refused ifadd u64 from uid 65534: it has made 64 devices"));
         // The restore, as root, still makes its ports.
         EXPECT_EQ(chip.fabricCommand("ifadd et1 0 1 -1 1 0 0"), 0);
     }},
    {"20,000 refused 4 KB commands",
     [](const TempDir& dir) {
         const std::string log = dir.file("chip.log");
         Sim::Chip chip(log, Sim::Chip::Family::strata);
         const std::string command = "ifadd " + std::string(4000, 'x');
         // The chip's own trace of each refusal is not what this is about.
         const std::uint16_t levels = Trace::levels();
         Trace::levelsIs(0);
         for (int i = 0; i < 20000; ++i) {
             chip.fabricCommand(command, nobody);
         }
         Trace::levelsIs(levels);
         chip.doFlushLog();
         // 80 MB of commands; the log keeps two files of at most largestLog each, of lines cut
         // to largestLogLine.
         EXPECT_LE(sizeOf(log), static_cast<std::size_t>(Sim::Chip::largestLog));
         EXPECT_GT(sizeOf(log + ".1"), 0U) << "not rotated";
         EXPECT_LE(sizeOf(log + ".1"), static_cast<std::size_t>(Sim::Chip::largestLog));
         const auto lines = linesOf(log);
         ASSERT_FALSE(lines.empty());
         EXPECT_LE(lines.back().size(), Sim::Chip::largestLogLine + 32);
     }},
    {"a FIFO among the journals",
     [](const TempDir& dir) {
         recordOne(dir);
         const std::string fifo = dir.file("history.db.pending-1-1");
         ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
         EXPECT_LT(recordOne(dir), 10) << "the restore waited on the FIFO";
         std::vector<std::string> leftAlone;
         const auto events = HistoryStore::historyOf(dir.file("history.db"), &leftAlone);
         EXPECT_EQ(events.size(), 2U);
         EXPECT_EQ(leftAlone, std::vector<std::string>{"event journal " + fifo +
                                                       " left alone: it is not a regular file"});
         EXPECT_TRUE(std::filesystem::exists(fifo));
     }},
    {"a journal another user wrote in a folder others can write",
     [](const TempDir& dir) {
         chmod(dir.path().c_str(), 01777);
         recordOne(dir);
         const std::string planted = dir.file("history.db.pending-99-1");
         ASSERT_EQ(asNobody([&] {
                       const int fd = ::open(planted.c_str(), O_CREAT | O_WRONLY | O_EXCL, 0600);
                       const std::string record = "99-1-1\t1.0\tpersistent\tKestrune\tDriver\t"
                                                  "planted\n";
                       return fd >= 0 && ::write(fd, record.data(), record.size()) > 0 ? 0 : 1;
                   }),
                   0);
         recordOne(dir);
         std::vector<std::string> leftAlone;
         const auto events = HistoryStore::historyOf(dir.file("history.db"), &leftAlone);
         EXPECT_FALSE(hasEvent(events, "planted"));
         EXPECT_EQ(leftAlone, std::vector<std::string>{"event journal " + planted +
                                                       " left alone: it belongs to uid 65534"});
         EXPECT_TRUE(std::filesystem::exists(planted));
     }},
    {"a history whose event is an endless view",
     [](const TempDir& dir) {
         const std::string history = dir.file("history.db");
         sqlite(history, "CREATE VIEW event AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL "
                         "SELECT x + 1 FROM c) SELECT x AS id, 0.0 AS time, '' AS persistence, "
                         "'' AS agent, '' AS message_group, '' AS message, '' AS origin "
                         "FROM c ORDER BY x DESC;");
         const auto start = std::chrono::steady_clock::now();
         try {
             HistoryStore::historyOf(history);
             ADD_FAILURE() << "read an endless view";
         } catch (const std::runtime_error& e) {
             EXPECT_NE(std::string(e.what()).find("it has no table named event"), std::string::npos)
                 << e.what();
         }
         EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                   5);
     }},
    {"a trigger that never ends",
     [](const TempDir& dir) {
         const std::string history = dir.file("history.db");
         // A trigger may hold no recursive query; a join of 200,000 rows with themselves takes
         // minutes.
         sqlite(history, std::string(eventTable) +
                             "CREATE TABLE big (x INTEGER); WITH RECURSIVE c(x) AS (SELECT 1 "
                             "UNION ALL SELECT x + 1 FROM c LIMIT 200000) INSERT INTO big SELECT x "
                             "FROM c; CREATE TRIGGER forever AFTER INSERT ON event BEGIN SELECT "
                             "count(*) FROM big a, big b; END;");
         // Cut off once, at the store; at exit the event is left in the journal at once.
         const double seconds = recordOne(dir);
         EXPECT_GT(seconds, 4);
         EXPECT_LT(seconds, 10) << "cut off at exit too";
         const auto events = HistoryStore::historyOf(history);
         EXPECT_TRUE(hasEvent(events, "one"));
         EXPECT_EQ(EventJournal::journalsOf(history).size(), 1U);
     }},
    {"a second process finds the history locked at open",
     [](const TempDir& dir) {
         const std::string history = dir.file("history.db");
         // A first run holds a write lock on a history that has no table yet.
         const std::string script = "import sqlite3, sys, time\n"
                                    "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
                                    "db.execute('PRAGMA journal_mode=WAL')\n"
                                    "db.execute('BEGIN IMMEDIATE')\n"
                                    "print('locked', flush=True)\n"
                                    "sys.stdin.read()\n";
         dir.write("lock.py", script);
         // It holds the lock until its input ends.
         ASSERT_EQ(mkfifo(dir.file("hold").c_str(), 0600), 0);
         FILE* locker = popen(
             ("python3 " + dir.file("lock.py") + " " + history + " < " + dir.file("hold")).c_str(),
             "r");
         const int hold = ::open(dir.file("hold").c_str(), O_WRONLY);
         char line[16] = {};
         ASSERT_NE(std::fgets(line, sizeof line, locker), nullptr);
         std::fflush(nullptr);
         const pid_t second = fork();
         if (second == 0) {
             Log::historyPathIs(history);
             Log::logEvent("Driver", "second");
             Log::doStorePending();
             const Log::HistoryStatus status = Log::historyStatus();
             std::exit(status.problems.empty() && status.waiting == 1 ? 0 : 1);
         }
         int status = 0;
         waitpid(second, &status, 0);
         close(hold);
         pclose(locker);
         EXPECT_EQ(status, 0) << "a locked history at open was taken for a problem";
         // The next run finds the history free and folds the waiting event in.
         recordOne(dir);
         const auto events = HistoryStore::historyOf(history);
         EXPECT_TRUE(hasEvent(events, "second"));
         EXPECT_TRUE(hasEvent(events, "one"));
     }},
    {"--report and --trace-file at a link",
     [](const TempDir& dir) {
         dir.write("target", "untouched");
         ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file("report.json").c_str()), 0);
         ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file("trace.txt").c_str()), 0);
         int status = 0;
         const std::string report =
             shellOutput(std::string(KESTRUNE_CLI) + " simulate --report " +
                             dir.file("report.json") + " --trace-file /dev/null 2>&1",
                         &status);
         EXPECT_EQ(status, 1) << report;
         EXPECT_NE(
             report.find("cannot write the report " + dir.file("report.json") + ": it is a link"),
             std::string::npos)
             << report;
         const std::string trace = shellOutput(std::string(KESTRUNE_CLI) + " check --trace-file " +
                                                   dir.file("trace.txt") + " " +
                                                   KESTRUNE_SOURCE_DIR "/examples/strata.json 2>&1",
                                               &status);
         EXPECT_EQ(status, 2) << trace;
         EXPECT_NE(trace.find("it is a link"), std::string::npos) << trace;
         EXPECT_EQ(contentOf(dir.file("target")), "untouched");
     }},
    // Opened blocking, a FIFO nobody reads held the restore: at the report after all was
    // restored, with the lock kept; at the trace before it started.
    {"a FIFO at --report or --trace-file",
     [](const TempDir& dir) {
         ASSERT_EQ(mkfifo(dir.file("report.json").c_str(), 0666), 0);
         ASSERT_EQ(mkfifo(dir.file("trace.txt").c_str(), 0666), 0);
         int status = 0;
         const std::string report =
             shellOutput("timeout 120 " + std::string(KESTRUNE_CLI) + " simulate --report " +
                             dir.file("report.json") + " --trace-file /dev/null 2>&1",
                         &status);
         EXPECT_EQ(status, 1) << report;
         EXPECT_NE(report.find("cannot write the report " + dir.file("report.json") +
                               ": it is not a regular file"),
                   std::string::npos)
             << report;
         const std::string trace = shellOutput(
             "timeout 60 " + std::string(KESTRUNE_CLI) + " check --trace-file " +
                 dir.file("trace.txt") + " " + KESTRUNE_SOURCE_DIR "/examples/strata.json 2>&1",
             &status);
         EXPECT_EQ(status, 2) << trace;
         EXPECT_NE(trace.find("it is not a regular file"), std::string::npos) << trace;
     }},
    // The metrics go where the node exporter reads, a folder that may be another user's: the
    // names a restore's pid would give were taken first, and a folder on the path swapped for
    // a link made root write into a folder of root's alone.
    {"the metrics file in a folder another user can write",
     [](const TempDir& dir) {
         const std::string drop = dir.file("drop");
         ASSERT_EQ(mkdir(drop.c_str(), 0755), 0);
         ASSERT_EQ(chown(drop.c_str(), nobody, nobody), 0);
         ASSERT_EQ(mkdir(dir.file("private").c_str(), 0700), 0);
         ASSERT_EQ(
             asNobody([&] {
                 for (int pid = getpid(); pid < getpid() + 200; ++pid) {
                     const std::string name = drop + "/kestrune.prom.new-" + std::to_string(pid);
                     ::close(::open(name.c_str(), O_CREAT | O_WRONLY, 0644));
                 }
                 return mkdir((drop + "/sub").c_str(), 0755) == 0 &&
                                rename((drop + "/sub").c_str(), (drop + "/away").c_str()) == 0 &&
                                symlink(dir.file("private").c_str(), (drop + "/sub").c_str()) ==
                                    0 &&
                                symlink(dir.file("private").c_str(),
                                        (drop + "/linked.prom").c_str()) == 0
                            ? 0
                            : 1;
             }),
             0);
         std::string problem;
         EXPECT_TRUE(
             outputReplaced(drop + "/kestrune.prom", "kestrune_restore_success 1\n", problem))
             << problem;
         EXPECT_EQ(contentOf(drop + "/kestrune.prom"), "kestrune_restore_success 1\n");
         EXPECT_EQ(modeOf(drop + "/kestrune.prom"), 0644);
         EXPECT_FALSE(outputReplaced(drop + "/sub/kestrune.prom", "x", problem));
         EXPECT_EQ(problem, drop + "/sub is a link in a folder others can write");
         // The name itself a link: replaced, not followed.
         EXPECT_TRUE(outputReplaced(drop + "/linked.prom", "y", problem)) << problem;
         EXPECT_FALSE(std::filesystem::is_symlink(drop + "/linked.prom"));
         EXPECT_EQ(contentOf(drop + "/linked.prom"), "y");
         EXPECT_TRUE(std::filesystem::is_empty(dir.file("private")));
         // The report and the trace: the same walk, and never another user's file.
         ASSERT_EQ(asNobody([&] {
                       return ::close(
                           ::open((drop + "/report.json").c_str(), O_CREAT | O_WRONLY, 0644));
                   }),
                   0);
         EXPECT_EQ(openOutput(drop + "/report.json", O_TRUNC, problem), -1);
         EXPECT_EQ(problem, "it belongs to uid 65534");
         EXPECT_EQ(openOutput(drop + "/sub/trace.txt", O_APPEND, problem), -1);
         EXPECT_EQ(problem, drop + "/sub is a link in a folder others can write");
         EXPECT_TRUE(std::filesystem::is_empty(dir.file("private")));
     }},
    // The pid file removed, or naming another process, while the holder lived: the next
    // restore neither ended the holder nor could anyone find it.
    {"a queue holder whose pid file is gone or names another process",
     [](const TempDir&) {
         const auto tapQueue = [](const char* name) {
             const int queue = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
             ifreq request{};
             std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
             request.ifr_flags = IFF_TAP | IFF_NO_PI;
             return queue >= 0 && ioctl(queue, TUNSETIFF, &request) == 0 ? queue : -1;
         };
         const auto holder = [] { return std::stoi(contentOf(QueueHolder::pidFile)); };
         const auto alive = [](pid_t pid) {
             return waitpid(pid, nullptr, WNOHANG) == 0 && kill(pid, 0) == 0;
         };
         const pid_t bystander = fork();
         if (bystander == 0) {
             pause();
             _exit(0);
         }
         for (const bool otherPid : {false, true}) {
             const int queue = tapQueue(otherPid ? "kt1" : "kt0");
             ASSERT_GE(queue, 0);
             std::string problem;
             ASSERT_TRUE(QueueHolder::doHold({queue}, problem)) << problem;
             ::close(queue);
             const pid_t held = holder();
             if (otherPid) {
                 std::ofstream(QueueHolder::pidFile) << bystander << "\n";
             } else {
                 ASSERT_EQ(unlink(QueueHolder::pidFile), 0);
             }
             EXPECT_TRUE(QueueHolder::doEndPrevious(problem)) << problem;
             // Its parent reaps it: the test process started it. doEndPrevious returns once
             // it is gone, so no wait is needed, only the reaping.
             EXPECT_EQ(waitpid(held, nullptr, WNOHANG), held) << "the holder was left running";
             end(held);
             EXPECT_TRUE(alive(bystander)) << "a process that is no holder was ended";
         }
         end(bystander);
     }},
};

TEST_F(LocalUser, EachWayFoundNoLongerHoldsARestore) {
    // Each refusal below must be the file's own mode: a user can reach a file of the test's
    // folder, and /run's.
    dir_.write("open.txt", "anyone");
    chmod(dir_.file("open.txt").c_str(), 0644);
    ASSERT_EQ(
        asNobody([&] { return ::open(dir_.file("open.txt").c_str(), O_RDONLY) >= 0 ? 0 : 1; }), 0)
        << "uid 65534 cannot reach " << dir_.path() << ": a folder above it is closed to others";
    ASSERT_EQ(asNobody([] { return ::access("/run", X_OK); }), 0);
    for (const Finding& finding : findings) {
        SCOPED_TRACE(finding.what);
        const TempDir dir;
        chmod(dir.path().c_str(), 0755);
        std::filesystem::remove_all("/run/kestrune");
        finding.shown(dir);
    }
}

} // namespace
} // namespace Kestrune::Testing
