// pelkit-devserver: serves a project folder until interrupted. See --help.
#include "common/CommandLine.h"
#include "devserver/CommandLine.h"

#include <pelkit/foundation/Log.h>

#include <csignal>
#include <iostream>
#include <pthread.h>

int main(int argc, char** argv) {
    using namespace pelkit::devserver;
    DevServerOptions options;
    const auto app = commandLine(options);
    if (const auto status = pelkit::apps::parseMain(*app, argc, argv))
        return *status;

    // Blocked before the server's threads exist, so they inherit the mask and the signals wait
    // for sigwait below instead of killing the process mid-answer.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // A client hanging up is the server's business, not fatal.

    DevServer server(options);
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
