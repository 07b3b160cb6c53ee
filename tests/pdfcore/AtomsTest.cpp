#include "pdfcore/pdfcore.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

PDAtom put(const char* name) {
    PDAtom atom = 0;
    EXPECT_EQ(PDAtomPutString(name, &atom), PD_OK) << name;
    return atom;
}

std::string get(PDAtom atom) {
    const char* name = nullptr;
    EXPECT_EQ(PDAtomGetString(atom, &name), PD_OK) << atom;
    return name ? name : "<null>";
}

TEST(Atoms, FixedNumbersOfTheHeader) {
#define FIXED(name) std::pair<PDAtom, const char*>(PD_ATOM_##name, #name)
    const std::pair<PDAtom, const char*> fixed[] = {
        FIXED(A),        FIXED(Action),     FIXED(Btn),        FIXED(C),      FIXED(Ch),
        FIXED(Filespec), FIXED(GoTo),       FIXED(GoToE),      FIXED(Hide),   FIXED(JavaScript),
        FIXED(Launch),   FIXED(Link),       FIXED(N),          FIXED(Named),  FIXED(Off),
        FIXED(P),        FIXED(Popup),      FIXED(R),          FIXED(ResetForm), FIXED(S),
        FIXED(Sig),      FIXED(SubmitForm), FIXED(T),          FIXED(Tx),     FIXED(Type),
        FIXED(URI),      FIXED(Widget),
    };
#undef FIXED
    for (const auto& [atom, name] : fixed) {
        EXPECT_EQ(put(name), atom) << name;
        EXPECT_EQ(get(atom), name);
    }
}

// Every predefined name is found again by lookup, and the table is in byte order
// (uppercase before lowercase), which the header promises as "alphabetically ordered".
TEST(Atoms, PredefinedTableIsOrderedAndRoundTrips) {
    const PDAtom count = PDAtomGetPredefinedCount();
    ASSERT_GT(count, PD_ATOM_Widget);
    EXPECT_EQ(get(0), "");
    std::string previous;
    for (PDAtom atom = 1; atom < count; ++atom) {
        const std::string name = get(atom);
        ASSERT_FALSE(name.empty()) << atom;
        EXPECT_LT(std::strcmp(previous.c_str(), name.c_str()), 0) << previous << " / " << name;
        EXPECT_EQ(put(name.c_str()), atom) << name;
        previous = name;
    }
    for (const char* font : {"Helvetica", "Helvetica-Bold", "Times-Roman", "Courier", "Symbol",
                             "ZapfDingbats", "Helv", "ZaDb"})
        EXPECT_LT(put(font), count) << font;
}

TEST(Atoms, OtherNamesAreNumberedFromTheCount) {
    const PDAtom count = PDAtomGetPredefinedCount();
    const PDAtom custom = put("QfCustomName");
    EXPECT_GE(custom, count);
    EXPECT_LT(custom, 0x80000000u); // records keep atoms as signed 32-bit numbers
    EXPECT_EQ(put("QfCustomName"), custom);
    EXPECT_EQ(get(custom), "QfCustomName");
    EXPECT_NE(put("QfCustomName2"), custom);

    // Names are case-sensitive: "type" is not "Type".
    EXPECT_GE(put("type"), count);
    EXPECT_NE(put("type"), PDAtom(PD_ATOM_Type));
    // Non-ASCII names (UTF-8) round-trip too.
    EXPECT_EQ(get(put("Gr\xC3\xB6\xC3\x9F"
                      "e")),
              "Gr\xC3\xB6\xC3\x9F"
              "e");
}

TEST(Atoms, BadArgumentsAndUnknownAtoms) {
    PDAtom atom = 42;
    EXPECT_EQ(PDAtomPutString(nullptr, &atom), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDAtomPutString("", &atom), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDAtomPutString("Type", nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(atom, 42u);

    const char* name = "untouched";
    EXPECT_EQ(PDAtomGetString(PDAtomGetPredefinedCount() + 1000000, &name), PD_ERR_RANGE);
    EXPECT_EQ(PDAtomGetString(0xFFFFFFFFu, &name), PD_ERR_RANGE);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(PDAtomGetString(PD_ATOM_Type, nullptr), PD_ERR_BAD_ARGUMENT);
}

TEST(Atoms, ThreadsAgreeOnNewAtoms) {
    constexpr int kThreads = 8, kNames = 200;
    std::vector<std::string> names;
    for (int i = 0; i < kNames; ++i)
        names.push_back("QfThreaded" + std::to_string(i));
    std::vector<std::vector<PDAtom>> seen(kThreads, std::vector<PDAtom>(kNames));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int k = 0; k < kNames; ++k) {
                const int i = t % 2 ? kNames - 1 - k : k; // half go backwards
                PDAtom atom = 0;
                seen[t][i] = PDAtomPutString(names[i].c_str(), &atom) == PD_OK ? atom : 0;
                const char* back = nullptr; // reads race with other threads' inserts
                if (PDAtomGetString(atom, &back) != PD_OK || names[i] != back) seen[t][i] = 0;
            }
        });
    for (auto& th : threads)
        th.join();

    std::set<PDAtom> distinct;
    for (int i = 0; i < kNames; ++i) {
        for (int t = 1; t < kThreads; ++t)
            ASSERT_EQ(seen[t][i], seen[0][i]) << names[i];
        EXPECT_GE(seen[0][i], PDAtomGetPredefinedCount());
        distinct.insert(seen[0][i]);
    }
    EXPECT_EQ(distinct.size(), size_t(kNames));
}

} // namespace
