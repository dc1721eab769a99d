// Constructors as a host built with the platform's usual compiler calls them: they return the
// address of the object, which ours do not. Exported under that compiler's names (exports.def), as
// are, directly, the operations, whose calling convention is the same.
#include "zemhttpd/entry/entrypoint.h"

#include <cstdarg>
#include <new>

extern "C" {

CEntryPoint* ConstructEntryPoint(void* place) {
    return new (place) CEntryPoint;
}

// The arguments of a format cannot be handed on, so the name is made here.
CEntryPoint* ConstructNamedEntryPoint(void* place, const WCHAR* format, ...) {
    constexpr size_t kNameUnits = 128;
    WCHAR name[kNameUnits];
    va_list args;
    va_start(args, format);
    _vsnwprintf_s(name, kNameUnits, kNameUnits - 1, format, args);
    va_end(args);
    name[kNameUnits - 1] = 0;
    return new (place) CEntryPoint(TEXT("%s"), name);
}

CEntryPoint* ConstructEntryPointCopy(void* place, const CEntryPoint& other) {
    return new (place) CEntryPoint(other);
}

}  // extern "C"
