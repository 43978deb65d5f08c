// orvane-compare: the same workloads on Orvane, SQLite (WAL and rollback
// journal, both synchronous=FULL) and LMDB (default durable flags), each in a
// fresh directory under one parent on one file system. Every measurement runs
// in a child process: a process may hold one Orvane manager, and a child
// starts without the caches a previous workload warmed.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "BlockDevice.h"
#include "Stats.h"
#include "Stores.h"
#include "SyncCount.h"

namespace compare {
namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Sizes {
    int settings = 10000;    // the store behind workloads 1 to 5
    int commits = 2000;      // workload 1
    int batchCommits = 300;  // workload 2
    int batch = 100;         // settings per commit in workload 2
    int warmBatches = 400;   // workload 3: batches of warmBatch reads
    int warmBatch = 1000;
    int coldOpens = 40;  // workload 4: opens, each followed by coldReads reads
    int coldReads = 100;
    int opens = 70;  // workload 5
    std::vector<int> rssSizes = {10000, 100000};
    int wearBatches = 100;        // workload 7: commits of `batch` settings after `commits` of one
    int wearLimitKB = 16384;      // workload 7: Orvane's file limit, 4 x the store
    int blobBytes = 100 << 20;    // workload 8
    int manyBuckets = 1000000;    // workload 8
    int memoryLimitKB = 1048576;  // workload 8: Orvane's file limit
    int fsyncs = 2000;
    int rounds = 10;  // workloads 1 to 5 take turns in rounds
};

Sizes quickSizes() {
    Sizes s;
    s.settings = 300;
    s.commits = 5;
    s.batchCommits = 3;
    s.batch = 10;
    s.warmBatches = 5;
    s.warmBatch = 10;
    s.coldOpens = 2;
    s.coldReads = 5;
    s.opens = 2;
    s.rssSizes = {300, 600};
    s.wearBatches = 3;
    s.blobBytes = 1 << 20;
    s.manyBuckets = 1000;
    s.fsyncs = 5;
    s.rounds = 1;
    return s;
}

// What a child sends back.
struct Measured {
    std::vector<double> seconds;  // one sample per operation
    uint64_t syncs = 0;           // over the timed operations
    uint64_t syncWrites = 0;
    double value = 0;     // workload 6: peak RSS in bytes; 7: bytes passed to write calls
    double appended = 0;  // workload 7: bytes Orvane's commits appended to its file
    int compactions = 0;  // workload 7: Orvane's
};

// Runs `work` in a child process and returns what it measured.
Measured inChild(const std::function<Measured()>& work) {
    int channel[2];
    if (::pipe(channel) != 0) throw std::runtime_error("pipe");
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        ::close(channel[0]);
        int code = 0;
        try {
            const Measured m = work();
            std::ostringstream out;
            out.precision(17);
            out << m.syncs << ' ' << m.syncWrites << ' ' << m.value << ' ' << m.appended << ' '
                << m.compactions << ' ' << m.seconds.size();
            for (double s : m.seconds)
                out << ' ' << s;
            const std::string text = out.str();
            size_t done = 0;
            while (done < text.size()) {
                const ssize_t n = ::write(channel[1], text.data() + done, text.size() - done);
                if (n <= 0) break;
                done += static_cast<size_t>(n);
            }
            code = done == text.size() ? 0 : 2;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "orvane-compare: %s\n", e.what());
            code = 1;
        }
        ::close(channel[1]);
        ::_exit(code);
    }
    ::close(channel[1]);
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = ::read(channel[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, n);
    ::close(channel[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("a measuring child failed");
    }
    Measured m;
    std::istringstream in(text);
    size_t count = 0;
    in >> m.syncs >> m.syncWrites >> m.value >> m.appended >> m.compactions >> count;
    m.seconds.resize(count);
    for (double& s : m.seconds)
        in >> s;
    if (!in) throw std::runtime_error("a measuring child sent a short report");
    return m;
}

class TempDir {
  public:
    TempDir(const std::string& parent, const std::string& tag) {
        std::string pattern = parent + "/orvane-compare-" + tag + "-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
        path_ = pattern;
    }
    ~TempDir() {
        nftw(
            path_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); },
            16, FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Distinct random settings, the same sequence for every store.
std::vector<int> randomSettings(int total, int count, unsigned seed) {
    std::vector<int> all(static_cast<size_t>(total));
    for (int i = 0; i < total; ++i)
        all[static_cast<size_t>(i)] = i;
    std::shuffle(all.begin(), all.end(), std::mt19937(seed));
    all.resize(static_cast<size_t>(std::min(count, total)));
    return all;
}

std::unique_ptr<Store> openStore(const std::string& store, const std::string& dir) {
    std::unique_ptr<Store> s = makeStore(store);
    s->open(dir);
    return s;
}

Measured timeCommits(const std::string& store, const std::string& dir, int settings, int commits,
                     int perCommit, unsigned seed) {
    return inChild([&] {
        std::unique_ptr<Store> s = openStore(store, dir);
        std::mt19937 random(7 + seed);
        std::uniform_int_distribution<int> pick(0, settings - 1);
        auto next = [&] {
            if (perCommit == 1) return std::vector<int>{pick(random)};
            return randomSettings(settings, perCommit, random());
        };
        int32_t speed = static_cast<int32_t>(seed) * 100000 + 1;
        for (int i = 0; i < 3; ++i)
            s->commit(next(), speed++);  // warm-up
        Measured m;
        const SyncCount before = syncCount();
        for (int i = 0; i < commits; ++i) {
            const std::vector<int> indexes = next();
            const auto start = Clock::now();
            s->commit(indexes, speed++);
            m.seconds.push_back(since(start));
        }
        m.syncs = syncCount().syncs - before.syncs;
        m.syncWrites = syncCount().syncWrites - before.syncWrites;
        return m;
    });
}

// Timed in batches: one read is too short for the clock alone.
Measured timeWarmReads(const std::string& store, const std::string& dir, int settings,
                       const Sizes& z, int round) {
    return inChild([&] {
        std::unique_ptr<Store> s = openStore(store, dir);
        const int index = (settings / 2 + round * 101) % settings;
        int64_t sum = 0;
        for (int i = 0; i < 100; ++i)
            sum += s->read(index);
        Measured m;
        const SyncCount before = syncCount();
        for (int b = 0; b < z.warmBatches / z.rounds; ++b) {
            const auto start = Clock::now();
            for (int i = 0; i < z.warmBatch; ++i)
                sum += s->read(index);
            m.seconds.push_back(since(start) / z.warmBatch);
        }
        m.syncs = syncCount().syncs - before.syncs;
        m.value = static_cast<double>(sum & 1);  // keeps the reads
        return m;
    });
}

Measured timeColdReads(const std::string& store, const std::string& dir, int settings,
                       const Sizes& z, int round) {
    Measured all;
    const int runs = z.coldOpens / z.rounds;
    for (int run = round * runs; run < (round + 1) * runs; ++run) {
        const Measured m = inChild([&] {
            const std::vector<int> indexes =
                randomSettings(settings, z.coldReads, 100 + static_cast<unsigned>(run));
            std::unique_ptr<Store> s = openStore(store, dir);
            Measured r;
            int64_t sum = 0;
            for (int index : indexes) {
                const auto start = Clock::now();
                sum += s->read(index);
                r.seconds.push_back(since(start));
            }
            r.value = static_cast<double>(sum & 1);
            return r;
        });
        all.seconds.insert(all.seconds.end(), m.seconds.begin(), m.seconds.end());
    }
    return all;
}

Measured timeOpens(const std::string& store, const std::string& dir, int settings, const Sizes& z,
                   int round) {
    Measured all;
    const int runs = z.opens / z.rounds;
    for (int run = round * runs; run < (round + 1) * runs; ++run) {
        const Measured m = inChild([&] {
            const int index = randomSettings(settings, 1, 200 + static_cast<unsigned>(run))[0];
            Measured r;
            const SyncCount before = syncCount();
            const auto start = Clock::now();
            std::unique_ptr<Store> s = openStore(store, dir);
            r.value = s->read(index);
            r.seconds.push_back(since(start));
            r.syncs = syncCount().syncs - before.syncs;
            r.syncWrites = syncCount().syncWrites - before.syncWrites;
            return r;
        });
        all.seconds.push_back(m.seconds[0]);
        all.syncs += m.syncs;
        all.syncWrites += m.syncWrites;
    }
    return all;
}

void fillStore(const std::string& store, const std::string& dir, int settings) {
    inChild([&] {
        openStore(store, dir)->fill(settings);
        return Measured();
    });
    // Untimed: Orvane compacts on its first open; SQLite folds its WAL.
    inChild([&] {
        openStore(store, dir)->read(0);
        return Measured();
    });
}

// Peak resident memory of a fresh process (exec'ed: a forked child would
// start with its parent's resident pages) that opens `store` and does `job`
// (see rssChild). "none" opens no store: the floor that every store's
// figure includes.
double peakRss(const std::string& self, const std::string& job, const std::string& store,
               const std::string& dir, int count) {
    const std::string command =
        self + " --rss-child " + job + " " + store + " " + dir + " " + std::to_string(count);
    FILE* child = ::popen(command.c_str(), "r");
    if (child == nullptr) throw std::runtime_error("popen");
    double bytes = -1;
    if (std::fscanf(child, "%lf", &bytes) != 1) bytes = -1;
    if (::pclose(child) != 0 || bytes <= 0)
        throw std::runtime_error("rss child failed: " + command);
    return bytes;
}

double vmHwmBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) * 1024;
    }
    throw std::runtime_error("no VmHWM");
}

