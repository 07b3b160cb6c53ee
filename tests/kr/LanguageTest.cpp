#include "Portable.h"
#include "kr/KRRuntime.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string language() {
    size_t n = 0;
    EXPECT_EQ(KRGetUILanguage(nullptr, 0, &n), KR_OK);
    std::string tag(n + 1, '?');
    EXPECT_EQ(KRGetUILanguage(tag.data(), tag.size(), &n), KR_OK);
    EXPECT_EQ(tag[n], '\0');
    tag.resize(n);
    return tag;
}

// The system's language until the host chooses one; then the host's.
TEST(Language, TheSystemsUntilTheHostChooses) {
#if defined(_WIN32)
    // The user interface's language (GetUserDefaultUILanguage); the test that runs this
    // program under wine with LANG=ja_JP.UTF-8 says what it expects.
    if (const char* expected = std::getenv("QF_EXPECTED_UI_LANGUAGE")) {
        EXPECT_EQ(language(), expected);
    }
#else
    // The environment in any of its spellings.
    qftest::setEnv("LC_ALL", "");
    qftest::setEnv("LC_MESSAGES", "");
    qftest::setEnv("LANG", "ja_JP.UTF-8");
    EXPECT_EQ(language(), "ja");
    qftest::setEnv("LC_MESSAGES", "de-AT");
    EXPECT_EQ(language(), "de");
    for (const char* none : {"C", "C.UTF-8", "POSIX", "1x"}) {
        qftest::setEnv("LC_ALL", none);
        EXPECT_EQ(language(), "en") << none;
    }
#endif

    EXPECT_EQ(KRSetUILanguage("JA-jp"), KR_OK);
    EXPECT_EQ(language(), "ja");
    for (const char* bad : {"", "j", "toolonglanguage", "j4", "-ja"})
        EXPECT_EQ(KRSetUILanguage(bad), KR_ERR_BAD_ARGUMENT) << bad;
    EXPECT_EQ(KRSetUILanguage(nullptr), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(language(), "ja");

    char two[2];
    size_t n = 0;
    EXPECT_EQ(KRGetUILanguage(two, sizeof two, &n), KR_ERR_BUFFER_SMALL);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(KRGetUILanguage(two, sizeof two, nullptr), KR_ERR_BAD_ARGUMENT);
}

} // namespace
