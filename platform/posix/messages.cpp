// The system's message texts: one for every error that this layer or the tree can produce. Any
// thread.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "platform/posix/com.h"
#include "platform/posix/sync.h"
#include "platform/posix/text.h"

namespace {

struct CMessage {
    DWORD id;
    const WCHAR* text;  // without its line end
};

constexpr DWORD Id(HRESULT result) {
    return static_cast<DWORD>(result);
}

constexpr CMessage kMessages[] = {
    {ERROR_SUCCESS, TEXT("The call succeeded.")},
    {ERROR_INVALID_FUNCTION, TEXT("The function is not valid here.")},
    {ERROR_FILE_NOT_FOUND, TEXT("There is no such file.")},
    {ERROR_PATH_NOT_FOUND, TEXT("There is no such folder.")},
    {ERROR_TOO_MANY_OPEN_FILES, TEXT("Too many files are open.")},
    {ERROR_ACCESS_DENIED, TEXT("Access was refused.")},
    {ERROR_INVALID_HANDLE, TEXT("The handle is not open.")},
    {ERROR_NOT_ENOUGH_MEMORY, TEXT("There is not enough memory.")},
    {ERROR_BAD_FORMAT, TEXT("The format is wrong.")},
    {ERROR_INVALID_DATA, TEXT("The data is not valid.")},
    {ERROR_OUTOFMEMORY, TEXT("Memory ran out.")},
    {ERROR_NOT_SAME_DEVICE, TEXT("The two names are on different volumes.")},
    {ERROR_NO_MORE_FILES, TEXT("There are no more files.")},
    {ERROR_WRITE_PROTECT, TEXT("The volume is write-protected.")},
    {ERROR_NOT_READY, TEXT("The device is not ready.")},
    {ERROR_CRC, TEXT("The data does not match its checksum.")},
    {ERROR_GEN_FAILURE, TEXT("The device or object failed.")},
    {ERROR_SHARING_VIOLATION, TEXT("The file is in use.")},
    {ERROR_LOCK_VIOLATION, TEXT("A part of the file is locked.")},
    {ERROR_HANDLE_EOF, TEXT("The end was reached.")},
    {ERROR_HANDLE_DISK_FULL, TEXT("The volume is full.")},
    {ERROR_NOT_SUPPORTED, TEXT("The request is not supported.")},
    {ERROR_DEV_NOT_EXIST, TEXT("There is no such device.")},
    {ERROR_NETNAME_DELETED, TEXT("The other side has gone.")},
    {ERROR_FILE_EXISTS, TEXT("The file exists.")},
    {ERROR_INVALID_PARAMETER, TEXT("A parameter is wrong.")},
    {ERROR_BROKEN_PIPE, TEXT("The pipe was closed at its other end.")},
    {ERROR_BUFFER_OVERFLOW, TEXT("The name is too long for the buffer.")},
    {ERROR_DISK_FULL, TEXT("There is no space left on the volume.")},
    {ERROR_CALL_NOT_IMPLEMENTED, TEXT("The system does not have this call.")},
    {ERROR_SEM_TIMEOUT, TEXT("The time for the request is over.")},
    {ERROR_INSUFFICIENT_BUFFER, TEXT("The buffer is too small.")},
    {ERROR_INVALID_NAME, TEXT("The name is not valid.")},
    {ERROR_NEGATIVE_SEEK, TEXT("The position is before the beginning.")},
    {ERROR_DIR_NOT_EMPTY, TEXT("The folder is not empty.")},
    {ERROR_BAD_PATHNAME, TEXT("The path is not valid.")},
    {ERROR_BUSY, TEXT("The object is busy.")},
    {ERROR_ALREADY_EXISTS, TEXT("The object exists already.")},
    {ERROR_FILENAME_EXCED_RANGE, TEXT("The name is too long.")},
    {ERROR_FILE_TOO_LARGE, TEXT("The file would become too large.")},
    {ERROR_NO_DATA, TEXT("The pipe is being closed.")},
    {ERROR_MORE_DATA, TEXT("There is more data.")},
    {WAIT_TIMEOUT, TEXT("The time of the wait is over.")},
    {ERROR_NO_MORE_ITEMS, TEXT("There are no more items.")},
    {ERROR_DIRECTORY, TEXT("The name is not that of a folder.")},
    {ERROR_TOO_MANY_POSTS, TEXT("The semaphore would pass its maximum.")},
    {ERROR_MR_MID_NOT_FOUND, TEXT("There is no message text for this number.")},
    {ERROR_INVALID_ADDRESS, TEXT("The address is not valid.")},
    {ERROR_ABANDONED_WAIT_0, TEXT("The port was closed during the wait.")},
    {ERROR_OPERATION_ABORTED, TEXT("The operation was cancelled.")},
    {ERROR_IO_INCOMPLETE, TEXT("The operation has not finished.")},
    {ERROR_IO_PENDING, TEXT("The operation goes on.")},
    {ERROR_STACK_OVERFLOW, TEXT("The stack is used up.")},
    {ERROR_INVALID_FLAGS, TEXT("A flag is not valid.")},
    {ERROR_FILE_INVALID, TEXT("The file under the handle has changed.")},
    {ERROR_BADKEY, TEXT("The registry key is not valid.")},
    {ERROR_END_OF_MEDIA, TEXT("The end of the media was reached.")},
    {ERROR_NO_UNICODE_TRANSLATION, TEXT("The text is not well-formed.")},
    {ERROR_IO_DEVICE, TEXT("The device reported an error.")},
    {ERROR_TOO_MANY_LINKS, TEXT("The file would have too many links.")},
    {ERROR_NOT_FOUND, TEXT("It was not found.")},
    {ERROR_CANCELLED, TEXT("The request was cancelled.")},
    {ERROR_CONNECTION_REFUSED, TEXT("The other side refused the connection.")},
    {ERROR_GRACEFUL_DISCONNECT, TEXT("The connection was closed.")},
    {ERROR_CONNECTION_INVALID, TEXT("There is no such connection.")},
    {ERROR_CONNECTION_ABORTED, TEXT("The connection was cut.")},
    {ERROR_RETRY, TEXT("The request should be tried again.")},
    {ERROR_NO_SYSTEM_RESOURCES, TEXT("The system lacks the resources.")},
    {ERROR_WORKING_SET_QUOTA, TEXT("The memory quota is used up.")},
    {ERROR_TIMEOUT, TEXT("The time for the operation is over.")},
    {ERROR_CANT_RESOLVE_FILENAME, TEXT("The name leads through too many links.")},
    {Id(RPC_E_CHANGED_MODE), TEXT("The thread already has another apartment.")},
    {Id(DISP_E_UNKNOWNINTERFACE), TEXT("The interface is unknown.")},
    {Id(DISP_E_MEMBERNOTFOUND), TEXT("The member was not found.")},
    {Id(DISP_E_TYPEMISMATCH), TEXT("The type does not match.")},
    {Id(DISP_E_UNKNOWNNAME), TEXT("The name is unknown.")},
    {Id(DISP_E_BADVARTYPE), TEXT("The variant's type is not valid.")},
    {Id(CLASS_E_NOAGGREGATION), TEXT("The class cannot be aggregated.")},
    {Id(REGDB_E_CLASSNOTREG), TEXT("The class is not registered.")},
    {Id(CO_E_NOTINITIALIZED), TEXT("The thread has no apartment.")},
    {Id(E_NOTIMPL), TEXT("Not implemented.")},
    {Id(E_NOINTERFACE), TEXT("The interface is not supported.")},
    {Id(E_POINTER), TEXT("The pointer is not valid.")},
    {Id(E_ABORT), TEXT("The operation was given up.")},
    {Id(E_FAIL), TEXT("An error without further detail.")},
    {Id(E_PENDING), TEXT("The data is not there yet.")},
    {Id(E_BOUNDS), TEXT("The access is outside the bounds.")},
    {Id(E_UNEXPECTED), TEXT("An unexpected failure.")},
};

// An HRESULT of the Win32 kind has the text of its error.
DWORD TextIdOf(DWORD id) {
    constexpr DWORD kWin32 = 0x80070000;
    return (id & 0xFFFF0000) == kWin32 ? id & 0xFFFF : id;
}

DWORD Fail(DWORD error) {
    SetLastError(error);
    return 0;
}

}  // namespace

