#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace {

using platform::kCodePageGbk;
using platform::kCodePageSystem;
using platform::kCodePageUtf8;
using platform::toNarrow;
using platform::toWide;

constexpr wchar_t kReplacement = static_cast<wchar_t>(0xFFFD);

TEST(PlatformUtf8, RoundTripIncludingCharactersOutsideTheBmp) {
    // a, e acute (2 bytes), a CJK character (3 bytes), an emoji (4 bytes), an embedded NUL.
    const std::string utf8("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\0z", 12);
    bool ok = false;
    const std::wstring wide = toWide(utf8, kCodePageUtf8, &ok);
    EXPECT_TRUE(ok);
    ASSERT_EQ(wide.size(), 6u);  // wchar_t holds every code point on Linux
    EXPECT_EQ(wide[1], static_cast<wchar_t>(0xE9));
    EXPECT_EQ(wide[2], static_cast<wchar_t>(0x4E2D));
    EXPECT_EQ(wide[3], static_cast<wchar_t>(0x1F600));
    EXPECT_EQ(wide[4], L'\0');
    ok = false;
    EXPECT_EQ(toNarrow(wide, kCodePageUtf8, &ok), utf8);
    EXPECT_TRUE(ok);
}

TEST(PlatformUtf8, EmptyTextIsValid) {
    bool ok = false;
    EXPECT_EQ(toWide("", kCodePageUtf8, &ok), L"");
    EXPECT_TRUE(ok);
    ok = false;
    EXPECT_EQ(toNarrow(L"", kCodePageUtf8, &ok), "");
    EXPECT_TRUE(ok);
}

