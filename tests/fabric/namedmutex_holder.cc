// Helper process for the NamedMutex tests: takes the mutex named by its
// argument, says "locked", and holds it until its standard input closes.

#include <unistd.h>

#include <cstdio>

#include "Base/NamedMutex.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    devio::NamedMutex mutex(argv[1], false);
    mutex.lock();
    std::fputs("locked\n", stdout);
    std::fflush(stdout);
    char c;
    while (::read(0, &c, 1) > 0) {
    }
    mutex.unlock();
    return 0;
}
