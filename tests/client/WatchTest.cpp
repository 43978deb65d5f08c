// Watchers in other processes than the writers: every durable change to
// the subtree once, nothing for changes elsewhere, identical stores,
// compactions or commits a crash undid, and nothing lost while a watcher
// sleeps or is not running.
#include <zq/orvane/Orvane.h>
#include <zq/orvane/Registry.h>
#include <zq/orvane/Watch.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/Child.h"
#include "support/FreshStatus.h"
#include "support/RegistryRoot.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;
using zq::orvane::Watch;
using zq::orvane::WatchBatch;
using zq::orvane::WatchChange;
using zq::test::fresh;
using Lines = std::vector<std::string>;

AutoRef<IBucketManager> openManager(const std::string& dir, const std::string& options,
                                    StatusChain& status) {
    auto* registry = zq::orvane::publicInterface::GetInterface(2, status);
    return registry->createBucketManager(WString(dir.c_str()), WString(options.c_str()), status);
}

// One transaction: "name=value" sets "v" of the bucket, "-name" deletes it.
bool commit(IBucketManager& m, const Lines& steps) {
    StatusChain s = fresh();
    Guid id;
    m.beginTransaction(id, s);
    m.beginUpdate(id, s);
    for (const std::string& step : steps) {
        if (step[0] == '-') {
            m.deleteBucket(WString(step.c_str() + 1), id, s);
            continue;
        }
        const size_t eq = step.find('=');
        AutoRef<IBucket> bucket = m.createBucket(WString(step.substr(0, eq).c_str()), true, s);
        if (bucket) bucket->setInt32Value(WString(L"v"), std::stoi(step.substr(eq + 1)), s, true);
        m.putBucket(bucket, true, id, s);
    }
    m.commit(id, s);
    m.endTransaction(id, s);
    return s.isNotFatal();
}

std::string lineOf(const WatchChange& change) {
    static const char* const kinds[] = {"", "created", "changed", "deleted"};
    std::string line =
        std::string(kinds[change.kind]) + " " + zq::kel::NString(change.name).c_str();
    StatusChain s = fresh();
    AutoRef<zq::orvane::IBucketValue> value = change.bucket
                                                  ? change.bucket->getValue(WString(L"v"), s)
                                                  : AutoRef<zq::orvane::IBucketValue>();
    return line + " " + (value ? std::to_string(value->getInt32(s)) : "-");
}

class WatchTest : public testing::Test {
  protected:
    void SetUp() override {
        dir_.write("small.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=4\n");
        // A watcher changes no file, so a saved state stays one it can follow.
        dir_.write("reader.ini", "[Orvane]\nReadOnly=true\n");
        ASSERT_TRUE(write({"/w=0", "/w/a=0"}));
    }
    void TearDown() override {
        stop(watcher_);
        stop(writer_);
    }

    // One process that commits each transaction, then ends.
    bool writeEach(const std::vector<Lines>& transactions, const std::string& options = "") {
        return zq::test::inChildWithin(60, [&] {
                   StatusChain s = fresh();
                   AutoRef<IBucketManager> m = openManager(dir_.file("reg"), options, s);
                   for (const Lines& steps : transactions) {
                       if (!m || !commit(*m, steps)) return 1;
                   }
                   return 0;
               }) == 0;
    }
    bool write(const Lines& steps) { return writeEach(std::vector<Lines>{steps}); }

    // A child process that answers commands sent down a pipe.
    struct Channel {
        pid_t pid = 0;
        FILE* in = nullptr;
        FILE* out = nullptr;
    };

