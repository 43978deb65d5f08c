#include "Stores.h"

#include <ftw.h>
#include <lmdb.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "zq/orvane/Orvane.h"

namespace compare {

namespace {

const char kLabel[] = "controller output channel";
const char kHost[] = "plc-07.local";

void fail(const std::string& what) { throw std::runtime_error(what); }

// ---------------------------------------------------------------- record

enum Tag : unsigned char { kI32 = 1, kU16, kBool, kF64, kText, kI64, kU8, kF32, kI32Array };

class Writer {
  public:
    template <typename T>
    void value(Tag tag, const char* name, const T& v) {
        header(tag, name);
        raw(&v, sizeof v);
    }
    void text(const char* name, const std::string& v) {
        header(kText, name);
        const auto length = static_cast<uint32_t>(v.size());
        raw(&length, sizeof length);
        raw(v.data(), v.size());
    }
    std::vector<unsigned char> bytes;

  private:
    void header(Tag tag, const char* name) {
        bytes.push_back(tag);
        bytes.push_back(static_cast<unsigned char>(std::strlen(name)));
        raw(name, std::strlen(name));
    }
    void raw(const void* p, size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        bytes.insert(bytes.end(), b, b + n);
    }
};

class Reader {
  public:
    Reader(const unsigned char* p, size_t n) : p_(p), end_(p + n) {}
    template <typename T>
    void value(Tag tag, const char* name, T& v) {
        header(tag, name);
        raw(&v, sizeof v);
    }
    void text(const char* name, std::string& v) {
        header(kText, name);
        uint32_t length = 0;
        raw(&length, sizeof length);
        need(length);
        v.assign(reinterpret_cast<const char*>(p_), length);
        p_ += length;
    }
    bool atEnd() const { return p_ == end_; }

  private:
    void need(size_t n) const {
        if (static_cast<size_t>(end_ - p_) < n) fail("short record");
    }
    void header(Tag tag, const char* name) {
        const size_t length = std::strlen(name);
        need(2 + length);
        if (p_[0] != tag || p_[1] != length || std::memcmp(p_ + 2, name, length) != 0) {
            fail("bad record");
        }
        p_ += 2 + length;
    }
    void raw(void* v, size_t n) {
        need(n);
        std::memcpy(v, p_, n);
        p_ += n;
    }
    const unsigned char* p_;
    const unsigned char* end_;
};

}  // namespace

Setting makeSetting(int index, int32_t speed) {
    Setting s;
    s.speed = speed;
    s.port = static_cast<uint16_t>(502 + index % 1000);
    s.enabled = (index & 1) != 0;
    s.gain = index * 0.5;
    s.label = kLabel;
    s.host = kHost;
    s.serial = int64_t{index} << 20;
    s.mode = 3;
    s.limit = 12.5f;
    s.points[0] = 1;
    s.points[1] = 2;
    s.points[2] = 3;
    s.points[3] = index;
    return s;
}

std::string settingName(int index) {
    return "/settings/g" + std::to_string(index / 100) + "/s" + std::to_string(index);
}

// One field list for both directions: `io` is a Writer or a Reader.
template <class Io, class S>
void fields(Io& io, S& s) {
    io.value(kI32, "speed", s.speed);
    io.value(kU16, "port", s.port);
    io.value(kBool, "enabled", s.enabled);
    io.value(kF64, "gain", s.gain);
    io.text("label", s.label);
    io.text("host", s.host);
    io.value(kI64, "serial", s.serial);
    io.value(kU8, "mode", s.mode);
    io.value(kF32, "limit", s.limit);
    io.value(kI32Array, "points", s.points);
}

std::vector<unsigned char> encode(const Setting& s) {
    Writer w;
    w.bytes.reserve(256);
    fields(w, s);
    return std::move(w.bytes);
}

Setting decode(const unsigned char* bytes, size_t size) {
    Setting s;
    Reader r(bytes, size);
    fields(r, s);
    if (!r.atEnd()) fail("long record");
    return s;
}

namespace {

uint64_t diskTotal = 0;

uint64_t allocatedBytes(const std::string& directory) {
    diskTotal = 0;
    nftw(
        directory.c_str(),
        [](const char*, const struct stat* info, int type, FTW*) {
            if (type == FTW_F) diskTotal += static_cast<uint64_t>(info->st_blocks) * 512;
            return 0;
        },
        16, FTW_PHYS);
    return diskTotal;
}

// ---------------------------------------------------------------- Orvane

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;

StatusChain fresh() {
    StatusChain status;
    status.clear();
    return status;
}

void check(const StatusChain& status, const char* what) {
    if (status.isFatal())
        fail(std::string("orvane: ") + what + " " + std::to_string(status.getCode()));
}

std::wstring wide(const std::string& narrow) { return std::wstring(narrow.begin(), narrow.end()); }

// The digits of a non-negative number, as std::to_string writes them
// (std::to_wstring goes through swprintf, many times slower).
void appendDigits(WString& out, int number) {
    wchar_t digits[12];
    size_t count = 0;
    do {
        digits[count++] = static_cast<wchar_t>(L'0' + number % 10);
        number /= 10;
    } while (number != 0);
    std::reverse(digits, digits + count);
    out.append(digits, count);
}

// settingName as an Orvane client spells it: wide from the start, built in
// place as the narrow one is, not a narrow name converted.
WString settingWName(int index) {
    WString name;
    name.reserve(32);
    name += L"/settings/g";
    appendDigits(name, index / 100);
    name += L"/s";
    appendDigits(name, index);
    return name;
}

class OrvaneStore : public Store {
  public:
    const char* name() const override { return "orvane"; }