// Every byte differs from its neighbours and every page is touched, as in a
// blob a client would commit.
std::vector<unsigned char> makeBlob(int bytes) {
    std::vector<unsigned char> blob(static_cast<size_t>(bytes));
    for (size_t i = 0; i < blob.size(); ++i)
        blob[i] = static_cast<unsigned char>(i * 131 + (i >> 12));
    return blob;
}

// Jobs: "read" reads settings 0 .. count-1 (0: opens only), "blob" commits
// a blob of `count` bytes, "many" commits `count` new small records.
int rssChild(const std::string& job, const std::string& store, const std::string& dir, int count) {
    int64_t sum = 0;
    if (store != "none") {
        std::unique_ptr<Store> s = openStore(store, dir);
        if (job == "read") {
            for (int i = 0; i < count; ++i)
                sum += s->read(i);
        } else if (job == "blob") {
            s->commitBlob(makeBlob(count));
        } else if (job == "many") {
            s->commitMany(count);
        } else {
            throw std::runtime_error("unknown job " + job);
        }
    }
    std::printf("%.0f %d\n", vmHwmBytes(), static_cast<int>(sum & 1));
    return 0;
}

std::vector<double> fsyncSamples(const std::string& parent, int count, size_t appendBytes) {
    TempDir dir(parent, "fsync");
    const std::string path = dir.path() + "/append";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd < 0) throw std::runtime_error("open " + path);
    const std::vector<char> bytes(appendBytes, 'x');
    std::vector<double> samples;
    for (int i = 0; i < std::max(count, 1) + 5; ++i) {
        if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("write");
        }
        const auto start = Clock::now();
        if (::fdatasync(fd) != 0) throw std::runtime_error("fdatasync");
        if (i >= 5) samples.push_back(since(start));
    }
    ::close(fd);
    return samples;
}