    // Runs `serve(in, out)` in a child and returns its first answer.
    Lines start(Channel& channel, const std::function<int(FILE*, FILE*)>& serve) {
        int down[2];
        int up[2];
        if (::pipe(down) != 0 || ::pipe(up) != 0) return {};
        channel.pid = ::fork();
        if (channel.pid == 0) {
            ::alarm(120);
            ::_exit(serve(::fdopen(down[0], "r"), ::fdopen(up[1], "w")));
        }
        ::close(down[0]);
        ::close(up[1]);
        channel.in = ::fdopen(up[0], "r");
        channel.out = ::fdopen(down[1], "w");
        return answer(channel);
    }
    void stop(Channel& channel) {
        if (channel.pid > 0) {
            say(channel, "q");
            zq::test::exitCodeWithin(channel.pid, 10);
            std::fclose(channel.in);
            std::fclose(channel.out);
        }
        channel = Channel();
    }
    static void say(Channel& channel, const std::string& command) {
        std::fprintf(channel.out, "%s\n", command.c_str());
        std::fflush(channel.out);
    }
    // The lines of one answer, the last being "end <state>", "reset <state>"
    // or "error <code>".
    static Lines answer(Channel& channel) {
        Lines lines;
        char line[512];
        while (std::fgets(line, sizeof line, channel.in) != nullptr) {
            std::string text(line);
            text.pop_back();
            lines.push_back(text);
            if (text.rfind("end ", 0) == 0 || text.rfind("reset ", 0) == 0 ||
                text.rfind("error ", 0) == 0) {
                break;
            }
        }
        return lines;
    }
    static void reply(FILE* out, const std::string& last) {
        std::fprintf(out, "%s\n", last.c_str());
        std::fflush(out);
    }
    static std::string command(FILE* in) {
        char line[4096];
        if (std::fgets(line, sizeof line, in) == nullptr) return "q";
        std::string text(line);
        text.pop_back();
        return text;
    }

    // A watcher of `path`: "r" waits up to two seconds for a batch, "n"
    // reads without waiting, "p" polls the descriptor. Returns the answer
    // to its open: "end <state>" or "error <code>".
    std::string startWatcher(const std::string& path, const std::string& since = "",
                             bool asNobody = false) {
        const Lines ready = start(watcher_, [=](FILE* in, FILE* out) {
            return serveWatch(in, out, path, since, asNobody);
        });
        return ready.empty() ? std::string() : ready.back();
    }

    int serveWatch(FILE* in, FILE* out, const std::string& path, const std::string& since,
                   bool asNobody) {
        if (asNobody) {
            const passwd* nobody = ::getpwnam("nobody");
            if (nobody == nullptr || ::setgid(nobody->pw_gid) != 0 ||
                ::setuid(nobody->pw_uid) != 0) {
                return 2;
            }
        }
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = openManager(dir_.file("reg"), dir_.file("reader.ini"), s);
        std::unique_ptr<Watch> watch =
            m ? Watch::open(*m, WString(path.c_str()), s, since) : nullptr;
        if (!watch) {
            reply(out, "error " + std::to_string(s.getCode()));
            return 3;
        }
        reply(out, "end " + watch->state());
        for (std::string c; (c = command(in)) != "q";) {
            bool reset = false;
            if (c == "p") {
                pollfd one = {watch->fd(), POLLIN, 0};
                std::fprintf(out, "%s\n", ::poll(&one, 1, 2000) == 1 ? "readable" : "quiet");
            } else {
                WatchBatch batch;
                StatusChain r = fresh();
                if ((c == "n" || watch->wait(2000, r)) && watch->read(batch, r)) {
                    reset = batch.reset;
                    for (const WatchChange& change : batch.changes) {
                        std::fprintf(out, "%s\n", lineOf(change).c_str());
                    }
                }
                if (r.isFatal()) std::fprintf(out, "error %d\n", r.getCode());
            }
            reply(out, (reset ? "reset " : "end ") + watch->state());
        }
        return 0;
    }

    // A writer that stays open: each command is one transaction, its steps
    // separated by spaces.
    void startWriter() {
        start(writer_, [this](FILE* in, FILE* out) {
            StatusChain s = fresh();
            AutoRef<IBucketManager> m = openManager(dir_.file("reg"), "", s);
            reply(out, m ? "end open" : "error open");
            for (std::string c; (c = command(in)) != "q";) {
                Lines steps;
                for (size_t at = 0; at < c.size();) {
                    const size_t space = std::min(c.find(' ', at), c.size());
                    steps.push_back(c.substr(at, space - at));
                    at = space + 1;
                }
                reply(out, m && commit(*m, steps) ? "end ok" : "error commit");
            }
            return 0;
        });
    }
    bool writeWithWriter(const std::string& steps) {
        say(writer_, steps);
        return answer(writer_).back() == "end ok";
    }