    // The file may grow to 64 MiB before a commit compacts it: the default
    // (1 MiB) is below the size of the stores measured here, and a store over
    // its limit refuses changes.
    void open(const std::string& directory) override {
        const std::string shared = directory + "/shared";
        ::mkdir(shared.c_str(), 0700);
        ::setenv("ZQKELTMPSHAREDFILEDIR", shared.c_str(), 1);
        ::setenv("ZQPUBAPPDATADIR", directory.c_str(), 1);
        const std::string ini = directory + "/Orvane.ini";
        if (::access(ini.c_str(), F_OK) != 0) limitOrvaneFile(directory, 65536);
        StatusChain status = fresh();
        auto* orvane = zq::orvane::publicInterface::GetInterface(2, status);
        check(status, "GetInterface");
        manager_ = orvane->createBucketManager(WString((directory + "/reg").c_str()),
                                               WString(ini.c_str()), status);
        check(status, "createBucketManager");
        if (!manager_) fail("orvane: no manager");
    }

    void commit(const std::vector<int>& indexes, int32_t speed) override {
        transact("commit", [&](const Guid& id, StatusChain& s) {
            for (int index : indexes) {
                const WString name = settingWName(index);
                AutoRef<IBucket> bucket = manager_->getBucket(name, s);
                if (bucket) {
                    bucket->setInt32Value(WString(L"speed"), speed, s, true);
                } else {
                    bucket = newSetting(name, makeSetting(index, speed), s);
                }
                manager_->putBucket(bucket, true, id, s);
            }
        });
    }

    // Parents first: a bucket is put only under an existing parent.
    void fill(int count) override {
        transact("fill", [&](const Guid& id, StatusChain& s) {
            manager_->putBucket(manager_->createBucket(WString(L"/settings"), false, s), true, id,
                                s);
            for (int group = 0; group * 100 < count; ++group) {
                const std::wstring name = L"/settings/g" + std::to_wstring(group);
                manager_->putBucket(manager_->createBucket(WString(name.c_str()), false, s), true,
                                    id, s);
            }
            for (int index = 0; index < count; ++index) {
                const WString name = settingWName(index);
                manager_->putBucket(newSetting(name, makeSetting(index, 0), s), true, id, s);
            }
        });
    }

    void commitBlob(const std::vector<unsigned char>& blob) override {
        transact("blob commit", [&](const Guid& id, StatusChain& s) {
            AutoRef<IBucket> bucket = manager_->createBucket(WString(L"/blob"), false, s);
            bucket->setBlobValue(WString(L"data"), blob.data(), static_cast<uint32_t>(blob.size()),
                                 s, true);
            manager_->putBucket(bucket, true, id, s);
        });
    }

    void commitMany(int count) override {
        transact("commit of many", [&](const Guid& id, StatusChain& s) {
            manager_->putBucket(manager_->createBucket(WString(L"/many"), false, s), true, id, s);
            for (int index = 0; index < count; ++index) {
                if (index % 1000 == 0) {
                    const std::wstring group = L"/many/g" + std::to_wstring(index / 1000);
                    manager_->putBucket(manager_->createBucket(WString(group.c_str()), false, s),
                                        true, id, s);
                }
                const WString name(wide(smallName(index)).c_str());
                AutoRef<IBucket> bucket = manager_->createBucket(name, false, s);
                bucket->setInt32Value(WString(L"value"), index, s, true);
                manager_->putBucket(bucket, true, id, s);
            }
        });
    }

