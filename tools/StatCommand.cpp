#include <CLI/CLI.hpp>
#include <cstdio>

#include "Session.h"
#include "StoreFiles.h"
#include "Tool.h"
#include "Tree.h"
#include "zq/orvane/Bucket.h"

namespace orvane_tool {

void addStatCommand(CLI::App& app, const Globals& globals) {
    CLI::App* command =
        app.add_subcommand("stat", "Print the sizes and counts of the registry's files");
    command->footer(
        "Dead bytes are those of records that a newer record or a deletion replaced; a compaction "
        "gives them back.");
    command->callback([&globals] {
        const std::string directory = dataDirectory(globals);
        StoreImage image;
        {
            ProcessLock lock;
            image = readStore(directory);
        }
        std::printf("directory      %s\n", directory.c_str());
        std::printf("file size      %lld\n", static_cast<long long>(image.fileSize));
        std::printf("committed      %lld\n", static_cast<long long>(image.committedLength));
        std::printf("generation     %lld\n", static_cast<long long>(image.generation));
        if (!image.problems.empty()) {
            // Counts past the damage would be guesses: records there may not decode.
            std::string damage = damageSummary(image);
            if (damage.empty()) {
                const Problem& first = image.problems.front();
                damage = first.file + ":" + std::to_string(first.offset) + ": " + first.message;
            }
            std::printf("damage         %s\n", damage.c_str());
            throw ToolError(kExitStore, "the registry in " + directory +
                                            " is damaged; `orvane verify` names the problems");
        }
        int64_t liveBytes = 0;
        size_t values = 0;
        size_t links = 0;
        for (const auto& [digest, record] : image.live) {
            liveBytes += 8 + record.length;
            const unsigned char* cursor = image.bytes.data() + record.offset + 8;
            zq::kel::AutoRef<zq::orvane::Bucket> bucket(new zq::orvane::Bucket());
            try {
                bucket->deserialize(cursor, cursor + record.length);
            } catch (const std::exception&) {
                throw ToolError(kExitStore, "a record does not decode; `orvane verify` names it");
            }
            forEachValue(*bucket, [&](const zq::kel::WString& name,
                                      const zq::kel::AutoRef<zq::orvane::IBucketValue>& value) {
                ++(isChildLink(*bucket, name, *value) ? links : values);
            });
        }
        std::printf("segments       %zu\n", image.segments.size());
        std::printf("buckets        %zu\n", image.live.size());
        std::printf("values         %zu\n", values);
        std::printf("child links    %zu\n", links);
        std::printf("dead bytes     %lld\n", static_cast<long long>(image.recordBytes - liveBytes));
    });
}

}  // namespace orvane_tool
