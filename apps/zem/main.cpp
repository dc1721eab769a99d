// The program zem: a media server from the command line.
#include "apps/zem/verbs.h"

int main(int argc, char** argv) {
    return zem::RunZem(argc, argv);
}
