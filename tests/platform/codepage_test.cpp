// Code pages both ways (UTF-8 by our own codec, GBK, 7-bit ASCII), with what is replaced and
// reported, and the wide/narrow forms of paths.
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

const std::wstring kMark(1, static_cast<wchar_t>(0xFFFD));

std::wstring chars(std::initializer_list<uint32_t> codes) {
    std::wstring s;
    for (uint32_t c : codes) {
        s.push_back(static_cast<wchar_t>(c));
    }
    return s;
}

TEST(PlatformCodePages, ValidTextRoundTripsAndReportsSuccess) {
    std::string longGbk;
    std::wstring longWide;
    for (int i = 0; i < 5000; ++i) {  // longer than any first guess of the output size
        longGbk += std::string("\xD6\xD0") + 'a';
        longWide += std::wstring(L"\x4E2D") + L'a';
    }
    const struct {
        std::string narrow;
        std::wstring wide;
        int codePage;
    } cases[] = {
        // a, e acute (2 bytes), a CJK character (3 bytes), an emoji (4 bytes), an embedded NUL.
        {std::string("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\0z", 12),
         chars({'a', 0xE9, 0x4E2D, 0x1F600, 0, 'z'}), kCodePageUtf8},
        {"", L"", kCodePageUtf8},
        {"\xD6\xD0\xCE\xC4\xB2\xE2\xCA\xD4", L"\x4E2D\x6587\x6D4B\x8BD5", kCodePageGbk},
        {longGbk, longWide, kCodePageGbk},
        {"Debug.dbg = 1", L"Debug.dbg = 1", kCodePageSystem},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.narrow.substr(0, 12)));
        bool ok = false;
        EXPECT_EQ(toWide(c.narrow, c.codePage, &ok), c.wide);
        EXPECT_TRUE(ok);
        ok = false;
        EXPECT_EQ(toNarrow(c.wide, c.codePage, &ok), c.narrow);
        EXPECT_TRUE(ok);
    }
    EXPECT_EQ(toWide("abc", kCodePageUtf8), L"abc");  // the flag is optional
    EXPECT_EQ(platform::nativePath(L"/tmp/\x4E2D\x6587/a b"), "/tmp/\xE4\xB8\xAD\xE6\x96\x87/a b");
    EXPECT_EQ(platform::widePath("/tmp/\xE4\xB8\xAD\xE6\x96\x87/a b"), L"/tmp/\x4E2D\x6587/a b");
}

TEST(PlatformCodePages, InvalidBytesAreReplacedAndReported) {
    const std::wstring m = kMark;
    const struct {
        std::string bytes;
        int codePage;
        std::wstring expected;
    } cases[] = {
        {"a\xFFz", kCodePageUtf8, L"a" + m + L"z"},          // never a UTF-8 byte
        {"\x80", kCodePageUtf8, m},                          // lone continuation byte
        {"\xC0\xAF", kCodePageUtf8, m + m},                  // overlong '/'
        {"\xE4\xB8z", kCodePageUtf8, m + L"z"},              // truncated 3-byte sequence
        {"\xE4\xB8", kCodePageUtf8, m},                      // truncated at the end
        {"\xED\xA0\x80", kCodePageUtf8, m + m + m},          // encoded surrogate
        {"\xF4\x90\x80\x80", kCodePageUtf8, m + m + m + m},  // above U+10FFFF
        {"\xF0\x9F\x98", kCodePageUtf8, m},                  // truncated 4-byte sequence
        {"\xE0\x80\xAF", kCodePageUtf8, m + m + m},          // overlong 3-byte form
        // 0xD6 needs a trail byte of 0x40..0xFE; ' ' is none, so it stays a character.
        {"a\xD6 b", kCodePageGbk, L"a" + m + L" b"},
        {"ab\xD6", kCodePageGbk, L"ab" + m},
        {"x\xE9", kCodePageSystem, L"x" + m},
        {"abc", 1252, L""},  // an unknown code page converts nothing
    };
    for (const auto& c : cases) {
        bool ok = true;
        EXPECT_EQ(toWide(c.bytes, c.codePage, &ok), c.expected) << testing::PrintToString(c.bytes);
        EXPECT_FALSE(ok) << testing::PrintToString(c.bytes);
    }
}

TEST(PlatformCodePages, UnencodableCharactersBecomeQuestionMarks) {
    const struct {
        std::wstring wide;
        int codePage;
        std::string expected;
    } cases[] = {
        {chars({'a', 0xD800, 0x110000, 'b'}), kCodePageUtf8, "a??b"},  // no characters at all
        {chars({'a', 0x1F600, 0x4E2D}), kCodePageGbk, "a?\xD6\xD0"},   // no emoji in GBK
        {chars({'x', 0xE9, 0x4E2D}), kCodePageSystem, "x??"},
        {L"abc", -1, ""},
    };
    for (const auto& c : cases) {
        bool ok = true;
        EXPECT_EQ(toNarrow(c.wide, c.codePage, &ok), c.expected);
        EXPECT_FALSE(ok);
    }
}

TEST(PlatformCodePages, ArbitraryBytesNeverBreakTheUtf8Decoder) {
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
            ASSERT_NE(wide.find(kMark), std::wstring::npos);
        }
    }
}

}  // namespace
