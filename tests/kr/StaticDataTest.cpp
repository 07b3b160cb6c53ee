#include "kr/KRRuntime.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t tag(const char (&s)[5]) {
    return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 |
           uint32_t(uint8_t(s[2])) << 8 | uint32_t(uint8_t(s[3]));
}

// Tests in this process share the store and never destroy it: each uses its own keys.

TEST(StaticData, CreateGetAndRefusals) {
    static int value = 1, other = 2;
    const uint32_t key = tag("QFCp");
    void* out = &other;
    EXPECT_EQ(GetSingletonStaticData(key, 7, &out), KR_ERR_NOT_FOUND);
    ASSERT_EQ(CreateSingletonStaticData(key, 7, &value, nullptr), KR_OK);
    EXPECT_EQ(GetSingletonStaticData(key, 8, &out), KR_ERR_WRONG_ID);
    EXPECT_EQ(out, &other); // untouched on failure
    // The key is taken whatever id a second creator brings, and the first entry stays.
    EXPECT_EQ(CreateSingletonStaticData(key, 7, &other, nullptr), KR_ERR_EXISTS);
    EXPECT_EQ(CreateSingletonStaticData(key, 8, &other, nullptr), KR_ERR_EXISTS);
    ASSERT_EQ(GetSingletonStaticData(key, 7, &out), KR_OK);
    EXPECT_EQ(out, &value);

    EXPECT_EQ(CreateSingletonStaticData(tag("QFnl"), 7, nullptr, nullptr), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(GetSingletonStaticData(tag("QFnl"), 7, &out), KR_ERR_NOT_FOUND);
    EXPECT_EQ(GetSingletonStaticData(key, 7, nullptr), KR_ERR_BAD_ARGUMENT);
    EXPECT_NE(IsSingletonStaticDataStorageAvailable(), 0);
}

TEST(StaticData, RacingCreatorsHaveOneWinner) {
    constexpr int kThreads = 16;
    static int slots[kThreads];
    for (uint32_t key = 1000; key < 1050; ++key) {
        std::atomic<bool> go{false};
        std::vector<uint32_t> results(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                while (!go)
                    std::this_thread::yield();
                results[t] = CreateSingletonStaticData(key, 1, &slots[t], nullptr);
            });
        go = true;
        for (auto& th : threads)
            th.join();

        int winner = -1, losers = 0;
        for (int t = 0; t < kThreads; ++t) {
            if (results[t] == KR_OK) winner = t;
            losers += results[t] == KR_ERR_EXISTS;
        }
        ASSERT_EQ(losers, kThreads - 1) << "key " << key;
        void* out = nullptr;
        ASSERT_EQ(GetSingletonStaticData(key, 1, &out), KR_OK);
        EXPECT_EQ(out, &slots[winner]);
    }
}

// ---- destruction: each case runs in a child process with a store of its own. The child
// prints what it saw on stderr, which the expected pattern then matches as a whole.

void say(void* data) {
    void* out = nullptr;
    std::fprintf(stderr, "destroy %d (avail=%d get=%u create=%u);", *static_cast<int*>(data),
                 IsSingletonStaticDataStorageAvailable(),
                 unsigned(GetSingletonStaticData(1, 1, &out)),
                 unsigned(CreateSingletonStaticData(9, 1, data, nullptr)));
    KRDestroySingletonStaticData(); // already under way: returns at once
}

class StaticDataDeathTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(StaticDataDeathTest, ExplicitDestroyRunsCallbacksInReverseThenRefuses) {
    auto child = [] {
        std::thread([] { // a deadlock fails the test instead of hanging it
            std::this_thread::sleep_for(std::chrono::seconds(20));
            std::_Exit(3);
        })
            .detach();
        static int one = 1, two = 2, three = 3;
        CreateSingletonStaticData(1, 1, &one, say);
        CreateSingletonStaticData(2, 1, &two, nullptr);
        CreateSingletonStaticData(3, 1, &three, say);
        KRDestroySingletonStaticData();
        void* out = &one;
        std::fprintf(stderr, "after: avail=%d get=%u create=%u out=%d;",
                     IsSingletonStaticDataStorageAvailable(),
                     unsigned(GetSingletonStaticData(1, 1, &out)),
                     unsigned(CreateSingletonStaticData(4, 1, &two, say)), *static_cast<int*>(out));
        KRDestroySingletonStaticData(); // nothing left to call, now or at exit
        std::exit(0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0),
                "^destroy 3 \\(avail=0 get=17 create=17\\);"
                "destroy 1 \\(avail=0 get=17 create=17\\);"
                "after: avail=0 get=17 create=17 out=1;$");
}

// Without an explicit destroy, a static destructor destroys the store at exit.
TEST_F(StaticDataDeathTest, ProcessExitDestroysInReverse) {
    auto child = [] {
        static int a = 1, b = 2;
        CreateSingletonStaticData(1, 1, &a, say);
        CreateSingletonStaticData(2, 1, &b, say);
        std::exit(0);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0),
                "^destroy 2 \\(avail=0 get=17 create=17\\);"
                "destroy 1 \\(avail=0 get=17 create=17\\);$");
}

} // namespace
