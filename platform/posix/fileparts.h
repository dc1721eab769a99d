// Parts of files that are being sent although the call that named them has returned: whoever gives
// space of a file back asks first (views.h, IsFilePartInUse). A file is known by device and inode,
// whatever descriptors there are. Any thread; asking is free while nothing is on its way, and costs
// no more for parts elsewhere.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace posix {

class CFilePartUse {
public:
    // False: the file cannot be told, nothing is held.
    bool Begin(int descriptor, uint64_t offset_bytes, uint64_t length);
    CFilePartUse() = default;
    ~CFilePartUse();
    CFilePartUse(const CFilePartUse&) = delete;
    CFilePartUse& operator=(const CFilePartUse&) = delete;

    uint64_t BeginsAt() const { return m_begin; }

private:
    dev_t m_device = 0;
    ino_t m_inode = 0;
    uint64_t m_begin = 0, m_end = 0;
    bool m_held = false;
};

}  // namespace posix