    int32_t read(int index) override {
        StatusChain s = fresh();
        AutoRef<IBucket> bucket = manager_->getBucket(settingWName(index), s);
        if (!bucket) fail("orvane: missing setting");
        const int32_t speed = bucket->getValue(WString(L"speed"), s)->getInt32(s);
        check(s, "read");
        return speed;
    }

  private:
    // One transaction around `body`; a failure anywhere in it fails the run.
    template <class Body>
    void transact(const char* what, Body body) {
        StatusChain s = fresh();
        Guid id;
        manager_->beginTransaction(id, s);
        manager_->beginUpdate(id, s);
        body(id, s);
        manager_->commit(id, s);
        manager_->endTransaction(id, s);
        check(s, what);
    }

    AutoRef<IBucket> newSetting(const WString& name, const Setting& v, StatusChain& s) {
        AutoRef<IBucket> b = manager_->createBucket(name, false, s);
        b->setInt32Value(WString(L"speed"), v.speed, s, true);
        b->setUInt16Value(WString(L"port"), v.port, s, true);
        b->setBoolValue(WString(L"enabled"), v.enabled, s, true);
        b->setFloat64Value(WString(L"gain"), v.gain, s, true);
        b->setStringValue(WString(L"label"), WString(wide(v.label).c_str()), s, true);
        b->setAnsiStringValue(WString(L"host"), zq::kel::NString(v.host.c_str()), s, true);
        b->setInt64Value(WString(L"serial"), v.serial, s, true);
        b->setUInt8Value(WString(L"mode"), v.mode, s, true);
        b->setFloat32Value(WString(L"limit"), v.limit, s, true);
        b->setInt32ArrayValue(WString(L"points"), v.points, 4, s, true);
        return b;
    }

    AutoRef<IBucketManager> manager_;
};

// ---------------------------------------------------------------- peers

// A peer holds one record per setting, written between begin() and end().
class RecordStore : public Store {
  public:
    void commit(const std::vector<int>& indexes, int32_t speed) override {
        begin();
        for (int index : indexes) {
            const std::vector<unsigned char> record = encode(makeSetting(index, speed));
            put(settingName(index), record.data(), record.size());
        }
        end();
    }

    void commitBlob(const std::vector<unsigned char>& blob) override {
        begin();
        put("/blob", blob.data(), blob.size());
        end();
    }

    void commitMany(int count) override {
        begin();
        for (int index = 0; index < count; ++index) {
            const int32_t value = index;
            put(smallName(index), &value, sizeof value);
        }
        end();
    }

  protected:
    virtual void begin() = 0;
    virtual void put(const std::string& key, const void* bytes, size_t size) = 0;
    virtual void end() = 0;
};

// ---------------------------------------------------------------- SQLite

class SqliteStore : public RecordStore {
  public:
    explicit SqliteStore(bool wal) : wal_(wal) {}
    ~SqliteStore() override {
        sqlite3_finalize(select_);
        sqlite3_finalize(upsert_);
        sqlite3_close(db_);
    }
    const char* name() const override { return wal_ ? "sqlite-wal" : "sqlite-rollback"; }

    void open(const std::string& directory) override {
        if (sqlite3_open_v2((directory + "/settings.db").c_str(), &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
            fail("sqlite: open");
        }
        exec(wal_ ? "PRAGMA journal_mode=WAL" : "PRAGMA journal_mode=DELETE");
        exec("PRAGMA synchronous=FULL");
        exec(
            "CREATE TABLE IF NOT EXISTS settings(name TEXT PRIMARY KEY, record BLOB NOT NULL) "
            "WITHOUT ROWID");
        prepare("SELECT record FROM settings WHERE name = ?1", &select_);
        prepare("INSERT OR REPLACE INTO settings(name, record) VALUES(?1, ?2)", &upsert_);
    }

    int32_t read(int index) override {
        const std::string key = settingName(index);
        sqlite3_bind_text(select_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (sqlite3_step(select_) != SQLITE_ROW) fail("sqlite: missing setting");
        const Setting s = decode(static_cast<const unsigned char*>(sqlite3_column_blob(select_, 0)),
                                 static_cast<size_t>(sqlite3_column_bytes(select_, 0)));
        sqlite3_reset(select_);
        return s.speed;
    }

  protected:
    void begin() override { exec("BEGIN IMMEDIATE"); }
    void put(const std::string& key, const void* bytes, size_t size) override {
        sqlite3_bind_text(upsert_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob64(upsert_, 2, bytes, size, SQLITE_STATIC);
        if (sqlite3_step(upsert_) != SQLITE_DONE) fail("sqlite: write");
        sqlite3_reset(upsert_);
    }
    void end() override { exec("COMMIT"); }

  private:
    void exec(const char* sql) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
            fail(std::string("sqlite: ") + sql + ": " + sqlite3_errmsg(db_));
        }
    }
    void prepare(const char* sql, sqlite3_stmt** statement) {
        if (sqlite3_prepare_v2(db_, sql, -1, statement, nullptr) != SQLITE_OK) {
            fail(std::string("sqlite: ") + sqlite3_errmsg(db_));
        }
    }

    bool wal_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* select_ = nullptr;
    sqlite3_stmt* upsert_ = nullptr;
};

// ---------------------------------------------------------------- LMDB

class LmdbStore : public RecordStore {
  public:
    ~LmdbStore() override {
        if (txn_ != nullptr) mdb_txn_abort(txn_);
        if (env_ != nullptr) mdb_env_close(env_);
    }
    const char* name() const override { return "lmdb"; }

