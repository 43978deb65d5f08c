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
        zq::orvane::StoreCheck check = checkStore(directory);
        std::printf("directory      %s\n", directory.c_str());
        std::printf("file size      %lld\n", static_cast<long long>(check.fileSize()));
        std::printf("committed      %lld\n", static_cast<long long>(check.committedLength()));
        std::printf("generation     %lld\n", static_cast<long long>(check.generation()));
        if (!check.problems().empty()) {
            // Counts past the damage would be guesses: records there may not decode.
            std::string damage = check.damageSummary();
            if (damage.empty()) {
                const auto& first = check.problems().front();
                damage = first.file + ":" + std::to_string(first.offset) + ": " + first.message;
            }
            std::printf("damage         %s\n", damage.c_str());
            throw ToolError(kExitStore, "the registry in " + directory +
                                            " is damaged; `orvane verify` names the problems");
        }
        int64_t liveBytes = 0;
        size_t values = 0;
        size_t links = 0;
        for (const auto& [digest, record] : check.live()) {
            liveBytes += 8 + record.length;
            const std::vector<unsigned char> content = check.recordContent(record);
            const unsigned char* cursor = content.data();
            zq::kel::AutoRef<zq::orvane::Bucket> bucket(new zq::orvane::Bucket());
            try {
                bucket->deserialize(cursor, content.data() + content.size());
            } catch (const std::exception&) {
                throw ToolError(kExitStore, "a record does not decode; `orvane verify` names it");
            }
            forEachValue(*bucket, [&](const zq::kel::WString& name,
                                      const zq::kel::AutoRef<zq::orvane::IBucketValue>& value) {
                ++(isChildLink(*bucket, name, *value) ? links : values);
            });
        }
        std::printf("segments       %zu\n", check.segments().size());
        std::printf("buckets        %zu\n", check.live().size());
        std::printf("values         %zu\n", values);
        std::printf("child links    %zu\n", links);
        std::printf("dead bytes     %lld\n",
                    static_cast<long long>(check.recordBytes() - liveBytes));
    });
}

}  // namespace orvane_tool
