#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>

#include "Session.h"
#include "StoreFiles.h"
#include "Text.h"
#include "Tool.h"
#include "Tree.h"
#include "zq/orvane/Bucket.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::WString;
using zq::orvane::Bucket;
using zq::orvane::Digest;
using zq::orvane::DigestKey;
using zq::orvane::IBucketValue;

namespace {

const char kData[] = "registry.bin";

struct LiveBucket {
    AutoRef<Bucket> bucket;
    int64_t offset;
};

// Every live record decoded; the ones that do not decode are problems.
std::map<DigestKey, LiveBucket> decodeLive(StoreImage& image) {
    std::map<DigestKey, LiveBucket> decoded;
    for (const auto& [digest, record] : image.live) {
        const unsigned char* begin = image.bytes.data() + record.offset + 8;
        const unsigned char* end = begin + record.length;
        const unsigned char* cursor = begin;
        AutoRef<Bucket> bucket(new Bucket());
        try {
            bucket->deserialize(cursor, end);
        } catch (const std::exception&) {
            image.problem(kData, record.offset + 8, "the record does not decode as a bucket");
            continue;
        }
        if (cursor != end) {
            image.problem(kData, record.offset,
                          "the record is " + std::to_string(record.length) +
                              " bytes but its bucket " + std::to_string(cursor - begin));
        }
        if (zq::orvane::keyOf(bucket->getDigest()) != digest) {
            image.problem(kData, record.entry,
                          "the index entry's digest is not that of the bucket " +
                              quotedText(toUtf8(bucket->getFullName())));
            continue;
        }
        decoded.emplace(digest, LiveBucket{bucket, record.offset});
    }
    return decoded;
}

void checkLinks(StoreImage& image, const std::map<DigestKey, LiveBucket>& live) {
    for (const auto& [digest, entry] : live) {
        Bucket& bucket = *entry.bucket;
        const std::string name = toUtf8(bucket.getFullName());
        const int64_t offset = entry.offset;  // a structured binding is not captured before C++20
        forEachValue(bucket, [&](const WString& valueName, const AutoRef<IBucketValue>& value) {
            if (!isChildLink(bucket, valueName, *value)) return;
            if (live.count(zq::orvane::keyOf(Digest(valueName))) == 0) {
                image.problem(kData, offset,
                              "bucket " + quotedText(name) + " links the child " +
                                  quotedText(toUtf8(valueName)) + ", which does not exist");
            }
        });
        if (bucket.getFullName() == WString(L"/")) continue;
        const WString parentName = parentPath(bucket.getFullName());
        const auto parent = live.find(zq::orvane::keyOf(Digest(parentName)));
        if (parent == live.end()) {
            image.problem(
                kData, entry.offset,
                "bucket " + quotedText(name) + " has no parent " + quotedText(toUtf8(parentName)));
            continue;
        }
        zq::kel::StatusChain status;
        status.clear();
        AutoRef<IBucketValue> link = parent->second.bucket->getValue(bucket.getFullName(), status);
        if (!link || !isChildLink(*parent->second.bucket, bucket.getFullName(), *link)) {
            image.problem(kData, entry.offset,
                          "bucket " + quotedText(name) + " is not linked from its parent " +
                              quotedText(toUtf8(parentName)));
        }
    }
    if (!image.live.empty() && image.live.count(zq::orvane::keyOf(Digest(WString(L"/")))) == 0) {
        image.problem(kData, image.committedLength, "the root bucket \"/\" is missing");
    }
}

}  // namespace

void addVerifyCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("verify", "Check the registry's files offline; exit 1 on any problem");
    command->footer(
        "Checks the newest commit mark, every segment from the committed end back to offset 0 "
        "(positions, the repeated index position, the mark, the SHA-256 checksum, record "
        "tiling), that every live record decodes as a bucket, that every child link names an "
        "existing bucket and that every bucket but the root is linked from its parent. Prints "
        "FILE:OFFSET: PROBLEM for each problem. Runs under the registry's process lock and "
        "changes nothing.");
    command->callback([&globals] {
        const std::string directory = dataDirectory(globals);
        StoreImage image;
        {
            ProcessLock lock;
            image = readStore(directory);
        }
        checkLinks(image, decodeLive(image));
        for (const std::string& note : image.notes)
            std::printf("note: %s\n", note.c_str());
        for (const Problem& p : image.problems) {
            std::printf("%s:%lld: %s\n", p.file.c_str(), static_cast<long long>(p.offset),
                        p.message.c_str());
        }
        const std::string damage = damageSummary(image);
        if (!damage.empty()) std::printf("damage: %s\n", damage.c_str());
        if (!image.problems.empty()) {
            throw ToolError(kExitProblems, std::to_string(image.problems.size()) + " problem" +
                                               (image.problems.size() == 1 ? "" : "s") +
                                               " found in " + directory);
        }
        std::printf("ok: %zu segment%s, %zu buckets, %lld committed bytes\n", image.segments.size(),
                    image.segments.size() == 1 ? "" : "s", image.live.size(),
                    static_cast<long long>(image.committedLength));
    });
}

}  // namespace orvane_tool
