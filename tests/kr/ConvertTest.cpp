#include "kr/KRRuntime.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

namespace {

// Both steps of the two-call pattern, through the public API.
template <typename To, typename From, typename Conv> To convert(const From& s, Conv conv) {
    size_t n = 0, written = 0;
    EXPECT_EQ(conv(s.data(), s.size(), nullptr, 0, &n), KR_OK);
    To out(n, 0);
    EXPECT_EQ(conv(s.data(), s.size(), out.data(), out.size(), &written), KR_OK);
    EXPECT_EQ(written, n);
    return out;
}
std::u16string to16(const std::string& s) {
    return convert<std::u16string>(s, KRConvertUTF8ToUTF16);
}
std::string to8(const std::u16string& s) {
    return convert<std::string>(s, KRConvertUTF16ToUTF8);
}

TEST(Convert, RoundTripsAllPlanes) {
    const struct {
        std::string utf8;
        std::u16string utf16;
    } cases[] = {
        {"", u""},
        {"plain ASCII", u"plain ASCII"},
        {std::string("nul\0inside", 10), std::u16string(u"nul\0inside", 10)},
        {"Gr\xC3\xB6\xC3\x9Fte \xE2\x82\xAC \xE6\x97\xA5\xE6\x9C\xAC",
         u"Gr\u00F6\u00DFte \u20AC \u65E5\u672C"},
        {"\xEF\xBF\xBF \xEF\xBF\xBD", u"\uFFFF \uFFFD"}, // edges of the BMP
        {"\xF0\x9F\x98\x80 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF", u"\U0001F600 \U00010000 \U0010FFFF"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(to16(c.utf8), c.utf16) << c.utf8;
        EXPECT_EQ(to8(c.utf16), c.utf8) << c.utf8;
    }
    // A non-BMP character is one surrogate pair.
    const std::u16string smile = to16("\xF0\x9F\x98\x80");
    ASSERT_EQ(smile.size(), 2u);
    EXPECT_EQ(smile[0], 0xD83D);
    EXPECT_EQ(smile[1], 0xDE00);
}

TEST(Convert, IllFormedUtf8BecomesOneReplacementPerMaximalPart) {
    const struct {
        std::string in;
        std::u16string out;
    } cases[] = {
        {"\x80", u"\uFFFD"},                               // stray trail byte
        {"a\xC0\xAFz", u"a\uFFFD\uFFFDz"},                 // overlong '/'
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},           // overlong, 3 bytes
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},           // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, // above U+10FFFF
        {"\xF5\xFF", u"\uFFFD\uFFFD"},                     // never valid bytes
        {"\xE2\x82", u"\uFFFD"},                           // cut short at the end
        {"\xF0\x9F\x98z", u"\uFFFDz"},                     // cut short, then ASCII
        {"\xE2\x82\xE2\x82\xAC", u"\uFFFD\u20AC"},         // the breaking byte restarts
    };
    for (const auto& c : cases)
        EXPECT_EQ(to16(c.in), c.out) << testing::PrintToString(c.in);
}

TEST(Convert, UnpairedSurrogatesBecomeReplacement) {
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_EQ(to8(std::u16string(1, char16_t(0xD800))), r); // high alone
    EXPECT_EQ(to8(u"a" + std::u16string(1, char16_t(0xDC00)) + u"b"), "a" + r + "b");
    EXPECT_EQ(to8(std::u16string{char16_t(0xDC00), char16_t(0xD800)}), r + r); // reversed
    // A high surrogate followed by a full pair: only the first is unpaired.
    EXPECT_EQ(to8(std::u16string{char16_t(0xD800), char16_t(0xD800), char16_t(0xDC00)}),
              r + "\xF0\x90\x80\x80");
}

TEST(Convert, TwoCallPatternAndBufferSizes) {
    const std::string src = "a\xF0\x9F\x98\x80"; // 'a' + one pair: 3 units
    size_t n = 99;
    ASSERT_EQ(KRConvertUTF8ToUTF16(src.data(), src.size(), nullptr, 12345, &n), KR_OK);
    ASSERT_EQ(n, 3u);

    char16_t buf[5] = {u'#', u'#', u'#', u'#', u'#'};
    n = 99;
    EXPECT_EQ(KRConvertUTF8ToUTF16(src.data(), src.size(), buf, 2, &n), KR_ERR_BUFFER_SMALL);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::u16string(buf, 5), u"#####"); // nothing written

    EXPECT_EQ(KRConvertUTF8ToUTF16(src.data(), src.size(), buf, 3, &n), KR_OK);
    EXPECT_EQ(std::u16string(buf, 5), u"a\U0001F600##"); // exact fit: no terminator

    EXPECT_EQ(KRConvertUTF8ToUTF16(src.data(), src.size(), buf, 5, &n), KR_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::u16string(buf, 5), std::u16string(u"a\U0001F600\0#", 5));

    char out[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(KRConvertUTF16ToUTF8(u"\u20AC", 1, out, 2, &n), KR_ERR_BUFFER_SMALL);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(KRConvertUTF16ToUTF8(u"\u20AC", 1, out, 4, &n), KR_OK);
    EXPECT_STREQ(out, "\xE2\x82\xAC");

    // Empty input: length 0, and a terminator when there is room for one.
    EXPECT_EQ(KRConvertUTF16ToUTF8(nullptr, 0, out, 4, &n), KR_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(out[0], '\0');
}

TEST(Convert, BadArgumentsAndTheAnsiCodePage) {
    char16_t buf[16];
    size_t n = 77;
    EXPECT_EQ(KRConvertUTF8ToUTF16("x", 1, buf, 4, nullptr), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRConvertUTF8ToUTF16(nullptr, 1, buf, 4, &n), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRConvertUTF8ToUTF16("x", SIZE_MAX, buf, 4, &n), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRConvertUTF16ToUTF8(u"x", size_t(-1), nullptr, 0, &n), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(KRConvertACPToUnicode(nullptr, 3, nullptr, 0, &n), KR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(n, 77u);
#ifndef _WIN32 // the code page is UTF-8 here, replacement included
    const std::string src = "\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80 \xFF";
    ASSERT_EQ(KRConvertACPToUnicode(src.data(), src.size(), buf, 16, &n), KR_OK);
    EXPECT_EQ(std::u16string(buf, n), u"\u00E9t\u00E9 \U0001F600 \uFFFD");
#endif
}

} // namespace
