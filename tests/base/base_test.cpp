// Text of other encodings against iconv's, in the locales in which programs run; and the user's standard folders.
#include <gtest/gtest.h>
#include <iconv.h>
#include <pwd.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <optional>

#include "base/escaped.h"
#include "base/standard_folders.h"
#include "base/text.h"
#include "base/whole_path.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace sd {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

// Nothing where the bytes are none of the encoding.
std::optional<std::string> byIconv(const char* encoding, std::string bytes) {
    const iconv_t converter = ::iconv_open("UTF-8", encoding);
    std::string utf8(bytes.size() * 4, '\0');
    char* from = bytes.data();
    char* to = utf8.data();
    std::size_t fromLeft = bytes.size(), toLeft = utf8.size();
    const bool converted = ::iconv(converter, &from, &fromLeft, &to, &toLeft) == 0;
    ::iconv_close(converter);
    utf8.resize(utf8.size() - toLeft);
    return converted ? std::optional(utf8) : std::nullopt;
}

// Every byte but zero, and every pair, with ASCII around.
void expectAsIconv(const char* encoding, const std::function<std::string(const std::string&)>& toUtf8) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            std::string bytes =
                "a" + std::string(first != 0, static_cast<char>(first)) + static_cast<char>(second) + "z";
            const std::string utf8 = toUtf8(bytes);
            if (const auto expected = byIconv(encoding, bytes))
                ASSERT_EQ(utf8, *expected) << first << " " << second;
            else
                ASSERT_NE(utf8.find(kReplacement), std::string::npos) << first << " " << second;
        }
    }
}

TEST(TextTest, Latin1AsIconvHasIt) {
    expectAsIconv("ISO-8859-1", latin1ToUtf8);
    EXPECT_EQ(latin1ToUtf8(std::string("gr\xFCn\0z", 6)), "gr\xC3\xBCn");
}

TEST(TextTest, TheLocalesEncodingAsIconvHasIt) {
    (void)localToUtf8("\xFF");  // the C library loses a little where it makes a locale under LOCPATH
    const test::TempDir locales;
    for (const auto& [language, encoding] : {std::pair("de_DE", "ISO-8859-1"), std::pair("ja_JP", "EUC-JP")})
        if (const auto made = test::run(
                {"localedef", "-i", language, "-f", encoding, locales / (language + std::string(".") + encoding)});
            made.exitCode > 1)
            GTEST_SKIP() << "localedef needs the package locales: " << made.err;
    const test::ScopedEnv path("LOCPATH", locales.path().c_str());

    for (const auto& [locale, encoding] :
         {std::pair("C", "UTF-8"), std::pair("C.UTF-8", "UTF-8"), std::pair("de_DE.ISO-8859-1", "ISO-8859-1"),
          std::pair("ja_JP.EUC-JP", "EUC-JP")}) {
        SCOPED_TRACE(locale);
        ASSERT_STREQ(std::setlocale(LC_CTYPE, locale), locale);
        expectAsIconv(encoding, localToUtf8);
        EXPECT_EQ(localToUtf8(std::string("plain\0text", 10)), "plain");
        EXPECT_EQ(std::setlocale(LC_CTYPE, nullptr), std::string(locale));
    }
    EXPECT_EQ(localToUtf8("\x8F\xB0\xEC"), byIconv("EUC-JP", "\x8F\xB0\xEC"));  // three bytes a character
    std::setlocale(LC_CTYPE, "C");
    const std::string valid = "\xC3\xBC \xE6\x97\xA5 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF";
    EXPECT_EQ(localToUtf8(valid), valid);
    const std::string twice = kReplacement + kReplacement, thrice = twice + kReplacement;
    EXPECT_EQ(localToUtf8("a\xE6\x97"), "a" + twice);                        // cut off
    EXPECT_EQ(localToUtf8("\xED\xA0\x80z"), thrice + "z");                   // half of a pair
    EXPECT_EQ(localToUtf8("\xF4\x90\x80\x80"), thrice + kReplacement);       // beyond Unicode
    EXPECT_EQ(localToUtf8("\xC0\xAF\xE6\x97\xA5"), twice + "\xE6\x97\xA5");  // longer than need be
}

TEST(EscapedTest, ShowsCharactersAndTheBytesOfWhatIsNone) {
    const std::string kept = "a \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf";
    EXPECT_EQ(escaped(kept), kept);
    // What acts on a terminal or turns the direction, the first and the last of each kind, and their neighbours.
    const std::string neighbours = u8" ~\u00a0\u061b\u061d\u200d\u2010\u2029\u202f\u2065\u206a";
    EXPECT_EQ(escaped(neighbours), neighbours);
    for (const std::string control : {"\x01", "\x1f", "\x7f", u8"\u0080", u8"\u009f", u8"\u061c", u8"\u200e",
                                      u8"\u200f", u8"\u202a", u8"\u202e", u8"\u2066", u8"\u2069"})
        EXPECT_EQ(escaped(control).substr(0, 2), "\\x") << escaped(control);
    // Overlong ones, a surrogate, one beyond Unicode, and what is cut off.
    for (const char* text : {"\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80",
                             "\xf4\x90\x80\x80", "\xe2\x82", "\x80", "\xff"}) {
        EXPECT_EQ(escaped(text).find_first_not_of("\\x0123456789abcdef"), std::string::npos) << escaped(text);
        EXPECT_FALSE(isUtf8(text)) << escaped(text);
    }
}

TEST(WholePathTest, IsWhatTheLibraryMakesOfIt) {
    for (const char* path : {"/", "/a", "/a/", "//a//b/.", "/a/./b/..", "/a/b/../..", "/../..", "/..a/.b/...", "a",
                             "a/..", ".", "..", "./a/", "../../a"})
        EXPECT_EQ(wholePath(path), std::filesystem::absolute(path).lexically_normal().string()) << path;
}

TEST(StandardFoldersTest, FollowTheConvention) {
    using Folders = std::vector<std::string>;
    const std::string user = ::getpwuid(::geteuid())->pw_dir;
    const struct {
        FolderVariables variables;
        Folders folders;
    } cases[] = {
        {{"/h", "", ""}, {"/h/.local/share/app", "/usr/local/share/app", "/usr/share/app"}},
        {{"/h/", "/d/", "/a/:/b"}, {"/d/app", "/a/app", "/b/app"}},
        {{"/h", "relative", ":relative:/a::/a/:/h/.local/share"}, {"/h/.local/share/app", "/a/app"}},
        {{"relative", "", ":"}, {user + "/.local/share/app"}},
        {{"/", "/", "/"}, {"/app"}},
    };
    for (const auto& [variables, folders] : cases) EXPECT_EQ(dataFolders(variables, "app"), folders);
    EXPECT_EQ(homeFolder({"", "/d", ""}), user);
    EXPECT_EQ(homeFolder({"/h", "", ""}), "/h");
    EXPECT_EQ(programName(), "base_test");

    const test::TempDir folder;
    test::writeFile(folder / "file", "");
    EXPECT_EQ(makeFolder(folder / "a/b"), "");
    EXPECT_TRUE(std::filesystem::is_directory(folder / "a/b"));
    EXPECT_EQ(makeFolder(folder / "file/b"), folder / "file is not a folder");
}

}  // namespace
}  // namespace sd
