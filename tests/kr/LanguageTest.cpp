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

// The system's language in its spellings until the host chooses one; then the host's.
TEST(Language, TheSystemsUntilTheHostChooses) {
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_MESSAGES", "", 1);
    ::setenv("LANG", "ja_JP.UTF-8", 1);
    EXPECT_EQ(language(), "ja");
    ::setenv("LC_MESSAGES", "de-AT", 1);
    EXPECT_EQ(language(), "de");
    for (const char* none : {"C", "C.UTF-8", "POSIX", "1x"}) {
        ::setenv("LC_ALL", none, 1);
        EXPECT_EQ(language(), "en") << none;
    }

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