    // The changes of the next batch ("r") or of what is there now ("n").
    std::multiset<std::string> changes(const char* command = "r") {
        say(watcher_, command);
        Lines lines = answer(watcher_);
        EXPECT_FALSE(lines.empty());
        if (!lines.empty()) lines.pop_back();
        return std::multiset<std::string>(lines.begin(), lines.end());
    }

    zq::test::RegistryRoot dir_;
    Channel watcher_;
    Channel writer_;
};

using Set = std::multiset<std::string>;

TEST_F(WatchTest, EachCommitToTheSubtreeOnceAndNothingElse) {
    startWatcher("/w");
    ASSERT_TRUE(write({"/w/b=1"}));
    EXPECT_EQ(changes(), (Set{"created /w/b 1", "changed /w 0"}));  // /w links its new child
    ASSERT_TRUE(write({"/x=1"}));
    ASSERT_TRUE(write({"/w/a=0", "/w/b=1"}));
    EXPECT_EQ(changes("n"), Set{}) << "elsewhere, and the same values again";
    ASSERT_TRUE(write({"/w/a=2", "/x=2"}));
    EXPECT_EQ(changes(), Set{"changed /w/a 2"});
    ASSERT_TRUE(write({"-/w/b"}));
    EXPECT_EQ(changes(), (Set{"deleted /w/b -", "changed /w 0"}));
    EXPECT_EQ(changes("n"), Set{});
}

TEST_F(WatchTest, TheDescriptorWakesForAnotherProcesssCommit) {
    startWatcher("/w/a");
    ASSERT_TRUE(write({"/w/a=5"}));
    say(watcher_, "p");
    EXPECT_EQ(answer(watcher_).front(), "readable");
    EXPECT_EQ(changes("n"), Set{"changed /w/a 5"});
}

// A sleeping watcher learns each bucket once, with its newest values,
// however many commits and compactions passed meanwhile.
TEST_F(WatchTest, ASleepingWatcherGetsEveryBucketOnceWithItsNewestContent) {
    std::vector<Lines> setup;
    for (int b = 0; b < 10; ++b)
        setup.push_back({"/w/b" + std::to_string(b) + "=0"});
    ASSERT_TRUE(writeEach(setup));
    startWatcher("/w");
    std::vector<Lines> many;
    for (int i = 1; i <= 1000; ++i)
        many.push_back({"/w/b" + std::to_string(i % 10) + "=" + std::to_string(i)});
    many.push_back({"/x=1"});
    ASSERT_TRUE(writeEach(many, dir_.file("small.ini")));  // compacts every few commits
    Set expected;
    for (int b = 0; b < 10; ++b) {
        expected.insert("changed /w/b" + std::to_string(b) + " " +
                        std::to_string(990 + (b == 0 ? 10 : b)));
    }
    EXPECT_EQ(changes(), expected);
    ASSERT_TRUE(writeEach({{"/w/b1=991"}, {"/w/b2=992"}}, dir_.file("small.ini")));
    EXPECT_EQ(changes("n"), Set{}) << "compactions and identical stores";
}

// A writer killed at any moment: its last commit is either there after the
// next open or never reported.
TEST_F(WatchTest, ACommitACrashUndidIsNeverReported) {
    startWatcher("/w/a");
    int last = 0;
    for (int round = 0; round < 8; ++round) {
        const pid_t writer = ::fork();
        if (writer == 0) {
            StatusChain s = fresh();
            AutoRef<IBucketManager> m = openManager(dir_.file("reg"), "", s);
            for (int v = 1000 * (round + 1);; ++v)
                commit(*m, {"/w/a=" + std::to_string(v)});
        }
        ::usleep(static_cast<useconds_t>(60000 + 7919 * round % 40000));
        ::kill(writer, SIGKILL);
        zq::test::exitCodeOf(writer);
        // The next writer repairs what the dead one left.
        ASSERT_TRUE(write({"/y=" + std::to_string(round)}));
        const Set seen = changes();
        ASSERT_LE(seen.size(), 1u) << round;
        if (!seen.empty())
            last = std::stoi(seen.begin()->substr(std::string("changed /w/a ").size()));
        EXPECT_EQ(zq::test::inChild([&] {
                      StatusChain s = fresh();
                      AutoRef<IBucketManager> m = openManager(dir_.file("reg"), "", s);
                      AutoRef<IBucket> a = m->getBucket(WString(L"/w/a"), s);
                      return a && a->getValue(WString(L"v"), s)->getInt32(s) == last ? 0 : 1;
                  }),
                  0)
            << "the last value reported, " << last << ", is what the files hold";
    }
}

