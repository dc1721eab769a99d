// The words behind the result codes. A table, because a person reads them in a terminal far from
// the server's log.
#include "apps/zem/client/zemerror.h"

#include <array>
#include <cstdio>

namespace zem {
namespace {

struct HresultWords {
    uint32_t hr;
    const char* words;
};

constexpr HresultWords kWords[] = {
    {0x00000000, "success"},
    {0x00000001, "success, with a reservation"},
    {0x80004001, "not implemented by this server"},
    {0x80004002, "no such interface"},
    {0x80004004, "operation aborted"},
    {0x80004005, "unspecified failure"},
    {0x8000FFFF, "unexpected request or state"},
    {0x80040201, "hole: this frame was never written"},
    {0x80040202, "this frame was erased"},
    {0x80070002, "file not found"},
    {0x80070003, "path not found"},
    {0x80070005, "access denied"},
    {0x80070006, "invalid handle: the token is not of an open file of this client"},
    {0x8007000D, "invalid data"},
    {0x8007000E, "out of memory"},
    {0x80070013, "the medium is write protected"},
    {0x80070015, "the device is not ready"},
    {0x80070017,
     "checksum error: the frame's data is damaged; zemfsck on the server names all damaged frames "
     "of a native file"},
    {0x80070020, "the file is in use by another"},
    {0x80070026, "end of file"},
    {0x80070040, "the network name is no longer available"},
    {0x80070050, "the file exists"},
    {0x80070057, "invalid argument, or a client that has not joined"},
    {0x80070070, "the disk is full"},
    {0x8007007B, "a name that the file system does not allow"},
    {0x80070091, "the directory is not empty"},
    {0x800700B7, "it exists already"},
    {0x800703E3, "the operation was cancelled"},
    {0x800703E5, "the operation is still in progress"},
    {0x8007044C, "end of media: there is no frame at this position"},
    {0x8007045D, "input/output error of the device"},
    {0x800704CD, "the connection is gone"},
    {0x800705AA, "the server is short of frame memory or transaction blocks"},
};

}  // namespace

std::string HresultText(int32_t hr) {
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "0x%08x", static_cast<uint32_t>(hr));
    for (const HresultWords& entry : kWords) {
        if (entry.hr == static_cast<uint32_t>(hr))
            return std::string(number.data()) + " (" + entry.words + ")";
    }
    return number.data();
}

}  // namespace zem
