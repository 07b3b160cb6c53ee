// Failure records, their per-thread storage, the recorder, the pdfcore code translation,
// text conversion and the logger lookup, compiled into the test from the module's sources.
#include "HostLogger.h"
#include "Portable.h"
#include "kr/KRRuntime.h"
#include "qf/internal/ErrorsStorage.h"
#include "qf/internal/SOImpl.h"
#include "qf/internal/TextConversion.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

TEST(PDResultTranslation, EveryRow) {
    const std::pair<int32_t, uint32_t> rows[] = {
        {INT32_MIN, 4}, {-2, 4},       {-1, 16},      {0, 0},        {1, 2},        {2, 3},
        {3, 9},         {4, 10},       {5, 23},       {6, 14},       {7, 11},       {8, 13},
        {9, 4},         {10, 4},       {11, 0x30002}, {12, 0x30004}, {13, 0x30005}, {14, 0x30006},
        {15, 0x30007},  {16, 0x30008}, {17, 0x30009}, {18, 0x3000A}, {19, 0x3000B}, {32, 0x3000C},
        {33, 0x3000D},  {34, 0x3000E}, {35, 4},       {INT32_MAX, 4}};
    for (auto [result, code] : rows)
        EXPECT_EQ(TranslatePDResult(result), code) << result;
    for (int32_t r = 20; r <= 31; ++r)
        EXPECT_EQ(TranslatePDResult(r), 4u) << r;
}

TEST(FailureRecord, NestedFailureReportsTheInnermostThroughEveryAccessor) {
    FailureRecord middle(2, u"middle", "Middle::Call", "middle.cpp", 30);
    middle.SetInner(FailureRecord(0x30005, u"inner text", "Inner::Fail", "inner.cpp", 40));
    FailureRecord outer(4, u"outer", "Outer::Call", "outer.cpp", 20);
    outer.SetInner(middle);

    auto check = [](const FailureRecord& r) {
        EXPECT_EQ(r.Code(), 0x30005u);
        EXPECT_EQ(r.Message(), u"inner text");
        EXPECT_EQ(r.Function(), "Inner::Fail");
        EXPECT_EQ(r.File(), "inner.cpp");
        EXPECT_EQ(r.Line(), 40u);
        const SODetails::ErrorInfo v = r.View();
        EXPECT_EQ(v.code, 0x30005u);
        EXPECT_EQ(v.line, 40u);
        EXPECT_EQ(std::u16string(v.message), u"inner text");
        EXPECT_STREQ(v.function, "Inner::Fail");
        EXPECT_STREQ(v.file, "inner.cpp");
    };
    check(outer);
    // Copies own their chain.
    FailureRecord copy(outer);
    outer = FailureRecord(1);
    check(copy);
    check(ServiceObjectException(copy).Record());

    // The tag reads "SOEX" while a record lives and "DDDD" once it is destroyed.
    alignas(FailureRecord) unsigned char storage[sizeof(FailureRecord)];
    auto* placed = new (storage) FailureRecord(copy.View());
    EXPECT_EQ(std::memcmp(storage, "SOEX", 4), 0);
    EXPECT_EQ(placed->Function(), "Inner::Fail");
    placed->~FailureRecord();
    EXPECT_EQ(std::memcmp(storage, "DDDD", 4), 0);
}

TEST(RecordFailure, TextSkippedCasesAndOtherThreads) {
    RecordFailure(2, u"QFProperty", u"SetValue", "Thunk::staticF", "App/include/qf/Property.SO",
                  77);
    const FailureRecord* r = FetchFailure();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Code(), 2u);
    EXPECT_EQ(r->Message(), u"QFProperty::SetValue() failed, code: 0x00000002");
    EXPECT_EQ(r->Function(), "Thunk::staticF");
    EXPECT_EQ(r->File(), "App/include/qf/Property.SO");
    EXPECT_EQ(r->Line(), 77u);
    const FailureRecord* elsewhere = r;
    std::thread([&] { elsewhere = FetchFailure(); }).join();
    EXPECT_EQ(elsewhere, nullptr);

    for (uint32_t code : {0u, 1u, 11u})
        RecordFailure(code, u"I", u"M", "t", "h", 1);
    RecordFailure(5, u"", u"M", "t", "h", 1);
    RecordFailure(5, u"I", nullptr, "t", "h", 1);
    EXPECT_EQ(FetchFailure()->Message(), u"QFProperty::SetValue() failed, code: 0x00000002");
    RecordFailure(0xABCDEF12, u"I", u"M", nullptr, nullptr, 0);
    EXPECT_EQ(FetchFailure()->Message(), u"I::M() failed, code: 0xabcdef12");

    SODetails::ErrorInfo info{};
    const void* record = nullptr;
    ASSERT_EQ(SODetails::ServiceObjectTraits::GetLastErrorInfo(nullptr, &info, &record), 0u);
    EXPECT_EQ(record, FetchFailure());
    EXPECT_EQ(SODetails::ServiceObjectTraits::GetLastErrorInfo(nullptr, nullptr, nullptr), 3u);
}