    // Default flags: every commit is synced. The map only reserves address
    // space; the file grows with the data.
    void open(const std::string& directory) override {
        check(mdb_env_create(&env_), "create");
        check(mdb_env_set_mapsize(env_, size_t{1} << 30), "mapsize");
        check(mdb_env_open(env_, directory.c_str(), 0, 0644), "open");
        begin();
        check(mdb_dbi_open(txn_, nullptr, 0, &dbi_), "dbi");
        end();
    }

    int32_t read(int index) override {
        std::string key = settingName(index);
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn), "begin");
        MDB_val k{key.size(), key.data()};
        MDB_val v{};
        const int rc = mdb_get(txn, dbi_, &k, &v);
        if (rc != 0) {
            mdb_txn_abort(txn);
            check(rc, "get");
        }
        const Setting s = decode(static_cast<const unsigned char*>(v.mv_data), v.mv_size);
        mdb_txn_abort(txn);
        return s.speed;
    }

  protected:
    void begin() override { check(mdb_txn_begin(env_, nullptr, 0, &txn_), "begin"); }
    void put(const std::string& key, const void* bytes, size_t size) override {
        MDB_val k{key.size(), const_cast<char*>(key.data())};
        MDB_val v{size, const_cast<void*>(bytes)};
        abortOn(mdb_put(txn_, dbi_, &k, &v, 0), "put");
    }
    void end() override {
        MDB_txn* txn = txn_;
        txn_ = nullptr;
        check(mdb_txn_commit(txn), "commit");
    }

  private:
    static void check(int rc, const char* what) {
        if (rc != 0) fail(std::string("lmdb: ") + what + ": " + mdb_strerror(rc));
    }
    // A failed call leaves the transaction good only for an abort.
    void abortOn(int rc, const char* what) {
        if (rc == 0) return;
        mdb_txn_abort(txn_);
        txn_ = nullptr;
        check(rc, what);
    }
    MDB_env* env_ = nullptr;
    MDB_txn* txn_ = nullptr;
    MDB_dbi dbi_ = 0;
};

}  // namespace

uint64_t Store::diskBytes(const std::string& directory) const { return allocatedBytes(directory); }

void Store::fill(int count) {
    std::vector<int> all(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        all[static_cast<size_t>(i)] = i;
    commit(all, 0);
}

void limitOrvaneFile(const std::string& directory, int kilobytes) {
    std::ofstream(directory + "/Orvane.ini")
        << "[Orvane]\nDiskMaxRegistryFileSizeKB=" << kilobytes << "\n";
}

std::string smallName(int index) {
    return "/many/g" + std::to_string(index / 1000) + "/b" + std::to_string(index);
}

const std::vector<std::string>& storeNames() {
    static const std::vector<std::string> names = {"orvane", "sqlite-wal", "sqlite-rollback",
                                                   "lmdb"};
    return names;
}

std::unique_ptr<Store> makeStore(const std::string& name) {
    if (name == "orvane") return std::make_unique<OrvaneStore>();
    if (name == "sqlite-wal") return std::make_unique<SqliteStore>(true);
    if (name == "sqlite-rollback") return std::make_unique<SqliteStore>(false);
    if (name == "lmdb") return std::make_unique<LmdbStore>();
    fail("unknown store " + name);
    return nullptr;
}

}  // namespace compare