// What one commit of one existing setting appends to Orvane's file: the
// append whose fdatasync is the floor of that commit's time.
size_t orvaneSegmentBytes(const std::string& parent) {
    TempDir dir(parent, "segment");
    fillStore("orvane", dir.path(), 100);
    const Measured m = inChild([&] {
        std::unique_ptr<Store> s = openStore("orvane", dir.path());
        const std::string file = dir.path() + "/reg/registry.bin";
        struct stat before = {};
        struct stat after = {};
        s->commit({7}, 1);
        if (::stat(file.c_str(), &before) != 0) throw std::runtime_error("stat " + file);
        s->commit({7}, 2);
        if (::stat(file.c_str(), &after) != 0) throw std::runtime_error("stat " + file);
        Measured grown;
        grown.value = static_cast<double>(after.st_size - before.st_size);
        return grown;
    });
    if (m.value <= 0) throw std::runtime_error("a commit appended nothing to registry.bin");
    return static_cast<size_t>(m.value);
}

// ---------------------------------------------------------------- wear

// Bytes this process has passed to write calls (wchar): what the store asked
// the kernel to write, before the file system adds its journal and metadata.
double writeCallBytes() {
    std::ifstream io("/proc/self/io");
    for (std::string line; std::getline(io, line);) {
        if (line.rfind("wchar:", 0) == 0) return std::stod(line.substr(6));
    }
    throw std::runtime_error("no wchar in /proc/self/io");
}

// Follows Orvane's file across commits: what they appended, and how often a
// compaction replaced the file. Sees nothing in a peer's directory.
class FileGrowth {
  public:
    explicit FileGrowth(std::string path) : path_(std::move(path)) { look(); }
    void look() {
        struct stat now {};
        if (::stat(path_.c_str(), &now) != 0) return;
        if (now.st_ino == last_.st_ino) {
            appended += static_cast<double>(now.st_size - last_.st_size);
        } else if (last_.st_ino != 0) {
            ++compactions;
        }
        last_ = now;
    }
    double appended = 0;
    int compactions = 0;

  private:
    std::string path_;
    struct stat last_ = {};
};

// Workload 7's commits, made by one process as a controller makes them: it
// opens the store once, commits, and closes it (SQLite folds its WAL then).
Measured wearCommits(const std::string& store, const std::string& dir, const Sizes& z) {
    return inChild([&] {
        const double before = writeCallBytes();
        std::unique_ptr<Store> s = openStore(store, dir);
        FileGrowth growth(dir + "/reg/registry.bin");
        std::mt19937 random(27);
        std::uniform_int_distribution<int> pick(0, z.settings - 1);
        int32_t speed = 1;
        for (int i = 0; i < z.commits; ++i) {
            s->commit({pick(random)}, speed++);
            growth.look();
        }
        for (int i = 0; i < z.wearBatches; ++i) {
            s->commit(randomSettings(z.settings, z.batch, random()), speed++);
            growth.look();
        }
        s.reset();
        Measured m;
        m.value = writeCallBytes() - before;
        m.appended = growth.appended;
        m.compactions = growth.compactions;
        return m;
    });
}

struct Wear {
    double device = 0;      // bytes the device wrote during the run
    double compaction = 0;  // Orvane: bytes of the compaction the run brought nearer
    double share = 0;       // the run's part of them, counted with the run
    double idle = 0;        // bytes the device wrote over as long without the run
    double seconds = 0;
    Measured run;
};

// Bytes the device wrote for a compaction of Orvane's file in `dir` (an open
// of a file of many segments makes one); `live` gets the compacted size.
double measureCompaction(const std::string& dir, const BlockDevice& device, double& live) {
    const uint64_t before = device.settle(dir);
    inChild([&] {
        openStore("orvane", dir)->read(0);
        return Measured();
    });
    const double bytes = static_cast<double>(device.settle(dir) - before);
    struct stat file {};
    if (::stat((dir + "/reg/registry.bin").c_str(), &file) != 0) throw std::runtime_error("stat");
    live = static_cast<double>(file.st_size);
    return bytes;
}

// A run too short to reach Orvane's limit still brings the next compaction
// nearer: by its appends' part of the room the limit leaves above the live
// records. That part of a measured compaction is counted with the run.
void shareCompaction(const std::string& dir, const BlockDevice& device, const Sizes& z, Wear& w) {
    if (w.run.compactions > 0) return;  // the run counted its own
    double live = 0;
    w.compaction = measureCompaction(dir, device, live);
    const double room = z.wearLimitKB * 1024.0 - live;
    if (room <= 0) throw std::runtime_error("the store is over the limit workload 7 sets");
    w.share = w.compaction * std::min(1.0, w.run.appended / room);
}

