// Whether a test can expect that what was just written is known to be in memory.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

// Nobody tells so of a file system that lies in memory (no read of it may be refused for the
// device's sake) when mincore, and with it cachestat, is refused: there all frames take the way of
// those that have to be waited for.
inline bool TellsWhatIsInMemory(const std::string& folder) {
    std::string path = folder + "/zem-told-XXXXXX";
    const int file = mkstemp(path.data());
    if (file < 0) return false;
    unlink(path.c_str());
    char byte = 'z';
    const iovec vector{&byte, 1};
    bool told = write(file, &byte, 1) == 1 && preadv2(file, &vector, 1, 0, RWF_NOWAIT) == 1;
    void* const page = mmap(nullptr, 1, PROT_READ, MAP_SHARED, file, 0);
    if (page != MAP_FAILED) {
        unsigned char there;
        told |= mincore(page, 1, &there) == 0;
        munmap(page, 1);
    }
    close(file);
    return told;
}
