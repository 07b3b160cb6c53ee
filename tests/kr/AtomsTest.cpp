#include "kr/KRRuntime.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

uint32_t atom(const char* name) {
    uint32_t id = 0;
    EXPECT_EQ(KRGetAtomFromString(name, &id), KR_OK) << name;
    return id;
}

uint32_t atomW(const char16_t* name) {
    uint32_t id = 0;
    EXPECT_EQ(KRGetAtomFromStringW(name, &id), KR_OK);
    return id;
}

const char* nameOf(uint32_t id) {
    const char* s = "<none>";
    EXPECT_EQ(KRGetStringFromAtom(id, &s), KR_OK) << id;
    return s;
}

// Threads intern the same names at once, in different orders and through both calls;
// all must see one id per name, and distinct names distinct ids.
TEST(Atoms, ThreadsRacingAgreeOnIds) {
    constexpr int kThreads = 8, kNames = 300;
    std::vector<std::vector<uint32_t>> seen(kThreads, std::vector<uint32_t>(kNames));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&seen, t] {
            for (int k = 0; k < kNames; ++k) {
                const int i = (t % 2 ? kNames - 1 - k : k + t * 37) % kNames;
                const std::string name = "kr.race." + std::to_string(i);
                const std::u16string wide(name.begin(), name.end()); // ASCII
                uint32_t id = 0;
                const uint32_t r = t % 3 ? KRGetAtomFromString(name.c_str(), &id)
                                         : KRGetAtomFromStringW(wide.c_str(), &id);
                seen[t][i] = r == KR_OK ? id : 0;
            }
        });
    for (auto& th : threads)
        th.join();

    std::set<uint32_t> distinct;
    for (int i = 0; i < kNames; ++i) {
        for (int t = 1; t < kThreads; ++t)
            ASSERT_EQ(seen[t][i], seen[0][i]) << i;
        EXPECT_NE(seen[0][i], 0u);
        EXPECT_NE(seen[0][i], KR_ATOM_NONE);
        EXPECT_EQ(nameOf(seen[0][i]), "kr.race." + std::to_string(i));
        distinct.insert(seen[0][i]);
    }
    EXPECT_EQ(distinct.size(), size_t(kNames));
}

TEST(Atoms, NarrowAndWideNameTheSameAtom) {
    EXPECT_EQ(atom("AcroForm"), atomW(u"AcroForm"));
    // Case matters, and nothing is normalised.
    EXPECT_NE(atom("Case"), atom("case"));
    EXPECT_NE(atomW(u"\u00E9"), atomW(u"e\u0301"));

    // Narrow names are in the narrow code page: what follows is UTF-8 (as it always is
    // outside Windows).
    char16_t o[2] = {};
    size_t n = 0;
    if (KRConvertACPToUnicode("\xC3\xB6", 2, o, 2, &n) != KR_OK || n != 1 || o[0] != u'\u00F6')
        GTEST_SKIP() << "the ANSI code page is not UTF-8";
    EXPECT_EQ(atom("Gr\xC3\xB6\xC3\x9Fte"), atomW(u"Gr\u00F6\u00DFte"));
    EXPECT_EQ(atom("clef-\xF0\x9D\x84\x9E"), atomW(u"clef-\U0001D11E")); // non-BMP
    EXPECT_STREQ(nameOf(atomW(u"clef-\U0001D11E")), "clef-\xF0\x9D\x84\x9E");

    // Ill-formed input of either width reads as U+FFFD.
    const uint32_t replaced = atomW(u"bad\uFFFD");
    EXPECT_EQ(atom("bad\xFF"), replaced);
    EXPECT_EQ(atom("bad\xEF\xBF\xBD"), replaced); // well-formed U+FFFD
    const char16_t lone[] = {u'b', u'a', u'd', 0xD800, 0};
    EXPECT_EQ(atomW(lone), replaced);
    EXPECT_STREQ(nameOf(replaced), "bad\xEF\xBF\xBD");
}

TEST(Atoms, NamesStayPutAndBadInputIsRefused) {
    const char* first = nameOf(atom("kr.stable"));
    for (int i = 0; i < 1000; ++i)
        atom(("kr.filler." + std::to_string(i)).c_str());
    EXPECT_EQ(nameOf(atom("kr.stable")), first); // the same storage after the table grew

    uint32_t id = 42;
    EXPECT_EQ(KRGetAtomFromString(nullptr, &id), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRGetAtomFromString("", &id), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRGetAtomFromString("x", nullptr), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRGetAtomFromStringW(nullptr, &id), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRGetAtomFromStringW(u"", &id), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(id, 42u);

    const char* name = "untouched";
    for (uint32_t unknown : {0u, KR_ATOM_NONE, atom("kr.last") + 1000000})
        EXPECT_EQ(KRGetStringFromAtom(unknown, &name), KR_ERR_NOT_FOUND) << unknown;
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(KRGetStringFromAtom(atom("kr.last"), nullptr), KR_ERR_BAD_ARGUMENT);
}

} // namespace