// The device's counter around workload 7, on a fresh store with Orvane's
// limit at what a user would set for it, then as long again with no store
// at work: the writes of the rest of the machine, which the figure includes.
Wear measureWear(const std::string& store, const std::string& parent, const Sizes& z,
                 const BlockDevice& device) {
    const TempDir dir(parent, store + "-wear");
    if (store == "orvane") limitOrvaneFile(dir.path(), z.wearLimitKB);
    fillStore(store, dir.path(), z.settings);
    Wear w;
    const uint64_t before = device.settle(dir.path());
    const auto start = Clock::now();
    w.run = wearCommits(store, dir.path(), z);
    w.seconds = since(start);
    w.device = static_cast<double>(device.settle(dir.path()) - before);
    const uint64_t idleStart = device.settle(dir.path());
    ::usleep(static_cast<useconds_t>(std::min(w.seconds, 10.0) * 1e6));
    w.idle = static_cast<double>(device.settle(dir.path()) - idleStart);
    if (store == "orvane") shareCompaction(dir.path(), device, z, w);
    return w;
}

// ---------------------------------------------------------------- results

enum class Unit { kSeconds, kMemory, kBytesPerChange, kTimesBlob };

struct Row {
    std::string workload;  // key: w1 .. w8b
    std::string title;
    std::string store;
    Unit unit = Unit::kSeconds;
    double median = 0;  // seconds per operation, or bytes, or a multiple of the blob
    double p10 = 0;
    double p90 = 0;
    size_t samples = 1;
    double syncsPerOp = -1;
    double syncWritesPerOp = 0;
    bool timed() const { return unit == Unit::kSeconds; }
};

// How each unit is named in the CSV, and plotted: a label and a scale, or
// none for time, whose label follows the size of the figures.
struct UnitFacts {
    const char* csvName;
    const char* axis;
    double scale;
};
constexpr UnitFacts kUnitFacts[] = {
    {"seconds", nullptr, 1},
    {"bytes", "MiB", 1.0 / 1048576},
    {"bytes_per_changed_setting", "bytes", 1},
    {"times_the_blob", "x the blob", 1},
};

const UnitFacts& factsOf(Unit unit) { return kUnitFacts[static_cast<int>(unit)]; }

const char* unitName(Unit unit) { return factsOf(unit).csvName; }

