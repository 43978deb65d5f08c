// Writes the seed corpora under the directory given (fuzz/corpus): records,
// cases, strings and a store, all written by the library itself. The import
// documents come from the tool's export (see make-seeds).
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/BucketCase.h"
#include "source/SingleFileBucketStore.h"
#include "source/ValueSamples.h"
#include "zq/orvane/Bucket.h"

using namespace zq;
using kel::AutoRef;
using kel::NString;
using kel::StatusChain;
using kel::WString;

namespace {

std::string root;

void put(const std::string& target, const std::string& name, const std::string& bytes) {
    const std::string dir = root + "/" + target;
    ::mkdir(dir.c_str(), 0777);
    FILE* file = std::fopen((dir + "/" + name).c_str(), "wb");
    if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        std::fclose(file) != 0) {
        std::perror(name.c_str());
        std::exit(1);
    }
}

template <class Record>
std::string bytesOf(const Record& record) {
    const std::vector<unsigned char> out = orvane::test::recordOf(record);
    return std::string(out.begin(), out.end());
}

void check(const StatusChain& status, const char* what) {
    if (status.isFatal()) {
        std::fprintf(stderr, "%s failed: %d\n", what, static_cast<int>(status.getCode()));
        std::exit(1);
    }
}

AutoRef<orvane::Bucket> bucketWithEveryTag(const WString& name) {
    AutoRef<orvane::Bucket> bucket(new orvane::Bucket(name));
    for (const auto& sample : orvane::test::valueSamples()) {
        if (std::string(sample.name) == "unset") continue;  // a bucket refuses an unset value
        AutoRef<orvane::BucketValue> value(new orvane::BucketValue());
        StatusChain status = orvane::test::okStatus();
        sample.set(*value, status);
        bucket->setValue(WString(NString(sample.name)), AutoRef<orvane::IBucketValue>(value),
                         status, false);
        check(status, sample.name);
    }
    StatusChain status = orvane::test::okStatus();
    bucket->addChild(WString(L"child"), status, false);
    check(status, "addChild");
    return bucket;
}

void values() {
    for (const auto& sample : orvane::test::valueSamples()) {
        orvane::BucketValue* value = new orvane::BucketValue();
        AutoRef<orvane::BucketValue> held(value);
        StatusChain status = orvane::test::okStatus();
        sample.set(*value, status);
        put("value_record", sample.name, bytesOf(*value));
    }
}

void buckets() {
    put("bucket_record", "every_tag", bytesOf(*bucketWithEveryTag(WString(L"/net/eth\u00e9"))));
    put("bucket_record", "root",
        bytesOf(*AutoRef<orvane::Bucket>(new orvane::Bucket(WString(L"/")))));
    AutoRef<orvane::Bucket> small(new orvane::Bucket(WString(L"/a/b")));
    StatusChain status = orvane::test::okStatus();
    small->setInt32Value(WString(L"speed"), 100, status, true);
    small->setStringValue(WString(L"name"), WString(L"eth0"), status, true);
    check(status, "small bucket");
    put("bucket_record", "small", bytesOf(*small));
}

void cases() {
    AutoRef<orvane::BucketCase> target(new orvane::BucketCase());
    put("bucket_case", "empty", [&] {
        std::vector<unsigned char> out(target->serializationSize());
        unsigned char* cursor = out.data();
        target->serialize(cursor, out.data() + out.size());
        return std::string(out.begin(), out.end());
    }());
    for (const wchar_t* name : {L"/", L"/a", L"/a/b"}) {
        AutoRef<orvane::IBucket> bucket(std::wstring(name) == L"/a/b"
                                            ? bucketWithEveryTag(WString(name)).get()
                                            : new orvane::Bucket(WString(name)));
        const bool replace = true;
        StatusChain status = orvane::test::okStatus();
        target->insertBucket(bucket, &replace, status);
        check(status, "insertBucket");
    }
    std::vector<unsigned char> out(target->serializationSize());
    unsigned char* cursor = out.data();
    target->serialize(cursor, out.data() + out.size());
    put("bucket_case", "three", std::string(out.begin(), out.end()));
}

void strings() {
    put("string", "empty", bytesOf(WString(L"")));
    put("string", "ascii", bytesOf(WString(L"/net/eth0")));
    put("string", "wide", bytesOf(WString(L"x\u00e9\u20ac\U0001F600")));
    put("string", "narrow", bytesOf(NString("speed=100")));
}

void iniFiles() {
    put("ini", "options.ini",
        "; the options file\n[Orvane]\nMemoryCacheSizeLimitKB=1024\nMemoryCacheUpdatePct = 10\n"
        "DebugSimulateCommitCrash=false\nCallbackDLLName=\nDBMode=0660\n\n[Other]\nkey: \"quoted "
        "\\\"value\\\"\"\n");
    put("ini", "minimal.ini", "[s]\nk=v\n");
}

// A store of two commits, then the same store after a compaction.
void stores() {
    test::SimulatedFileSystem fs;
    const WString directory(L"/r");
    fs.makeDirectory(directory, 0777);
    {
        orvane::SingleFileBucketStore store(directory, nullptr, fs);
        StatusChain status = orvane::test::okStatus();
        store.open(0, status);
        orvane::IBucketStore::UpdatedBuckets first;
        first[WString(L"/")] = AutoRef<orvane::IBucket>(new orvane::Bucket(WString(L"/")));
        first[WString(L"/a")] = AutoRef<orvane::IBucket>(bucketWithEveryTag(WString(L"/a")).get());
        store.commit(first, {}, status);
        orvane::IBucketStore::UpdatedBuckets second;
        second[WString(L"/b")] = AutoRef<orvane::IBucket>(new orvane::Bucket(WString(L"/b")));
        orvane::IBucketStore::DeletedNames deleted{WString(L"/a")};
        store.commit(second, deleted, status);
        check(status, "commits");
        store.close(status);
    }
    put("store_open", "two_commits",
        fs.contents("/r/commitmark.2") + "\n" + fs.contents("/r/registry.bin"));
    {
        orvane::SingleFileBucketStore store(directory, nullptr, fs);
        StatusChain status = orvane::test::okStatus();
        store.open(0, status);
        store.compactNow(status);
        check(status, "compaction");
        const orvane::SingleFileBucketStore::Facts facts = store.facts();
        store.close(status);
        put("store_open", "compacted",
            fs.contents("/r/commitmark." + std::to_string(facts.generation)) + "\n" +
                fs.contents("/r/registry.bin"));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS-DIRECTORY\n", argv[0]);
        return 2;
    }
    root = argv[1];
    ::mkdir(root.c_str(), 0777);
    values();
    buckets();
    cases();
    strings();
    iniFiles();
    stores();
    return 0;
}
