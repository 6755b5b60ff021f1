#include "client_main.h"

int main(int argc, char** argv) {
    return qv::clientMain(argc, argv);
}
