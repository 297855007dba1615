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
        {"invalid bytes count one each", "\xFF\xFE!abc", 3, "\xFF\xFE!"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(characterPrefix(c.text, c.count), c.expected) << c.name;
}

TEST(Text, ByteLevelConversionsKeepWhatTheyDoNotChange) {
    struct Case {
        std::string bytes, lossy, lower;
    };
    const Case cases[] = {
        {"HTTP://h/X", "HTTP://h/X", "http://h/x"},
        {"A\xFF!b", "A\xEF\xBF\xBD!b", "a\xFF!b"},
        {"\xC3", "\xEF\xBF\xBD", "\xC3"},     // a truncated sequence
        {"\xC3\x89", "\xC3\x89", "\xC3\x89"}, // only ASCII letters change case
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decodeUtf8Lossy(c.bytes), c.lossy) << c.bytes;
        EXPECT_EQ(asciiLowercase(c.bytes), c.lower) << c.bytes;
        EXPECT_EQ(isValidUtf8(c.bytes), c.bytes == c.lossy) << c.bytes;
    }
}

} // namespace
} // namespace pelkit
