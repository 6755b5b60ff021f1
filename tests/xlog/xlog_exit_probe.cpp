// A host of the device library for the tests of the order at exit: it links
// the facade and leaves by returning from main, so that the facade's exit
// sequence and the end of the log's buffering are the real ones.
//
//   devices   logs, makes the manager (the facade's first real call), exits
//   silent    links the facade but never logs before exit

#include <cstdio>
#include <string>

#include "Manager/CDevio.h"
#include "xlog.h"

int main(int argc, char** argv) {
    std::string scenario = argc > 1 ? argv[1] : "";
    if (scenario == "devices") {
        devio::xLog("Probe", 2, "devio::Probe::devices", "before the manager");
        std::printf("manager=%d\n", devio::cdevio.manager() ? 1 : 0);
        devio::xLog("Probe", 2, "devio::Probe::devices", "returning from main");
        return 0;
    }
    if (scenario == "silent") {
        std::printf("facade=%p\n", static_cast<void*>(&devio::cdevio));
        return 0;
    }
    std::fprintf(stderr, "unknown scenario %s\n", scenario.c_str());
    return 2;
}
