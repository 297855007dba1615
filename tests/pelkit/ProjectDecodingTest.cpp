// Decoding of configuration documents: the committed fixtures under
// tests/fixtures/configurations/, each with the outcome listed in outcomes.txt, and hostile input.
#include <pelkit/PELProject.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/foundation/Json.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

namespace pelkit {
namespace {

namespace fs = std::filesystem;

TEST(ProjectDecoding, EveryFixtureGivesTheOutcomeListedForIt) {
    const fs::path configurations = test::fixturesDirectory() / "configurations";
    std::ifstream table(configurations / "outcomes.txt");
    ASSERT_TRUE(table) << "outcomes.txt is missing";
    std::set<std::string> listed;
    std::string line;
    while (std::getline(table, line)) {
        if (line.empty() || line.starts_with('#'))
            continue;
        std::istringstream fields(line);
        std::string file, code, expected;
        fields >> file >> code >> std::ws;
        std::getline(fields, expected);
        listed.insert(file);
        SCOPED_TRACE(file);

        auto project = PELProject::decode(readFile(configurations / file).value_or(Bytes{}));
        std::ostringstream printed;
        if (project) {
            printed << "ok " << *project;
        } else {
            EXPECT_EQ(project.error()->domain(), "DecodingError");
            EXPECT_NE(std::dynamic_pointer_cast<const DecodingError>(project.error()), nullptr);
            printed << project.error()->code() << " " << *project.error();
        }
        EXPECT_EQ(printed.str(), code + " " + expected);
    }
    for (const char* folder : {"valid", "invalid"}) {
        for (const auto& entry : fs::directory_iterator(configurations / folder)) {
            std::string file = std::string(folder) + "/" + entry.path().filename().string();
            EXPECT_TRUE(listed.contains(file)) << file << " has no line in outcomes.txt";
        }
    }
}

std::string nested(std::size_t depth, bool closed) {
    std::string text(depth, '[');
    if (closed)
        text.append(depth, ']');
    return text;
}

TEST(ProjectDecoding, HostileDocumentsGiveAnErrorOrAValueNeverACrash) {
    const std::string head = R"({"id": "p", "lastUpdated": "", "targets": [], "extra": )";
    const std::string longStamp(1 << 20, '7');
    const struct {
        const char* name;
        std::string text;
        bool decodes;
    } cases[] = {
        {"deeply nested extra value", head + nested(200000, true) + "}", true},
        {"deeply nested and unterminated", head + nested(200000, false), false},
        {"NUL byte inside the text", head + std::string("1\0", 2) + "}", false},
        {"megabyte revision stamp",
         R"({"id": "p", "lastUpdated": ")" + longStamp + R"(", "targets": []})", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto project = PELProject::decode(bytesOf(c.text));
        EXPECT_EQ(project.has_value(), c.decodes);
        if (!project) {
            EXPECT_NE(std::dynamic_pointer_cast<const DecodingError>(project.error()), nullptr);
        }
    }
    EXPECT_EQ(PELProject::decode(bytesOf(cases[3].text))->lastUpdated, longStamp);
}

} // namespace
} // namespace pelkit
