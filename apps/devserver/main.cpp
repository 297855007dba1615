// pelkit-devserver: serves a project folder until interrupted. See --help.
#include "devserver/CommandLine.h"

#include <pelkit/foundation/Log.h>

#include <csignal>
#include <iostream>
#include <pthread.h>
#include <string_view>
#include <vector>

int main(int argc, char** argv) {
    using namespace pelkit::devserver;
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    const auto command = parseCommandLine(arguments);
    if (!command) {
        std::cerr << "pelkit-devserver: " << command.error() << "\n" << usageText();
        return 2;
    }
    if (command->action == Command::Action::Help) {
        std::cout << helpText();
        return 0;
    }

    // Blocked before the server's threads exist, so they inherit the mask and the signals wait
    // for sigwait below instead of killing the process mid-answer.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // A client hanging up is the server's business, not fatal.

    DevServer server(command->options);
    const auto port = server.start();
    if (!port) {
        std::cerr << "pelkit-devserver: " << port.error()->description() << "\n";
        return 1;
    }
    // One write(2) per line: the line reaches a pipe at once, no stream buffer to flush.
    pelkit::printLine("listening on " + server.baseUrl());

    int signal = 0;
    sigwait(&stopSignals, &signal);
    server.stop();
    return 0;
}