std::string timeText(double seconds) {
    char text[32];
    if (seconds >= 1e-3) {
        std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    } else if (seconds >= 1e-6) {
        std::snprintf(text, sizeof text, "%.2f µs", seconds * 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.0f ns", seconds * 1e9);
    }
    return text;
}

std::string number(double v, const char* format) {
    char text[32];
    std::snprintf(text, sizeof text, format, v);
    return text;
}

// One fdatasync after an append of the size of a one-setting commit's segment.
struct SegmentSync {
    size_t bytes = 0;
    double seconds = 0;  // median
};

class Report {
  public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    // Workload by workload, the stores in the order they ran.
    void sort() {
        std::stable_sort(rows_.begin(), rows_.end(),
                         [](const Row& a, const Row& b) { return a.workload < b.workload; });
    }
    const std::vector<Row>& rows() const { return rows_; }

    const Row* lookup(const std::string& workload, const std::string& store) const {
        for (const Row& r : rows_) {
            if (r.workload == workload && r.store == store) return &r;
        }
        return nullptr;
    }
    const Row& find(const std::string& workload, const std::string& store) const {
        const Row* row = lookup(workload, store);
        if (row == nullptr) throw std::runtime_error("no result for " + workload + " " + store);
        return *row;
    }
    double ratio(const Row& r) const { return r.median / find(r.workload, "orvane").median; }

    std::string markdown(double fsync, const SegmentSync& segment,
                         const std::string& machine) const {
        std::ostringstream out;
        out << "| workload | store | median per op | ops/s | syncs per op | ÷ Orvane's |\n"
            << "|---|---|---:|---:|---:|---:|\n";
        for (const Row& r : rows_) {
            out << "| " << r.title << " | " << r.store << " | ";
            if (r.unit == Unit::kMemory) {
                out << number(r.median / 1048576, "%.1f MiB") << " peak RSS | | | ";
            } else if (r.unit == Unit::kBytesPerChange) {
                out << number(r.median, "%.0f bytes") << " | | | ";
            } else if (r.unit == Unit::kTimesBlob) {
                out << number(r.median, "%.2f x the blob") << " | | | ";
            } else {
                out << timeText(r.median) << " | " << number(1 / r.median, "%.0f") << " | ";
                out << (r.syncsPerOp < 0 ? std::string() : syncText(r)) << " | ";
            }
            out << number(ratio(r), "%.2f") << " |\n";
        }
        out << "\nfdatasync after a 256-byte append (median): " << timeText(fsync) << "; after a "
            << segment.bytes << "-byte append, the segment of a one-setting Orvane commit: "
            << timeText(segment.seconds) << ". " << machine << "\n";
        return out.str();
    }

    void csv(std::ostream& out) const {
        out << "workload,title,store,median,unit,ops_per_second,syncs_per_op,"
               "sync_writes_per_op,ratio_to_orvane,p10_seconds,p90_seconds,samples\n";
        for (const Row& r : rows_) {
            out << r.workload << ",\"" << r.title << "\"," << r.store << ','
                << number(r.median, "%.9g") << ',' << unitName(r.unit) << ','
                << (r.timed() ? number(1 / r.median, "%.1f") : std::string()) << ','
                << (r.syncsPerOp < 0 ? std::string() : number(r.syncsPerOp, "%.2f")) << ','
                << number(r.syncWritesPerOp, "%.2f") << ',' << number(ratio(r), "%.3f") << ','
                << (r.timed() ? number(r.p10, "%.9g") : std::string()) << ','
                << (r.timed() ? number(r.p90, "%.9g") : std::string()) << ',' << r.samples << '\n';
        }
    }

  private:
    // Writes through an O_DSYNC descriptor are counted with the syncs and
    // marked, so that nothing that waits for the disk goes unseen.
    static std::string syncText(const Row& r) {
        std::string text = number(r.syncsPerOp + r.syncWritesPerOp, "%.2f");
        if (r.syncWritesPerOp > 0) {
            text += " (" + number(r.syncWritesPerOp, "%.2f") + " O_DSYNC write)";
        }
        return text;
    }
    std::vector<Row> rows_;
};

struct Goal {
    std::string text;
    double ratio;        // Orvane's figure divided by the peer's or the goal's own
    double limit;        // met when ratio <= limit
    bool below = false;  // met only when ratio < limit
    bool measured() const { return !std::isnan(ratio); }
    bool met() const { return below ? ratio < limit : ratio <= limit; }
};

const double kNotMeasured = std::nan("");

std::vector<Goal> goals(const Report& report, const Sizes& z) {
    auto figure = [&](const std::string& workload, const std::string& store) {
        const Row* row = report.lookup(workload, store);
        return row != nullptr ? row->median : kNotMeasured;
    };
    auto over = [&](const std::string& workload, const std::string& peer) {
        return figure(workload, "orvane") / figure(workload, peer);
    };
    const std::string batch = std::to_string(z.batch);
    std::vector<Goal> g;
    g.push_back(
        {"commit of one setting at most 0.9 x SQLite-WAL's time", over("w1", "sqlite-wal"), 0.9});
    g.push_back({"commit of one setting at most 0.8 x LMDB's time", over("w1", "lmdb"), 0.8});
    for (const char* peer : {"sqlite-wal", "sqlite-rollback", "lmdb"}) {
        g.push_back({"commit of " + batch + " settings at most 0.8 x " + peer + "'s time",
                     over("w2", peer), 0.8});
    }
    g.push_back({"warm read at most 1.0 x LMDB's time", over("w3", "lmdb"), 1.0});
    g.push_back({"cold read at most 2 x LMDB's time", over("w4", "lmdb"), 2.0});
    const std::string open = "open of " + std::to_string(z.settings) + " settings + one read";
    g.push_back({open + " at most 1.5 x LMDB's time", over("w5", "lmdb"), 1.5});
    g.push_back(
        {open + " at most 0.7 x SQLite-rollback's time", over("w5", "sqlite-rollback"), 0.7});
    const double bestPeer = std::min(
        {figure("w7", "sqlite-wal"), figure("w7", "sqlite-rollback"), figure("w7", "lmdb")});
    g.push_back({"bytes written per changed setting: the fewest of all four (÷ the best peer's)",
                 figure("w7", "orvane") / bestPeer, 1.0, true});
    g.push_back({"peak memory of a " + number(z.blobBytes / 1048576.0, "%.0f") +
                     " MiB blob commit at most 2.5 x the blob (÷ the blob)",
                 figure("w8a", "orvane"), 2.5});
    g.push_back({std::to_string(z.manyBuckets) +
                     " buckets in one commit: peak memory at most 1 GB (÷ 10^9 bytes)",
                 figure("w8b", "orvane") / 1e9, 1.0});
    return g;
}

std::string goalsMarkdown(const std::vector<Goal>& list) {
    std::ostringstream out;
    out << "| goal | Orvane's figure ÷ the peer's | met |\n|---|---:|---|\n";
    for (const Goal& g : list) {
        out << "| " << g.text << " | ";
        if (!g.measured()) {
            out << " | not measured |\n";
            continue;
        }
        out << number(g.ratio, "%.2f") << " | " << (g.met() ? "yes" : "**no**") << " |\n";
    }
    return out.str();
}

// An older goal, kept for information: the sync is the floor of a commit.
std::string syncFloorText(const Report& report, const SegmentSync& segment) {
    return "\nA durable commit of one setting takes " +
           number(report.find("w1", "orvane").median / segment.seconds, "%.2f") +
           " x one fdatasync after an append of the same size (" + std::to_string(segment.bytes) +
           " bytes); the older goal was at most 1.15 x.\n";
}

// The label of a panel's y axis, and the scale of its figures.
std::string axis(Unit unit, double top, double& scale) {
    const UnitFacts& facts = factsOf(unit);
    scale = facts.scale;
    if (facts.axis != nullptr) {
        return facts.axis;
    }
    if (top >= 1e-3) {
        scale = 1e3;
        return "ms";
    }
    if (top >= 1e-6) {
        scale = 1e6;
        return "µs";
    }
    scale = 1e9;
    return "ns";
}

// One panel per workload, absolute medians, one colour per store.
void plot(const Report& report, const std::string& out, const std::string& parent, double fsync) {
    const TempDir work(parent, "plot");
    const std::string data = work.path() + "/compare.dat";
    const std::string script = work.path() + "/compare.gp";
    std::vector<std::string> order;
    for (const Row& r : report.rows()) {
        if (std::find(order.begin(), order.end(), r.workload) == order.end()) {
            order.push_back(r.workload);
        }
    }
    const size_t lines = (order.size() + 3) / 4;
    std::ofstream d(data);
    std::ofstream g(script);
    g << "set terminal pngcairo size 1600," << 450 * lines << " font 'DejaVu Sans,11'\n"
      << "set output '" << out << "/compare.png'\n"
      << "set multiplot layout " << lines
      << ",4 title 'Orvane, SQLite and LMDB on one machine: medians, lower is better (fdatasync "
      << timeText(fsync) << ")' font ',14'\n"
      << "set style fill solid 0.85 border -1\nset boxwidth 0.7\nset grid ytics\n"
      << "set xtics rotate by -30 nomirror\nset yrange [0:*]\nset offsets 0,0,graph 0.12,0\n"
      << "unset key\n";
    int block = 0;
    for (const std::string& w : order) {
        const Row& first = report.find(w, "orvane");
        double top = 0;
        for (const Row& r : report.rows()) {
            if (r.workload == w) top = std::max(top, r.median);
        }
        double scale = 1;
        const std::string unit = axis(first.unit, top, scale);
        for (const Row& r : report.rows()) {
            if (r.workload == w) d << r.store << ' ' << r.median * scale << '\n';
        }
        d << "\n\n";
        g << "set title '" << first.title << "'\nset ylabel '" << unit << "'\n"
          << "plot '" << data << "' index " << block
          << " using 0:2:($0+1):xtic(1) with boxes lc variable, '' index " << block
          << " using 0:2:(sprintf($2 >= 100 ? '%.0f' : '%.3g', $2)) with labels offset 0,0.8\n";
        ++block;
    }
    g << "unset multiplot\n";
    g.close();
    d.close();
    if (std::system(("gnuplot " + script).c_str()) != 0) {
        std::fprintf(stderr, "orvane-compare: gnuplot failed: no chart\n");
    }
}

std::string fileSystemText(const std::string& path) {
    struct statfs info {};
    if (::statfs(path.c_str(), &info) != 0) return "file system unknown";
    switch (static_cast<unsigned long>(info.f_type)) {
        case 0xEF53:
            return "ext4";
        case 0x01021994:
            return "tmpfs: no disk, syncs cost nothing";
        case 0x58465342:
            return "xfs";
        case 0x9123683E:
            return "btrfs";
        default:
            return "file system type " + number(static_cast<double>(info.f_type), "%.0f");
    }
}

std::string machineText() {
    std::string cpu = "unknown CPU";
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) == 0) {
            cpu = line.substr(line.find(':') + 2);
            break;
        }
    }
    return "CPU: " + cpu + ", " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " cores.";
}

