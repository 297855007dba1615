#include <pelkit/foundation/Text.h>

#include <gtest/gtest.h>

namespace pelkit {
namespace {

TEST(CharacterPrefix, CountsUserPerceivedCharactersNotBytes) {
    struct Case {
        const char* name;
        std::string text;
        std::size_t count;
        std::string expected;
    };
    const std::string family =
        "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";
    const std::string flagFr = "\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7";
    const std::string eAcute = "e\xCC\x81"; // e + combining acute accent
    const Case cases[] = {
        {"ascii longer than the prefix", "0123456789abcdefghijKLMNO", 20, "0123456789abcdefghij"},
        {"shorter than the prefix", "short", 20, "short"},
        {"empty", "", 20, ""},
        {"combining mark stays with its base", std::string(19, 'x') + eAcute + "yz", 20,
         std::string(19, 'x') + eAcute},
        {"zero-width-joined emoji is one character", family + "abc", 2, family + "a"},
        {"regional indicator pair is one flag", flagFr + flagFr + "!", 2, flagFr + flagFr},
        {"two-byte letters", "\xC3\xA9\xC3\xA9\xC3\xA9", 2, "\xC3\xA9\xC3\xA9"},
        {"CR LF is one character", "a\r\nb", 2, "a\r\n"},
        {"invalid bytes count one each",
         "\xFF\xFE"
         "abc",
         3,
         "\xFF\xFE"
         "a"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(characterPrefix(c.text, c.count), c.expected) << c.name;
}

TEST(DecodeUtf8Lossy, ReplacesEachInvalidByteAndKeepsValidText) {
    EXPECT_EQ(decodeUtf8Lossy("http://h/x"), "http://h/x");
    EXPECT_EQ(decodeUtf8Lossy("a\xFF"
                              "b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(decodeUtf8Lossy("\xC3"), "\xEF\xBF\xBD") << "a truncated sequence";
    EXPECT_EQ(decodeUtf8Lossy("\xC3\xA9"), "\xC3\xA9");
}

} // namespace
} // namespace pelkit