TEST(PlatformUtf8, InvalidInputIsReplacedAndReported) {
    struct Case {
        std::string bytes;
        std::wstring expected;
    };
    const std::wstring r(1, kReplacement);
    const Case cases[] = {
        {"a\xFF"
         "b",
         L"a" + r + L"b"},    // never a UTF-8 byte
        {"\x80", r},          // lone continuation byte
        {"\xC0\xAF", r + r},  // overlong '/'
        {"\xE4\xB8"
         "a",
         r + L"a"},                           // truncated 3-byte sequence, one mark
        {"\xE4\xB8", r},                      // truncated at the end
        {"\xED\xA0\x80", r + r + r},          // encoded surrogate
        {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
        {"\xF0\x9F\x98", r},                  // truncated 4-byte sequence
        {"\xE0\x80\xAF", r + r + r},          // overlong 3-byte form
    };
    for (const Case& c : cases) {
        bool ok = true;
        EXPECT_EQ(toWide(c.bytes, kCodePageUtf8, &ok), c.expected)
            << testing::PrintToString(c.bytes);
        EXPECT_FALSE(ok) << testing::PrintToString(c.bytes);
    }
}

TEST(PlatformUtf8, WideValuesThatAreNoCharactersBecomeQuestionMarks) {
    std::wstring wide = L"a";
    wide.push_back(static_cast<wchar_t>(0xD800));  // lone surrogate
    wide.push_back(static_cast<wchar_t>(0x110000));
    wide.push_back(L'b');
    bool ok = true;
    EXPECT_EQ(toNarrow(wide, kCodePageUtf8, &ok), "a??b");
    EXPECT_FALSE(ok);
}

TEST(PlatformUtf8, ArbitraryBytesNeverBreakTheDecoder) {
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(0, 12);
    for (int i = 0; i < 20000; ++i) {
        std::string bytes(static_cast<std::size_t>(length(random)), '\0');
        for (char& c : bytes) {
            c = static_cast<char>(byte(random));
        }
        bool ok = false;
        const std::wstring wide = toWide(bytes, kCodePageUtf8, &ok);
        ASSERT_LE(wide.size(), bytes.size());
        bool back = false;
        const std::string narrow = toNarrow(wide, kCodePageUtf8, &back);
        ASSERT_TRUE(back);  // the decoder only produces scalar values
        if (ok) {
            ASSERT_EQ(narrow, bytes);
        } else {
            ASSERT_NE(wide.find(kReplacement), std::wstring::npos);
        }
    }
}

TEST(PlatformUtf8, PathsAreUtf8) {
    const std::wstring wide = L"/tmp/\x4E2D\x6587/a b";
    const std::string native = platform::nativePath(wide);
    EXPECT_EQ(native, "/tmp/\xE4\xB8\xAD\xE6\x96\x87/a b");
    EXPECT_EQ(platform::widePath(native), wide);
}

TEST(PlatformGbk, RoundTripOfChineseText) {
    const std::wstring chinese = L"\x4E2D\x6587\x6D4B\x8BD5";  // "zhong wen ce shi"
    const std::string gbk = "\xD6\xD0\xCE\xC4\xB2\xE2\xCA\xD4";
    bool ok = false;
    EXPECT_EQ(toNarrow(chinese, kCodePageGbk, &ok), gbk);
    EXPECT_TRUE(ok);
    ok = false;
    EXPECT_EQ(toWide(gbk, kCodePageGbk, &ok), chinese);
    EXPECT_TRUE(ok);
}

TEST(PlatformGbk, AsciiPassesThroughAndMixesWithChinese) {
    bool ok = false;
    EXPECT_EQ(toWide("key = \xD6\xD0", kCodePageGbk, &ok), L"key = \x4E2D");
    EXPECT_TRUE(ok);
}

TEST(PlatformGbk, LongTextGrowsTheOutput) {
    std::wstring chinese;
    std::string gbk;
    for (int i = 0; i < 5000; ++i) {
        chinese +=
            L"\x4E2D"
            L"a";
        gbk +=
            "\xD6\xD0"
            "a";
    }
    bool ok = false;
    EXPECT_EQ(toNarrow(chinese, kCodePageGbk, &ok), gbk);
    EXPECT_TRUE(ok);
    EXPECT_EQ(toWide(gbk, kCodePageGbk, &ok), chinese);
    EXPECT_TRUE(ok);
}

TEST(PlatformGbk, InvalidBytesAreReplacedAndReported) {
    bool ok = true;
    // 0xD6 needs a trail byte of 0x40..0xFE; '0' is none, so it stays a character of its own.
    EXPECT_EQ(toWide("a\xD6"
                     "0b",
                     kCodePageGbk, &ok),
              std::wstring(L"a") + kReplacement + L"0b");
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_EQ(toWide("ab\xD6", kCodePageGbk, &ok), std::wstring(L"ab") + kReplacement);
    EXPECT_FALSE(ok);
}

TEST(PlatformGbk, UnmappableCharactersBecomeQuestionMarks) {
    std::wstring wide = L"a";
    wide.push_back(static_cast<wchar_t>(0x1F600));  // no emoji in GBK
    wide.push_back(static_cast<wchar_t>(0x4E2D));
    bool ok = true;
    EXPECT_EQ(toNarrow(wide, kCodePageGbk, &ok), "a?\xD6\xD0");
    EXPECT_FALSE(ok);
}

TEST(PlatformSystemCodePage, AsciiRoundTripsAndTheRestIsReplaced) {
    bool ok = false;
    EXPECT_EQ(toWide("Debug.dbg = 1", kCodePageSystem, &ok), L"Debug.dbg = 1");
    EXPECT_TRUE(ok);
    ok = false;
    EXPECT_EQ(toNarrow(L"SaveScanFrame", kCodePageSystem, &ok), "SaveScanFrame");
    EXPECT_TRUE(ok);

    ok = true;
    EXPECT_EQ(toWide("x\xE9", kCodePageSystem, &ok), std::wstring(L"x") + kReplacement);
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_EQ(toNarrow(L"x\x00E9\x4E2D", kCodePageSystem, &ok), "x??");
    EXPECT_FALSE(ok);
}

TEST(PlatformUnknownCodePage, ConvertsNothing) {
    bool ok = true;
    EXPECT_EQ(toWide("abc", 1252, &ok), L"");
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_EQ(toNarrow(L"abc", -1, &ok), "");
    EXPECT_FALSE(ok);
    // The flag is optional.
    EXPECT_EQ(toWide("abc", kCodePageUtf8), L"abc");
}

}  // namespace