std::string orvaneWearText(const Wear& w, int changes) {
    std::ostringstream text;
    text << " (its commits appended " << number(w.run.appended / changes, "%.0f") << "; "
         << w.run.compactions << " compactions in the run";
    if (w.share > 0) {
        text << ", so the figure adds " << number(w.share / changes, "%.0f")
             << " bytes, the run's part of the next compaction, measured at "
             << number(w.compaction / 1048576, "%.1f") << " MiB)";
    } else {
        text << ")";
    }
    return text.str();
}

// Workload 7's rows, one per store, and what the notes say of them; no row
// where the stores' file system has no device with counters.
std::string wearRows(Report& report, const std::vector<std::string>& stores,
                     const std::string& parent, const Sizes& z) {
    std::string why;
    const std::unique_ptr<BlockDevice> device = BlockDevice::under(parent, why);
    if (device && !blockDeviceWorks(*device, parent)) {
        why = "the counters of " + device->name() + " do not see a synced 1 MiB write";
    }
    if (!device || !why.empty()) {
        std::printf("  7. no bytes written: %s\n", why.c_str());
        return "\n\nWorkload 7 (bytes written) left out: " + why + ".";
    }
    const int changes = z.commits + z.wearBatches * z.batch;
    std::ostringstream notes;
    notes << "\n\nWorkload 7: the counter of " << device->name()
          << " (sectors written, /sys) around " << z.commits << " commits of 1 setting and "
          << z.wearBatches << " of " << z.batch
          << " in one process, from open to close, after syncfs and until the counter stood "
             "still; journal, metadata, compactions and checkpoints included (Orvane's file "
             "limit "
          << z.wearLimitKB / 1024
          << " MiB, 4 x its store; SQLite's and LMDB's defaults), and so are other processes' "
             "writes to the device, which nothing here subtracts. Per changed setting:";
    for (const std::string& store : stores) {
        const Wear w = measureWear(store, parent, z, *device);
        Row r;
        r.workload = "w7";
        r.title = "7. bytes written per changed setting";
        r.store = store;
        r.unit = Unit::kBytesPerChange;
        r.median = (w.device + w.share) / changes;
        std::printf(
            "  %-28s %-16s %8.0f bytes (idle %.0f, write calls %.0f, compactions %d, a "
            "compaction's share %.0f)\n",
            r.title.c_str(), store.c_str(), r.median, w.idle / changes, w.run.value / changes,
            w.run.compactions, w.share / changes);
        std::fflush(stdout);
        report.add(r);
        notes << ' ' << store << " passed " << number(w.run.value / changes, "%.0f")
              << " bytes to write calls";
        if (store == "orvane") notes << orvaneWearText(w, changes);
        notes << ", the device wrote " << number(w.idle / changes, "%.0f")
              << " in as long without a store at work (" << number(w.seconds, "%.1f") << " s);";
    }
    std::string text = notes.str();
    text.back() = '.';
    return text;
}

// A store of its own for each of workload 8's processes, its file limit
// (Orvane's) high enough for the blob and the million buckets.
std::unique_ptr<TempDir> memoryDir(const std::string& store, const std::string& parent,
                                   const Sizes& z) {
    auto dir = std::make_unique<TempDir>(parent, store + "-memory");
    if (store == "orvane") limitOrvaneFile(dir->path(), z.memoryLimitKB);
    return dir;
}

