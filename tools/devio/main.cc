// devio: shows the maker's input devices, their batteries, firmware and
// properties, and watches them come and go.

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "Commands.h"
#include "ErrorText.h"
#include "Output.h"
#include "Session.h"
#include "Traffic.h"
#include "Watch.h"

namespace {

using namespace devio_tool;

int run(const Options& options) {
    if (options.command == "watch") return watch(options);
    const auto started = std::chrono::steady_clock::now();
    Devices devices;
    configureLibrary(options);
    if (!presentDevices(devices)) {
        std::cerr << "devio: cannot find devices: " << describe(lastFailure()) << "\n";
        return kFailed;
    }
    Traffic traffic;
    if (options.verbose) {
        for (const auto& d : devices) traffic.follow(d);
    }
    int status = kFailed;
    if (options.command == "list") status = listDevices(options, devices);
    if (options.command == "show") status = showDevice(options, devices);
    if (options.command == "name") status = friendlyName(options, devices);
    if (options.command == "property") status = property(options, devices);
    if (options.verbose) {
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - started;
        std::fprintf(stderr, "devio: %zu devices, %zu reports sent, %.1f ms\n", devices.size(),
                     traffic.reports(), took.count());
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    const auto options = parseCommandLine(argc, argv, error);
    if (!options) {
        std::cerr << "devio: " << error << "\n"
                  << "Try 'devio --help'.\n";
        return kUsage;
    }
    if (options->help) {
        std::cout << helpText(options->command);
        return kOk;
    }
    prepareLogging(*options);
    separateLibraryOutput(options->verbose, argv);
    try {
        return run(*options);
    } catch (const std::exception& e) {
        // The one exception the library lets out: a damaged feature cache.
        std::cerr << "devio: " << e.what() << " (the feature cache in " << cacheDirectory(*options)
                  << " may be damaged; it may be deleted)\n";
        return kFailed;
    }
}