// A saved state reports what changed after it, also across restarts of
// the watcher, and a reset only when the files were replaced and the
// subtree's content differs.
TEST_F(WatchTest, ASavedStateReportsWhatChangedSinceOrAReset) {
    startWriter();
    ASSERT_TRUE(writeWithWriter("/x=0"));
    const std::string saved = startWatcher("/w").substr(4);
    stop(watcher_);
    ASSERT_TRUE(writeWithWriter("/w/a=7"));
    ASSERT_TRUE(writeWithWriter("/w/a=8 /x=1"));
    startWatcher("/w", saved);
    say(watcher_, "n");
    const Lines caughtUp = answer(watcher_);
    ASSERT_EQ(caughtUp.size(), 2u);
    EXPECT_EQ(caughtUp[0], "changed /w/a 8");
    const std::string after = caughtUp[1].substr(4);
    stop(watcher_);
    stop(writer_);
    ASSERT_TRUE(write({"/x=2"}));  // a new writer compacts as it opens
    ASSERT_EQ(startWatcher("/w", after).substr(0, 4), "end ");
    say(watcher_, "n");
    EXPECT_EQ(answer(watcher_).size(), 1u) << "the same content in another file: no reset";
    stop(watcher_);
    ASSERT_TRUE(write({"/w/a=9"}));
    startWatcher("/w", after);
    say(watcher_, "n");
    EXPECT_EQ(answer(watcher_).back().substr(0, 6), "reset ");
}

TEST_F(WatchTest, AReaderWithoutWritePermissionWatches) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    startWatcher("/w", "", true);
    ASSERT_TRUE(write({"/w/a=3"}));
    EXPECT_EQ(changes(), Set{"changed /w/a 3"});
}

TEST_F(WatchTest, BadPathsAndStatesAreRefused) {
    struct Case {
        const char* path;
        const char* since;
        int32_t code;
    } cases[] = {
        {"w", "", zq::orvane::status::kBadBucketName},
        {"/w/", "", zq::orvane::status::kBadBucketName},
        {"/w", "1:2:3", zq::orvane::status::kKelInvalidArgument},
        {"/w", "not a state", zq::orvane::status::kKelInvalidArgument},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(startWatcher(c.path, c.since), "error " + std::to_string(c.code))
            << c.path << " " << c.since;
        zq::test::exitCodeWithin(watcher_.pid, 10);
        watcher_ = Channel();
    }
}

}  // namespace

namespace {

// A thread of the writing process watches too, through the C++ layer.
TEST(WatchInProcessTest, TheWritingProcessWatchesThroughTheRegistry) {
    zq::test::RegistryRoot dir;
    zq::orvane::Registry registry = zq::orvane::Registry::open(dir.file("reg"));
    registry.transact([](zq::orvane::Transaction& tx) { tx.set("/w", "v", int32_t{1}); });
    std::unique_ptr<Watch> watch = registry.watch("/w");
    ASSERT_TRUE(watch);
    registry.transact([](zq::orvane::Transaction& tx) { tx.set("/w", "v", int32_t{2}); });
    WatchBatch batch;
    StatusChain r = fresh();
    ASSERT_TRUE(watch->wait(1000, r)) << r.getCode();
    ASSERT_TRUE(watch->read(batch, r));
    ASSERT_EQ(batch.changes.size(), 1u);
    EXPECT_EQ(lineOf(batch.changes[0]), "changed /w 2");
    std::error_code ec;
    EXPECT_FALSE(registry.watch("/\xff", ec));
    EXPECT_EQ(ec.value(), zq::orvane::status::kKelInvalidSequence);
}

}  // namespace
