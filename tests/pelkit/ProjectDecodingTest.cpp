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

fs::path configurations() {
    return test::fixturesDirectory() / "configurations";
}

Result<PELProject> decodeFixture(const std::string& name) {
    auto bytes = readFile(configurations() / name);
    if (!bytes)
        ADD_FAILURE() << "cannot read fixture " << name << ": " << *bytes.error();
    return PELProject::decode(bytes.value_or(Bytes{}));
}

std::shared_ptr<const DecodingError> decodingError(const Result<PELProject>& result) {
    if (result)
        return nullptr;
    return std::dynamic_pointer_cast<const DecodingError>(result.error());
}

net::Url url(std::string_view text) {
    auto parsed = net::Url::parse(text);
    if (!parsed)
        ADD_FAILURE() << "test URL does not parse: " << text;
    return parsed.value_or(net::Url::fileUrl("/"));
}

TEST(ProjectDecoding, EveryFixtureGivesTheOutcomeListedForIt) {
    std::ifstream table(configurations() / "outcomes.txt");
    ASSERT_TRUE(table) << "outcomes.txt is missing";
    std::set<std::string> listed;
    std::string line;
    while (std::getline(table, line)) {
        if (line.empty() || line.starts_with('#'))
            continue;
        std::istringstream fields(line);
        std::string file, kind, path;
        fields >> file >> kind >> path;
        listed.insert(file);
        SCOPED_TRACE(file);

        auto result = decodeFixture(file);
        if (kind == "ok") {
            EXPECT_TRUE(result) << "valid document rejected: " << *result.error();
            continue;
        }
        ASSERT_FALSE(result) << "invalid document accepted";
        auto error = decodingError(result);
        ASSERT_NE(error, nullptr) << "the failure is not a DecodingError: " << *result.error();
        EXPECT_EQ(toString(error->kind()), kind) << *error;
        EXPECT_EQ(toString(error->codingPath()), path == "-" ? "" : path) << *error;
    }
    for (const char* folder : {"valid", "invalid"}) {
        for (const auto& entry : fs::directory_iterator(configurations() / folder)) {
            std::string file = std::string(folder) + "/" + entry.path().filename().string();
            EXPECT_TRUE(listed.contains(file)) << file << " has no line in outcomes.txt";
        }
    }
}

PELContent content(std::string id, PELType type, double x, double y, double width, double height,
                   bool isFullscreen) {
    PELContent item;
    item.id = std::move(id);
    item.type = type;
    item.x = x;
    item.y = y;
    item.width = width;
    item.height = height;
    item.isFullscreen = isFullscreen;
    return item;
}

PELProject completeProject() {
    PELContent image = content("content-image", PELType::image, 100, 200.25, 300, 150.5, false);
    image.linkToOpenOnClick = "https://example.com/shop?item=7&ref=poster";
    image.url = url("https://cdn.example.com/media/image%20one.png");
    PELContent video = content("content-video", PELType::video, -10.5, 0, 640, 360, true);
    video.url = url("media/clip.mp4");
    PELContent green = content("content-green", PELType::greenScreen, 1, 2, 3, 4, false);
    green.greenScreenColor = "#00FF00";
    PELContent audio = content("content-audio", PELType::audio, 0, 0, 50, 50, false);
    audio.url = url("https://cdn.example.com/a.mp3");
    PELContent link = content("content-link", PELType::link, 5, 6, 7, 8, false);
    link.linkToOpenOnClick = "https://example.com";

    PELTarget poster{
        "target-poster",      "poster.jpg", 0.297, 1240.5, 1754, "2023-05-04T10:20:30.123Z",
        {image, video, green}};
    PELTarget flyer{"target-flyer", "Flyer \"A5\" \u00fcn\u00efcode",
                    0.148,          std::nullopt,
                    std::nullopt,   "1683195630",
                    {audio, link}};
    return {"project-1", "2023-05-04T10:20:30.123Z", {poster, flyer}};
}