// Workload 8's rows: the peak over a process that opens the store and
// commits nothing, per byte of the blob; the peak of the million buckets.
void memoryRows(Report& report, const std::string& self, const std::vector<std::string>& stores,
                const std::string& parent, const Sizes& z) {
    for (const std::string& store : stores) {
        const double opened = peakRss(self, "read", store, memoryDir(store, parent, z)->path(), 0);
        Row blob;
        blob.workload = "w8a";
        blob.title = "8a. peak RSS over an open, commit of a " +
                     number(z.blobBytes / 1048576.0, "%.0f") + " MiB blob";
        blob.store = store;
        blob.unit = Unit::kTimesBlob;
        const double peak =
            peakRss(self, "blob", store, memoryDir(store, parent, z)->path(), z.blobBytes);
        blob.median = (peak - opened) / z.blobBytes;
        Row many;
        many.workload = "w8b";
        many.title = "8b. peak RSS, commit of " + std::to_string(z.manyBuckets) + " buckets";
        many.store = store;
        many.unit = Unit::kMemory;
        const auto start = Clock::now();
        many.median =
            peakRss(self, "many", store, memoryDir(store, parent, z)->path(), z.manyBuckets);
        std::printf("  %-28s %-16s %.2f x the blob (open only: %.1f MiB)\n", blob.title.c_str(),
                    store.c_str(), blob.median, opened / 1048576);
        std::printf("  %-28s %-16s %.1f MiB (%.1f s)\n", many.title.c_str(), store.c_str(),
                    many.median / 1048576, since(start));
        std::fflush(stdout);
        report.add(blob);
        report.add(many);
    }
}

