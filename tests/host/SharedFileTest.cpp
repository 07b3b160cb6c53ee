// The clipboard's shared file: a read never sees part of a write, and a file that is
// missing or in a missing folder is answered, not thrown.
#include "SharedFile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;
using qfhost::detail::readShared;
using qfhost::detail::writeShared;

TEST(SharedFile, AReadTakesOneWholeWrite) {
    const fs::path file = fs::temp_directory_path() / "qf-shared-file-test.json";
    fs::remove(file);
    EXPECT_FALSE(readShared(file));
    EXPECT_FALSE(writeShared(file.parent_path() / "qf-missing-folder" / "x.json", "{}"));

    // Texts of different lengths, so that a read between a write's bytes and its end, or
    // across two writes, gives a text that is neither.
    const std::string shortText(1 << 10, 'a'), longText(1 << 20, 'b');
    ASSERT_TRUE(writeShared(file, longText));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) EXPECT_TRUE(writeShared(file, i % 2 ? longText : shortText));
        done = true;
    });
    int reads = 0, torn = 0;
    while (!done || reads < 500) {
        const auto text = readShared(file);
        ++reads;
        if (!text || (*text != shortText && *text != longText)) ++torn;
    }
    writer.join();
    EXPECT_EQ(torn, 0) << "of " << reads << " reads";
    EXPECT_EQ(*readShared(file), longText);
    fs::remove(file);
}

}  // namespace
