// Conversion in bounded steps, so that a long text is cut instead of refused; any thread.
#include "zemhttpd/server/narrowtext.h"

#include <algorithm>

namespace {

// A step of this many bytes or units always fits its step buffer, whatever the code page.
constexpr size_t kStep = 256;

bool IsSurrogateLead(WCHAR unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

}  // namespace

size_t WidenText(const char* text, size_t length, WCHAR* out, size_t outUnits) {
    if (outUnits == 0) return 0;
    // Plain ASCII is what clients send; it needs no conversion call.
    const size_t room = outUnits - 1;
    size_t done = 0;
    while (done < length && done < room && static_cast<unsigned char>(text[done]) < 0x80u) {
        out[done] = static_cast<WCHAR>(text[done]);
        ++done;
    }
    size_t units = done;
    while (done < length && units < room) {
        // Characters are whole within a step: no byte of a longer one is left behind at its end.
        size_t step = std::min(length - done, kStep);
        if (done + step < length) {
            while (step > kStep - 4 &&
                   (static_cast<unsigned char>(text[done + step]) & 0xC0u) == 0x80u) {
                --step;
            }
        }
        WCHAR wide[kStep];
        const int converted = MultiByteToWideChar(CP_ACP, 0, text + done, static_cast<int>(step),
                                                  wide, static_cast<int>(kStep));
        if (converted <= 0) break;
        size_t taken = std::min(static_cast<size_t>(converted), room - units);
        const bool cut = taken < static_cast<size_t>(converted);
        if (cut && taken > 0 && IsSurrogateLead(wide[taken - 1])) --taken;
        std::copy_n(wide, taken, out + units);
        units += taken;
        done += step;
        if (cut) break;
    }
    out[units] = 0;
    return units;
}

size_t NarrowText(const WCHAR* text, char* out, size_t outSize) {
    if (outSize == 0) return 0;
    size_t bytes = 0;
    while (*text) {
        const int units = IsSurrogateLead(text[0]) && text[1] != 0 ? 2 : 1;
        char narrow[8];
        const int converted =
            WideCharToMultiByte(CP_ACP, 0, text, units, narrow, sizeof(narrow), nullptr, nullptr);
        if (converted <= 0 || bytes + static_cast<size_t>(converted) > outSize - 1) break;
        std::copy_n(narrow, converted, out + bytes);
        bytes += static_cast<size_t>(converted);
        text += units;
    }
    out[bytes] = 0;
    return bytes;
}
