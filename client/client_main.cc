#include "client_main.h"

#include <unistd.h>

#include <cstdio>
#include <thread>

#include "command_line.h"
#include "debug_log.h"
#include "globals.h"
#include "md5.h"
#include "reader.h"
#include "settings.h"
#include "state_store.h"
#include "user.h"
#include "worker.h"

namespace qv {

int clientMain(int argc, char** argv) {
    initPaths();
    std::printf("schema: %s\n", schema);
    std::printf("build: %d\n", build);
    std::fflush(stdout);
    std::string clientId = getClientId();
    std::printf("clientId: %s\n", clientId.c_str());
    std::fflush(stdout);

    userName = effectiveUserName();
    userHash = md5Base64(userName);

    CommandLine cut = cutCommandLine(argc, argv);
    int inputFd = cut.hasInputFile ? cut.inputFd : STDIN_FILENO;
    if (!cut.hasInputFile) {
        // The reader works on the descriptor; stdio must not read ahead of it.
        std::setvbuf(stdin, nullptr, _IONBF, 0);
    }

    loadSettings();
    std::printf("starting\n");
    std::fflush(stdout);
    running = true;
    std::thread worker(workerMain);
    awaitWorkerWaiting();

    readerLoop(inputFd, !cut.hasInputFile);

    trace("EXITTING READER");
    running = false;
    wakeWorkerToEnd();
    worker.join();
    trace("EXITTING CLIENT");
    closeDebugLog();
    return 0;
}

}  // namespace qv
