// The gateway's request conventions and the storage's layout, against a real server and disk.
#include <pelkit/PELGateway.h>
#include <pelkit/PELStorage.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <future>

namespace pelkit::test {
namespace {

using ConfigurationResult = std::expected<Bytes, PELError>;

ConfigurationResult fetch(const std::string& host) {
    std::promise<ConfigurationResult> result;
    auto gateway = PELGateway::create(host, "key", nullptr);
    gateway->fetchRemoteConfiguration(
        [&](ConfigurationResult r) { result.set_value(std::move(r)); });
    return result.get_future().get();
}

TEST(PELGateway, JoinsHostAndPathAsTheyAreAndReportsTransportFailures) {
    HttpTestServer server;
    server.server.Get(".*", [](const httplib::Request&, httplib::Response& res) {
        res.set_content("", "application/json"); // 200 with an empty body
    });
    server.start();
    auto result = fetch(server.baseUrl() + "/");
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].path, "//configuration");
    ASSERT_TRUE(result) << "an empty 200 body is a success with zero bytes";
    EXPECT_TRUE(result->empty());

    server.server.stop(); // nothing listens on the port any more
    LineCapture lines;
    result = fetch(server.baseUrl());
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().which(), PELError::Case::networkError);
    EXPECT_EQ(result.error().payload()->domain(), net::kTransportErrorDomain);
    EXPECT_TRUE(lines.lines().empty());
}

TEST(PELGatewayDeathTest, UnparsableHostIsAProgrammingError) {
    EXPECT_DEATH(fetch("http://bad host"),
                 "Fatal error: PELGateway: the request address 'http://bad host/configuration' is "
                 "not a URL");
}

class PELStorageTest : public ::testing::Test {
protected:
    TempDir documents;
    ScopedEnv documentsVariable{"PELKIT_DOCUMENTS_DIR", documents.path().string()};
};

TEST_F(PELStorageTest, PrefixOfTwentyCharactersNamesTheProjectDirectoryAsItIs) {
    const std::pair<std::string, std::string> cases[] = {
        {"0123456789abcdefghijKLMNO", "0123456789abcdefghij"},
        {"0123456789abcdefghijXLMNO", "0123456789abcdefghij"},
        {"short", "short"},
        {"...", "..."},
        {" back\\slash ", " back\\slash "},
        {"\xc3\xa9t\xc3\xa9-caf\xc3\xa9-0123456789-rest",
         "\xc3\xa9t\xc3\xa9-caf\xc3\xa9-0123456789-"},
    };
    for (const auto& [key, directory] : cases) {
        EXPECT_TRUE(checkAppKeyPrefix(key)) << key;
        EXPECT_EQ(PELStorage(key).getConfigurationFilePath(),
                  documents.path() / directory / "configuration.json");
    }
    EXPECT_TRUE(std::filesystem::is_empty(documents.path()))
        << "computing the path must not create anything";
}

TEST_F(PELStorageTest, SavingCreatesTheDirectoryAndReplacesTheFileWhole) {
    PELStorage storage("key");
    ASSERT_TRUE(storage.saveConfigurationDataToFile(bytesOf("first")));
    ASSERT_TRUE(storage.saveConfigurationDataToFile(bytesOf("second")));
    EXPECT_EQ(textOf(readFile(storage.getConfigurationFilePath()).value()), "second");
    auto entries = std::filesystem::directory_iterator(documents / "key");
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << "a temporary file was left";
    EXPECT_FALSE(PELStorage("../key").saveConfigurationDataToFile(bytesOf("elsewhere")));
}

// Target names come from the server's configuration: whatever they say, only regular files of
// reasonable size inside the project directory are read, and nothing blocks.
TEST_F(PELStorageTest, TargetImagesAreReadOnlyFromInsideTheProjectDirectory) {
    PELStorage storage("key");
    const auto project = documents / "key";
    std::filesystem::create_directories(project / "sub");
    std::ofstream(project / "poster.jpg") << "image";
    std::ofstream(documents / "outside.jpg") << "outside";
    ASSERT_EQ(::mkfifo((project / "fifo").c_str(), 0644), 0);
    std::ofstream(project / "huge.jpg").close();
    std::filesystem::resize_file(project / "huge.jpg", kMaxTargetImageBytes + 1);
    const std::string in = project.string() + "/";
    const std::pair<std::string, std::string> cases[] = {
        {"poster.jpg", "image"},
        {"sub/.././/poster.jpg", "image"},
        {"../outside.jpg", "appendingPathComponent(../outside.jpg): the name leaves the directory"},
        {"sub/../../outside.jpg",
         "appendingPathComponent(sub/../../outside.jpg): the name leaves the directory"},
        {"/dev/zero", "open(" + in + "dev/zero): No such file or directory (2)"},
        {"/proc/self/mem", "open(" + in + "proc/self/mem): No such file or directory (2)"},
        {"fifo", "readRegularFile(" + in + "fifo): not a regular file"},
        {"sub", "readRegularFile(" + in + "sub): not a regular file"},
        {"", "readRegularFile(" + project.string() + "): not a regular file"},
        {"huge.jpg", "readRegularFile(" + in + "huge.jpg): larger than 67108864 bytes"},
        {std::string("a\0b", 3), "appendingPathComponent(a\\0b): the name holds a NUL character"},
    };
    for (const auto& [name, outcome] : cases) {
        auto path = storage.getTargetImagePath(name);
        auto bytes = path ? readTargetImage(*path) : std::unexpected(path.error());
        EXPECT_EQ(bytes ? std::string(textOf(*bytes)) : bytes.error()->description(), outcome);
    }
}

} // namespace
} // namespace pelkit::test