TEST(ProjectDecoding, ValidDocumentsDecodeToTheirValues) {
    PELTarget nullOptionals{"t1",
                            "n",
                            1,
                            std::nullopt,
                            std::nullopt,
                            "",
                            {content("c1", PELType::video, 0, 0, 1, 1, true)}};
    PELTarget extraKeys{"t1", "n", 0.5, std::nullopt, std::nullopt, "x", {}};
    const struct {
        const char* file;
        PELProject expected;
    } cases[] = {
        {"valid/complete.json", completeProject()},
        {"valid/empty-targets.json", {"p-empty", "", {}}},
        {"valid/optional-fields-null.json", {"p-null", "7", {nullOptionals}}},
        {"valid/extra-keys.json", {"p-extra", "2024-01-01", {extraKeys}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        auto project = decodeFixture(c.file);
        ASSERT_TRUE(project) << *project.error();
        EXPECT_EQ(*project, c.expected) << "decoded:  " << *project << "\nexpected: " << c.expected;
    }
}

TEST(ProjectDecoding, ErrorsDescribeKindPlaceAndCause) {
    const struct {
        const char* file;
        int code;
        const char* description;
    } cases[] = {
        {"invalid/is-fullscreen-missing.json", 0,
         R"(keyNotFound "isFullscreen" at targets[0].items[1])"},
        {"invalid/project-id-missing.json", 0, R"(keyNotFound "id")"},
        {"invalid/height-null.json", 1,
         "valueNotFound at targets[0].items[0].height: Expected a number but found null."},
        {"invalid/physical-width-string.json", 2,
         "typeMismatch at targets[0].physicalWidth: Expected a number but found a string."},
        {"invalid/root-array.json", 2, "typeMismatch: Expected an object but found an array."},
        {"invalid/type-lowercase.json", 3,
         "dataCorrupted at targets[0].items[0].type: Cannot initialize PELType from invalid "
         "string value \"green_screen\"."},
        {"invalid/url-with-space.json", 3,
         "dataCorrupted at targets[0].items[0].url: Invalid URL string "
         "\"https://cdn.example.com/image one.png\"."},
        {"invalid/empty.json", 3, "dataCorrupted: The given data was not valid JSON: empty input."},
        {"invalid/number-overflow.json", 3,
         "dataCorrupted: The given data was not valid JSON: number out of range."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        auto result = decodeFixture(c.file);
        ASSERT_FALSE(result);
        std::ostringstream printed;
        printed << *result.error();
        EXPECT_EQ(printed.str(), c.description);
        EXPECT_EQ(result.error()->domain(), "DecodingError");
        EXPECT_EQ(result.error()->code(), c.code);
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
            EXPECT_NE(decodingError(project), nullptr) << *project.error();
        }
    }
    EXPECT_EQ(PELProject::decode(bytesOf(cases[3].text))->lastUpdated, longStamp);
}

TEST(ProjectDecoding, PrintsEveryFieldOnOneLine) {
    PELContent item = content("c\"1", PELType::greenScreen, 10, -0.5, 1e-3, 2, true);
    item.greenScreenColor = "#0F0";
    item.url = url("media/a.mp4");
    PELProject project{"p1", "", {{"t1", "Line\nbreak", 0.2, 1000, std::nullopt, "3", {item}}}};
    std::ostringstream printed;
    printed << project;
    EXPECT_EQ(printed.str(),
              R"(PELProject(id: "p1", lastUpdated: "", targets: [PELTarget(id: "t1", )"
              R"(name: "Line\nbreak", physicalWidth: 0.2, targetWidth: 1000, targetHeight: none, )"
              R"(lastUpdated: "3", items: [PELContent(id: "c\"1", type: greenScreen, )"
              R"(linkToOpenOnClick: none, greenScreenColor: "#0F0", x: 10, y: -0.5, )"
              R"(width: 0.001, height: 2, isFullscreen: true, url: "media/a.mp4")])]))");
}

} // namespace
} // namespace pelkit