TEST(ErrorsStorage, AcquisitionUnderAnotherIdFails) {
    // Keys of their own: the process's real storage stays as it is.
    const uint32_t key = 0x51467431; // 'QFt1'
    static int other = 0;
    ASSERT_EQ(CreateSingletonStaticData(key, 42, &other, nullptr), 0u);
    try {
        AcquireErrorsStorage(key);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Fail to get ErrorsStorage instance! Incorrect StaticDataID!");
    }
    ErrorsStorage& made = AcquireErrorsStorage(0x51467432);
    EXPECT_EQ(&AcquireErrorsStorage(0x51467432), &made);
}

TEST(ErrorsStorageDeathTest, AfterTheStoreIsDestroyed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StoreFailure(FailureRecord(2));
            KRDestroySingletonStaticData();
            StoreFailure(FailureRecord(3)); // silently nothing
            if (FetchFailure() != nullptr) std::exit(2);
            try {
                AcquireErrorsStorage(0x51467433);
            } catch (const std::runtime_error& e) {
                std::fputs(e.what(), stderr);
                std::exit(0);
            }
            std::exit(1);
        },
        testing::ExitedWithCode(0), "Fail to get ErrorsStorage instance! Is is already destroyed!");
}

TEST(ErrorsStorage, EightThreadsStoreAndFetchWithoutLossOrCrossTalk) {
    constexpr int kThreads = 8;
    constexpr uint32_t kRounds = 2000;
    std::atomic<int> ready{0};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads)
                std::this_thread::yield();
            const std::string function = "Thread" + std::to_string(t);
            for (uint32_t n = 0; n < kRounds; ++n) {
                const uint32_t code = uint32_t(t) << 16 | n;
                StoreFailure(FailureRecord(code, u"text", function, "file", n));
                const FailureRecord* r = FetchFailure();
                SODetails::ErrorInfo info{};
                const bool ok =
                    r && r->Code() == code && r->Function() == function && r->Line() == n &&
                    SODetails::ServiceObjectTraits::GetLastErrorInfo(nullptr, &info, nullptr) ==
                        0 &&
                    info.code == code && function == info.function;
                if (!ok) mismatches.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(TextConversion, AroundTheInlineBufferAndTheInputLimit) {
    EXPECT_EQ(SOImpl::AcpToUtf16(nullptr), u"");
    for (size_t length : {0u, 30u, 31u, 32u, 100u})
        EXPECT_EQ(SOImpl::AcpToUtf16(std::string(length, 'x').c_str()),
                  std::u16string(length, u'x'))
            << length;
    // The narrow code page is UTF-8 outside Windows; the system's elsewhere.
#if !defined(_WIN32)
    EXPECT_EQ(SOImpl::AcpToUtf16("Gr\xC3\xBC\xC3\x9F"
                                 "e"),
              u"Grüße");
#endif
    const std::string huge(SOImpl::kMaxNarrowInput + 10, 'a');
    EXPECT_EQ(SOImpl::AcpToUtf16(huge.c_str()).size(), SOImpl::kMaxNarrowInput);
    EXPECT_EQ(SOImpl::FormatText("%2% before %1%: [%3%]", std::u16string(u"ü"), u"x", 4294967295u),
              u"x before ü: [4294967295]");
}

TEST(HostLogger, FoundOnlyWhenItsLibraryIsLoadedAlready) {
    EXPECT_EQ(HostLogger::FindGetLogger(), nullptr);
    void* logger = qftest::openLibrary(QF_TEST_LOGGER_PATH);
    ASSERT_NE(logger, nullptr) << qftest::libraryError();
    EXPECT_EQ(reinterpret_cast<void*>(HostLogger::FindGetLogger()), qftest::librarySymbol(logger, "GetLogger"));
    qftest::closeLibrary(logger);
}

} // namespace
