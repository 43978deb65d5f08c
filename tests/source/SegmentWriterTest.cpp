// A segment written in pieces of any size must be the bytes of the same
// segment written whole, verify as whole, and be refused when a record is not
// the length it announced.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/SegmentWriter.h"
#include "source/StoreIndex.h"

namespace zq {
namespace test {
namespace {

using kel::WString;
using kel::osdep::FileSystem;
using orvane::DigestKey;
using orvane::RecordWriter;
using orvane::SegmentWriter;

DigestKey keyOf(unsigned char seed) {
    DigestKey key;
    key.fill(seed);
    return key;
}

// Records of these lengths, each byte derived from its position, and two
// deletions, written at `start` of "/f" with pieces of `piece` bytes.
std::string writeSegment(SimulatedFileSystem& fs, int64_t start, size_t piece,
                         const std::vector<uint32_t>& lengths) {
    auto file = fs.open(WString(L"/d/f"), FileSystem::kReadWrite | FileSystem::kCreate, 0644);
    int64_t recordBytes = 0;
    for (const uint32_t length : lengths) {
        recordBytes += length;
    }
    SegmentWriter writer(*file, start, start == 0 ? 0 : start - 60, lengths.size(), recordBytes, 2,
                         piece);
    SegmentWriter::Updates updates;
    for (size_t i = 0; i < lengths.size(); ++i) {
        std::vector<unsigned char> bytes(lengths[i]);
        for (size_t b = 0; b < bytes.size(); ++b) {
            bytes[b] = static_cast<unsigned char>(b * 7 + i);
        }
        const int64_t offset = writer.addRecord(
            lengths[i], [&](RecordWriter& out) { out.bytes(bytes.data(), bytes.size()); });
        updates.emplace_back(keyOf(static_cast<unsigned char>(i)), offset);
    }
    writer.finish(updates, {keyOf(0xd0), keyOf(0xd1)});
    EXPECT_EQ(file->size(), writer.end());
    EXPECT_EQ(orvane::wholeSegmentEnd(*file, start, writer.end()), writer.end());
    return fs.contents("/d/f");
}

TEST(SegmentWriterTest, PiecesOfAnySizeWriteTheSameVerifiedBytes) {
    const struct {
        int64_t start;
        std::vector<uint32_t> lengths;
    } shapes[] = {
        {0, {1}},
        {0, {5, 300, 10000, 64}},
        {4096, {70000, 3}},
    };
    for (const auto& shape : shapes) {
        std::string whole;
        for (const size_t piece :
             {size_t{64}, size_t{100}, size_t{4097}, SegmentWriter::kPieceSize}) {
            SimulatedFileSystem fs;
            fs.makeDirectory(WString(L"/d"), 0777);
            auto file =
                fs.open(WString(L"/d/f"), FileSystem::kReadWrite | FileSystem::kCreate, 0644);
            file->writeAt(0, std::string(static_cast<size_t>(shape.start), 'x').data(),
                          static_cast<size_t>(shape.start));
            const uint64_t writesBefore = fs.calls(SimulatedFileSystem::kWriteCall);
            const std::string bytes = writeSegment(fs, shape.start, piece, shape.lengths);
            const uint64_t writes = fs.calls(SimulatedFileSystem::kWriteCall) - writesBefore;
            const size_t length = bytes.size() - static_cast<size_t>(shape.start);
            // Bounded pieces; a segment that fits one piece is one write.
            EXPECT_GE(writes, (length + piece - 1) / piece) << piece;
            if (length <= piece) {
                EXPECT_EQ(writes, 1u) << piece;
            }
            if (whole.empty()) {
                whole = bytes;
            }
            EXPECT_EQ(bytes, whole) << "pieces of " << piece;
        }
    }
}

TEST(SegmentWriterTest, ARecordOfAnotherLengthThanAnnouncedIsRefused) {
    for (const uint32_t written : {9u, 11u}) {
        SimulatedFileSystem fs;
        fs.makeDirectory(WString(L"/d"), 0777);
        auto file = fs.open(WString(L"/d/f"), FileSystem::kReadWrite | FileSystem::kCreate, 0644);
        SegmentWriter writer(*file, 0, 0, 1, 10, 0, 64);
        const std::vector<unsigned char> bytes(written, 1);
        EXPECT_THROW(
            writer.addRecord(10, [&](RecordWriter& out) { out.bytes(bytes.data(), bytes.size()); }),
            kel::exception::BufferOverflow)
            << written;
    }
}

}  // namespace
}  // namespace test
}  // namespace zq
