#include <pelkit/PELNode.h>

#include <pelkit/PELHosts.h>
#include <pelkit/foundation/Error.h>
#include <pelkit/foundation/Log.h>
#include <pelkit/foundation/Text.h>
#include <pelkit/net/HttpSession.h>

#include <chrono>

namespace pelkit {
namespace {

constexpr auto kRequestTimeout = std::chrono::seconds(60);

} // namespace

PELNode::PELNode(std::string appKey, std::string targetId, std::string contentId, double width,
                 double height, std::optional<net::Url> filePath, double x, double y)
    : appKey_(std::move(appKey)), targetId_(std::move(targetId)), contentId_(std::move(contentId)),
      width_(width), height_(height), filePath_(std::move(filePath)), x_(x), y_(y) {}

void PELNode::prepareContent() {
    if (filePath_)
        return presentContent(*filePath_);
    // The request must hold the node until it completes, so only a shared node can prepare.
    auto self = std::static_pointer_cast<PELNode>(weak_from_this().lock());
    if (!self)
        fatalError("PELNode.prepareContent: the node is not shared; make it with PELNode::create");
    if (isPreparing_.exchange(true))
        return;

    // The answer is a path on the same server, so the completion keeps the address it asked.
    std::string host = legacyHost();
    std::string address =
        host + "/targets/" + targetId_ + "/content/" + contentId_ + "/preparecontent";
    auto url = net::Url::parse(address);
    if (!url)
        fatalError("PELNode.prepareContent: the prepare address '" + address + "' is not a URL");
    net::HttpRequest request{
        *url, {{"Content-Type", "application/json"}, {"appkey", appKey_}}, kRequestTimeout};

    auto completion = [self = std::move(self), host = std::move(host)](net::DataTaskResult result) {
        if (result.error) {
            self->isPreparing_ = false;
            return;
        }
        if (!result.response)
            fatalError("PELNode.prepareContent: no HTTP response");
        if (int status = result.response->statusCode; status != 200) {
            printLine("Response StatusCode: " + std::to_string(status));
            self->isPreparing_ = false;
            return;
        }
        // An empty body is data, as for the configuration; only a missing one is not.
        if (!result.body) {
            printLine("response did no include any data");
            self->isPreparing_ = false;
            return;
        }
        auto prepared = net::Url::parse(host + decodeUtf8Lossy(textOf(*result.body)));
        if (!prepared) {
            printLine("provided data was not a correct url");
            self->isPreparing_ = false;
            return;
        }
        self->isPreparing_ = false;
        self->presentContent(*prepared);
    };
    net::HttpSession::shared().dataTask(std::move(request), std::move(completion))->resume();
}

void PELNode::presentContent(const net::Url&) {
    fatalError("presentContent must be overwritten by subnode");
}

} // namespace pelkit
