// The gateway's request conventions and the storage's layout, against a real server and disk.
#include "SyncTestSupport.h"

#include <pelkit/PELGateway.h>
#include <pelkit/foundation/FileSystem.h>

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

TEST(PELGateway, HostIsJoinedToThePathAsItIs) {
    HttpTestServer server;
    std::string seenPath;
    server.server.set_pre_routing_handler(
        [&](const httplib::Request& request, httplib::Response& res) {
            seenPath = request.path;
            res.set_content("", "application/json"); // 200 with an empty body
            return httplib::Server::HandlerResponse::Handled;
        });
    server.start();
    auto result = fetch(server.baseUrl() + "/");
    EXPECT_EQ(seenPath, "//configuration");
    ASSERT_TRUE(result) << "an empty 200 body is a success with zero bytes";
    EXPECT_TRUE(result->empty());
}

TEST(PELGateway, RefusedConnectionIsANetworkErrorWithTheTransportError) {
    HttpTestServer server;
    server.start();
    std::string host = server.baseUrl();
    server.server.stop(); // nothing listens on the port any more
    LineCapture lines;
    auto result = fetch(host);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().which(), PELError::Case::networkError);
    EXPECT_EQ(result.error().payload()->domain(), net::kTransportErrorDomain)
        << result.error().description();
    EXPECT_TRUE(lines.lines().empty());
}

TEST(PELGatewayDeathTest, UnparsableHostIsAProgrammingError) {
    EXPECT_DEATH(fetch("http://bad host"),
                 "Fatal error: PELGateway: the request address 'http://bad host/configuration' is "
                 "not a URL");
}

class PELStorageTest : public SyncFixture {};

TEST_F(PELStorageTest, TwentyCharacterPrefixNamesTheProjectDirectory) {
    PELStorage storage("0123456789abcdefghijKLMNO");
    EXPECT_EQ(storage.getConfigurationFilePath(),
              documents.path() / "0123456789abcdefghij" / "configuration.json");
    EXPECT_EQ(PELStorage("0123456789abcdefghijXLMNO").getConfigurationFilePath(),
              storage.getConfigurationFilePath());
    EXPECT_EQ(PELStorage("short").getConfigurationFilePath().parent_path().filename(), "short");
    EXPECT_FALSE(std::filesystem::exists(storage.getConfigurationFilePath().parent_path()))
        << "computing the path must not create anything";
}

TEST_F(PELStorageTest, SavingCreatesTheDirectoryAndReplacesTheFileWhole) {
    PELStorage storage("key");
    ASSERT_TRUE(storage.saveConfigurationDataToFile(bytesOf("first")));
    ASSERT_TRUE(storage.saveConfigurationDataToFile(bytesOf("second")));
    EXPECT_EQ(textOf(readFile(storage.getConfigurationFilePath()).value()), "second");
    int files = 0;
    for ([[maybe_unused]] auto& entry :
         std::filesystem::directory_iterator(storage.getConfigurationFilePath().parent_path()))
        ++files;
    EXPECT_EQ(files, 1) << "a temporary file was left behind";
}

} // namespace
} // namespace pelkit::test