int run(int argc, char** argv) {
    Sizes z;
    std::string out = ".";
    std::string parent = "/tmp";
    std::vector<std::string> stores = storeNames();
    std::string only;  // digits of the workloads to run; empty: all
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--quick") {
            z = quickSizes();
        } else if (a == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else if (a == "--store" && i + 1 < argc) {
            if (stores.size() == storeNames().size()) stores.clear();
            stores.push_back(argv[++i]);
        } else if (a == "--workload" && i + 1 < argc) {
            only += argv[++i];
        } else if (a == "--dir" && i + 1 < argc) {
            parent = argv[++i];
        } else if (a == "--rss-child" && i + 4 < argc) {
            return rssChild(argv[i + 1], argv[i + 2], argv[i + 3], std::atoi(argv[i + 4]));
        } else {
            std::fprintf(
                stderr,
                "usage: orvane-compare [--quick] [--out DIR] [--dir PARENT] [--store NAME]...\n"
                "                      [--workload DIGITS]\n"
                "  --quick  tiny sizes: checks that everything runs, times mean nothing\n"
                "  --out    where compare.csv, compare.md and compare.png go (.)\n"
                "  --dir    where the stores' temporary directories go (/tmp)\n"
                "  --store  only these (orvane, sqlite-wal, sqlite-rollback, lmdb); the\n"
                "           table and the goals need all four\n"
                "  --workload  only these workloads, e.g. 25 (for profiling; no table)\n");
            return 2;
        }
    }
    auto wanted = [&](const char* digit) {
        return only.empty() || only.find(digit) != std::string::npos;
    };
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) throw std::runtime_error("readlink /proc/self/exe");
    self[length] = '\0';

    if (!statsWork()) throw std::runtime_error("median() or percentile() is wrong");
    if (!syncCountWorks(parent.c_str())) {
        throw std::runtime_error("the sync wrappers do not see this program's calls");
    }

    const std::string n = std::to_string(z.settings);
    const std::string w1 = "1. commit 1 setting";
    const std::string w2 = "2. commit " + std::to_string(z.batch) + " settings";
    const std::string w3 = "3. warm read";
    const std::string w4 = "4. cold read (1 of " + n + ")";
    const std::string w5 = "5. open " + n + " + read 1";

    // Every store's directory lives for the whole run, so that the workloads
    // can take turns: the disk and the CPU are shared with other work, and
    // rounds spread any drift over all stores alike.
    std::map<std::string, std::unique_ptr<TempDir>> dirs;
    std::map<std::string, uint64_t> diskBytes;
    for (const std::string& store : stores) {
        dirs[store] = std::make_unique<TempDir>(parent, store);
        std::printf("%s: filling %d settings\n", store.c_str(), z.settings);
        std::fflush(stdout);
        fillStore(store, dirs[store]->path(), z.settings);
        diskBytes[store] = makeStore(store)->diskBytes(dirs[store]->path());
    }
    std::map<std::pair<std::string, std::string>, Measured> measured;
    auto keep = [&](const std::string& workload, const std::string& store, const Measured& m) {
        Measured& all = measured[{workload, store}];
        all.seconds.insert(all.seconds.end(), m.seconds.begin(), m.seconds.end());
        all.syncs += m.syncs;
        all.syncWrites += m.syncWrites;
    };
    std::vector<double> fsyncs;
    SegmentSync segment;
    segment.bytes = orvaneSegmentBytes(parent);
    std::vector<double> segmentSyncs;
    for (int round = 0; round < z.rounds; ++round) {
        std::printf("round %d of %d\n", round + 1, z.rounds);
        std::fflush(stdout);
        for (size_t k = 0; k < stores.size(); ++k) {
            // The disk's own time, taken beside each store's turn.
            const int count = z.fsyncs / z.rounds / static_cast<int>(stores.size());
            const std::vector<double> f = fsyncSamples(parent, count, 256);
            fsyncs.insert(fsyncs.end(), f.begin(), f.end());
            const std::vector<double> g = fsyncSamples(parent, count, segment.bytes);
            segmentSyncs.insert(segmentSyncs.end(), g.begin(), g.end());
            // Each round starts with another store.
            const std::string& store = stores[(k + static_cast<size_t>(round)) % stores.size()];
            const std::string& dir = dirs[store]->path();
            const unsigned seed = static_cast<unsigned>(round);
            if (wanted("1")) {
                keep("w1", store,
                     timeCommits(store, dir, z.settings, z.commits / z.rounds, 1, seed));
            }
            if (wanted("2")) {
                keep("w2", store,
                     timeCommits(store, dir, z.settings, z.batchCommits / z.rounds, z.batch, seed));
            }
            // Untimed: the commits left Orvane a file to compact and SQLite a
            // WAL to fold; the reads and the opens find a settled store.
            inChild([&] {
                openStore(store, dir)->read(0);
                return Measured();
            });
            if (wanted("3")) keep("w3", store, timeWarmReads(store, dir, z.settings, z, round));
            if (wanted("4")) keep("w4", store, timeColdReads(store, dir, z.settings, z, round));
            if (wanted("5")) keep("w5", store, timeOpens(store, dir, z.settings, z, round));
        }
    }
    dirs.clear();
    const double fsync = median(fsyncs);
    std::printf("fdatasync after a 256-byte append: median %s\n", timeText(fsync).c_str());
    segment.seconds = median(segmentSyncs);
    std::printf("fdatasync after a %zu-byte append (a one-setting commit's segment): median %s\n",
                segment.bytes, timeText(segment.seconds).c_str());

    Report report;
    const std::vector<std::pair<std::string, std::string>> titles = {
        {"w1", w1}, {"w2", w2}, {"w3", w3}, {"w4", w4}, {"w5", w5}};
    for (const auto& [key, title] : titles) {
        for (const std::string& store : stores) {
            const auto found = measured.find({key, store});
            if (found == measured.end()) continue;
            const Measured& m = found->second;
            Row r;
            r.workload = key;
            r.title = title;
            r.store = store;
            r.median = median(m.seconds);
            r.p10 = percentile(m.seconds, 10);
            r.p90 = percentile(m.seconds, 90);
            r.samples = m.seconds.size();
            const double ops = static_cast<double>(m.seconds.size());
            // Workload 4 reads right after an open: its syncs are the open's.
            r.syncsPerOp = key == "w4" ? -1 : static_cast<double>(m.syncs) / ops;
            r.syncWritesPerOp = key == "w4" ? 0 : static_cast<double>(m.syncWrites) / ops;
            std::printf(
                "  %-28s %-16s %12s  %s syncs/op\n", title.c_str(), store.c_str(),
                timeText(r.median).c_str(),
                r.syncsPerOp < 0 ? "-" : number(r.syncsPerOp + r.syncWritesPerOp, "%.2f").c_str());
            report.add(r);
        }
    }
    std::fflush(stdout);
    const double floor = peakRss(self, "read", "none", parent, 0);
    for (size_t k = 0; k < z.rssSizes.size() && wanted("6"); ++k) {
        const int size = z.rssSizes[k];
        for (const std::string& store : stores) {
            TempDir dir(parent, store);
            fillStore(store, dir.path(), size);
            Row r;
            r.workload = "w6" + std::string(1, static_cast<char>('a' + k));
            r.title = "6. peak RSS, " + std::to_string(size) + " read";
            r.store = store;
            r.unit = Unit::kMemory;
            r.median = peakRss(self, "read", store, dir.path(), size);
            std::printf("  %-28s %s: %.1f MiB\n", r.title.c_str(), store.c_str(),
                        r.median / 1048576);
            std::fflush(stdout);
            report.add(r);
        }
    }

    const std::string wearNotes = wanted("7") ? wearRows(report, stores, parent, z) : "";
    if (wanted("8")) memoryRows(report, self, stores, parent, z);

    const auto orvaneCommit = measured.find({"w1", "orvane"});
    if (orvaneCommit != measured.end()) {
        std::printf("durable commit of one setting / fdatasync after a %zu-byte append: %.2f\n",
                    segment.bytes, median(orvaneCommit->second.seconds) / segment.seconds);
    }
    // A partial run: the figures above, no table.
    if (stores != storeNames() || !only.empty()) return 0;
    report.sort();
    // A durable commit that made no sync was not durable, or was not seen.
    for (const Row& r : report.rows()) {
        if ((r.workload == "w1" || r.workload == "w2") && r.syncsPerOp + r.syncWritesPerOp < 1) {
            throw std::runtime_error(r.store + " made no sync in a durable commit: counting fails");
        }
    }

    std::ostringstream notes;
    notes << "Stores in " << parent << " (" << fileSystemText(parent) << "). Peak RSS includes "
          << number(floor / 1048576, "%.1f")
          << " MiB of a process that opens no store. Disk use of the " << n << "-setting store:";
    const char* separator = " ";
    for (const std::string& store : stores) {
        notes << separator << store << ' ' << number(diskBytes[store] / 1048576.0, "%.1f")
              << " MiB";
        separator = ", ";
    }
    notes << '.' << wearNotes;
    const std::vector<Goal> goalList = goals(report, z);
    const std::string table = report.markdown(fsync, segment, machineText()) + notes.str() + "\n";
    const std::string goalTable = goalsMarkdown(goalList) + syncFloorText(report, segment);
    std::printf("\n%s\n%s", table.c_str(), goalTable.c_str());

    ::mkdir(out.c_str(), 0777);
    std::ofstream(out + "/compare.md") << table << '\n' << goalTable;
    std::ofstream csv(out + "/compare.csv");
    report.csv(csv);
    csv.close();
    plot(report, out, parent, fsync);
    return 0;
}

}  // namespace
}  // namespace compare

int main(int argc, char** argv) {
    try {
        return compare::run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvane-compare: %s\n", e.what());
        return 1;
    }
}
