// A host application built against an installed PELkit: synchronises one project and prints every
// status, then where the framework's "play" picture was found.
//
//     consumer http://127.0.0.1:8080 my-app-key
#include <pelkit/PELSyncSupervisor.h>
#include <pelkit/foundation/Resources.h>

#include <future>
#include <iostream>

struct Printer : pelkit::PELStatusDelegate {
    std::promise<pelkit::PELStatus> end;
    void statusDidChange(const pelkit::PELStatus& status) override {
        std::cout << status << std::endl;
        using enum pelkit::PELStatus::Case;
        if (status.which() == updateCompleted || status.which() == alreadyUpToDate ||
            status.which() == updateFailed)
            end.set_value(status);
    }
};

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: consumer SERVER APP_KEY\n";
        return 2;
    }
    auto printer = std::make_shared<Printer>();
    auto ended = printer->end.get_future();
    auto supervisor = pelkit::PELSyncSupervisor::create(argv[1], argv[2], printer);
    supervisor->startSync(true);
    auto end = ended.get();
    auto play = pelkit::resourcePath("play", "png");
    std::cout << "play: " << (play ? play->string() : "not found") << std::endl;
    return end.which() == pelkit::PELStatus::Case::updateFailed ? 1 : 0;
}