extern "C" DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD id, DWORD language,
                                LPWSTR buffer, DWORD size, va_list* args) {
    constexpr DWORD kWanted = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    constexpr DWORD kUserDefault = 0x400;
    if ((flags & ~FORMAT_MESSAGE_ALLOCATE_BUFFER) != kWanted || source || args || !buffer ||
        (language != 0 && language != kUserDefault)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const bool allocate = (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0;
    auto* allocated = reinterpret_cast<LPWSTR*>(buffer);
    if (allocate) *allocated = nullptr;
    const auto* found =
        std::find_if(std::begin(kMessages), std::end(kMessages),
                     [text_id = TextIdOf(id)](const CMessage& m) { return m.id == text_id; });
    if (found == std::end(kMessages)) return Fail(ERROR_MR_MID_NOT_FOUND);
    const auto length = static_cast<DWORD>(wcslen(found->text) + 2);
    if (allocate) {
        size = std::max(size, length + 1);
        buffer = static_cast<LPWSTR>(std::malloc(size * sizeof(WCHAR)));
        if (!buffer) return Fail(ERROR_NOT_ENOUGH_MEMORY);
        *allocated = buffer;
    } else if (size <= length) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    swprintf_s(buffer, size, TEXT("%s\r\n"), found->text);
    return length;
}
