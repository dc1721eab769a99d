// The printf engine, for 16-bit and 8-bit formats alike. It writes into the caller's buffer and
// nowhere else, and stops at the first character that does not fit, so that a hostile width or
// string costs no more than the buffer. Any thread.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "platform/posix/text.h"
#include "platform/posix/utf.h"

namespace {

enum class Outcome { Complete, Cut, Refused };

enum class Size { Default, Char, Short, Long, Quad, Wide };

// va_list is an array on this system; a struct can be passed on by reference.
struct CArguments {
    va_list list;
};

struct CConversion {
    bool left = false, plus = false, blank = false, zero = false, alternate = false;
    bool has_precision = false;
    size_t width = 0;
    size_t precision = 0;
    Size size = Size::Default;
};

template <class C>
class CFormatter {
public:
    // `capacity` excludes the NUL.
    CFormatter(C* to, size_t capacity) : m_to(to), m_capacity(capacity) {}

    Outcome Run(const C* format, CArguments& arguments) {
        while (*format != 0 && !m_cut) {
            if (*format != '%') {
                Put(*format++);
                continue;
            }
            const C* next = Convert(format + 1, arguments);
            if (m_refused) return Outcome::Refused;
            if (next)
                format = next;
            else
                Put(*format++);  // unknown: as it stands
        }
        return m_cut ? Outcome::Cut : Outcome::Complete;
    }

    size_t Length() const { return m_length; }

private:
    using Other = std::conditional_t<std::is_same_v<C, char>, WCHAR, char>;
    static constexpr size_t kFloatPrecisionLimit = 128;

    void Put(C c) {
        if (m_length < m_capacity)
            m_to[m_length++] = c;
        else
            m_cut = true;
    }
    // How many of so many characters there is room for; fewer than all cut the text.
    size_t Fitting(size_t count) {
        const size_t room = m_capacity - m_length;
        if (count <= room) return count;
        m_cut = true;
        return room;
    }
    void Repeat(char c, size_t count) {
        std::fill_n(m_to + m_length, count = Fitting(count), static_cast<C>(c));
        m_length += count;
    }
    void PutNarrow(const char* text, size_t count) {
        count = Fitting(count);
        for (size_t i = 0; i < count; ++i)
            m_to[m_length + i] = static_cast<C>(text[i]);
        m_length += count;
    }
    void PutCode(char32_t code) {
        C units[4];
        uint32_t count;
        if constexpr (std::is_same_v<C, char>)
            count = posix::EncodeUtf8(code, units);
        else
            count = posix::EncodeUtf16(code, units);
        for (uint32_t i = 0; i < count; ++i)
            Put(units[i]);
    }

    // Writes one conversion; what follows it, or null when it is not one.
    const C* Convert(const C* p, CArguments& arguments) {
        CConversion c;
        p = ParseFlags(p, c);
        p = ParseNumbers(p, c, arguments);
        p = ParseSize(p, c);
        switch (*p) {
            case '%':
                Put('%');
                break;
            case 'd':
            case 'i':
                Signed(c, arguments);
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                Integer(c, UnsignedArgument(c, arguments), static_cast<char>(*p), "");
                break;
            case 'p':
                Pointer(c, va_arg(arguments.list, void*));
                break;
            case 'c':
            case 'C':
                Character(c, *p == 'C', arguments);
                break;
            case 's':
            case 'S':
                String(c, *p == 'S', arguments);
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                Float(c, static_cast<char>(*p), va_arg(arguments.list, double));
                break;
            case 'n':
                m_refused = true;
                break;
            default:
                return nullptr;
        }
        return p + 1;
    }

    static const C* ParseFlags(const C* p, CConversion& c) {
        for (;; ++p) {
            switch (*p) {
                case '-':
                    c.left = true;
                    break;
                case '+':
                    c.plus = true;
                    break;
                case ' ':
                    c.blank = true;
                    break;
                case '0':
                    c.zero = true;
                    break;
                case '#':
                    c.alternate = true;
                    break;
                default:
                    return p;
            }
        }
    }

    static const C* ParseDigits(const C* p, size_t& value) {
        for (; *p >= '0' && *p <= '9'; ++p)
            value = std::min<size_t>(value * 10 + static_cast<size_t>(*p - '0'), INT32_MAX);
        return p;
    }

    static const C* ParseNumbers(const C* p, CConversion& c, CArguments& arguments) {
        if (*p == '*') {
            const int64_t width = va_arg(arguments.list, int);
            c.left = c.left || width < 0;
            c.width = static_cast<size_t>(width < 0 ? -width : width);
            ++p;
        } else {
            p = ParseDigits(p, c.width);
        }
        if (*p != '.') return p;
        c.has_precision = true;
        if (p[1] != '*') return ParseDigits(p + 1, c.precision);
        const int precision = va_arg(arguments.list, int);
        c.has_precision = precision >= 0;
        c.precision = precision >= 0 ? static_cast<size_t>(precision) : 0;
        return p + 2;
    }

    static const C* ParseSize(const C* p, CConversion& c) {
        switch (*p) {
            case 'h':
                c.size = p[1] == 'h' ? Size::Char : Size::Short;
                return p + (p[1] == 'h' ? 2 : 1);
            case 'l':
                c.size = p[1] == 'l' ? Size::Quad : Size::Long;
                return p + (p[1] == 'l' ? 2 : 1);
            case 'I':
                if (p[1] == '3' && p[2] == '2') {
                    c.size = Size::Long;
                    return p + 3;
                }
                c.size = Size::Quad;
                return p + (p[1] == '6' && p[2] == '4' ? 3 : 1);
            case 'j':
            case 'z':
            case 't':
                c.size = Size::Quad;
                return p + 1;
            case 'w':
                c.size = Size::Wide;
                return p + 1;
            case 'L':
                return p + 1;
            default:
                return p;
        }
    }

    static uint64_t UnsignedArgument(const CConversion& c, CArguments& arguments) {
        if (c.size == Size::Quad) return va_arg(arguments.list, uint64_t);
        const auto value = va_arg(arguments.list, uint32_t);
        if (c.size == Size::Short) return static_cast<uint16_t>(value);
        if (c.size == Size::Char) return static_cast<uint8_t>(value);
        return value;
    }

    void Signed(const CConversion& c, CArguments& arguments) {
        int64_t value;
        if (c.size == Size::Quad) {
            value = va_arg(arguments.list, int64_t);
        } else {
            value = va_arg(arguments.list, int32_t);
            if (c.size == Size::Short) value = static_cast<int16_t>(value);
            if (c.size == Size::Char) value = static_cast<int8_t>(value);
        }
        const auto bits = static_cast<uint64_t>(value);
        const char* sign = value < 0 ? "-" : c.plus ? "+" : c.blank ? " " : "";
        Integer(c, value < 0 ? 0 - bits : bits, 'u', sign);
    }

    // The digits end at `end`; none for 0.
    template <unsigned base>
    static char* Digits(uint64_t value, const char* set, char* end) {
        for (; value != 0; value /= base)
            *--end = set[value % base];
        return end;
    }

    // `kind` is u, x, X or o.
    void Integer(const CConversion& c, uint64_t value, char kind, const char* prefix) {
        const unsigned base = kind == 'u' ? 10 : kind == 'o' ? 8 : 16;
        const char* set = kind == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
        char digits[24];
        char* const end = digits + sizeof(digits);
        // Each base is a constant of its own: a division by a variable is the dearest there is.
        const char* const first = base == 10   ? Digits<10>(value, set, end)
                                  : base == 16 ? Digits<16>(value, set, end)
                                               : Digits<8>(value, set, end);
        const auto count = static_cast<size_t>(end - first);
        if (c.alternate && base == 16 && value != 0) prefix = kind == 'X' ? "0X" : "0x";
        size_t least = c.has_precision ? c.precision : 1;
        if (c.alternate && base == 8) least = std::max(least, count + 1);
        size_t zeros = least > count ? least - count : 0;
        const size_t prefix_size = std::strlen(prefix);
        size_t used = prefix_size + zeros + count;
        if (c.zero && !c.left && !c.has_precision && c.width > used) {
            zeros += c.width - used;
            used = c.width;
        }
        const size_t padding = c.width > used ? c.width - used : 0;
        if (!c.left) Repeat(' ', padding);
        PutNarrow(prefix, prefix_size);
        Repeat('0', zeros);
        PutNarrow(first, count);
        if (c.left) Repeat(' ', padding);
    }

    void Pointer(CConversion c, const void* value) {
        c.has_precision = true;
        c.precision = 16;
        c.alternate = false;
        Integer(c, reinterpret_cast<uint64_t>(value), 'X', "");
    }

    // Which of the two character types a %c or %s means.
    static bool IsOther(const CConversion& c, bool capital) {
        constexpr bool kWide = !std::is_same_v<C, char>;
        if (c.size == Size::Short) return kWide;
        if (c.size == Size::Long || c.size == Size::Wide) return !kWide;
        return capital;
    }

    void Character(const CConversion& c, bool capital, CArguments& arguments) {
        const int value = va_arg(arguments.list, int);
        if (IsOther(c, capital)) {
            const Other unit[1] = {static_cast<Other>(value)};
            Text(c, unit, 1);
        } else {
            const C unit[1] = {static_cast<C>(value)};
            Text(c, unit, 1);
        }
    }

    void String(const CConversion& c, bool capital, CArguments& arguments) {
        const size_t limit = c.has_precision ? c.precision : static_cast<size_t>(-1);
        if (IsOther(c, capital))  // NOLINT(bugprone-branch-clone): the types differ
            Terminated(c, va_arg(arguments.list, const Other*), limit);
        else
            Terminated(c, va_arg(arguments.list, const C*), limit);
    }

    template <class T>
    void Terminated(const CConversion& c, const T* text, size_t limit) {
        if (!text) {
            constexpr char kNull[] = "(null)";
            T copy[sizeof(kNull)];
            std::copy(kNull, kNull + sizeof(kNull), copy);
            return Text(c, copy, std::min(limit, sizeof(kNull) - 1));
        }
        // No further than the buffer has room (each unit yields at least a third of one) or the
        // padding needs.
        const size_t useful = std::min(limit, (m_capacity - m_length) * 3 + c.width + 4);
        size_t size = 0;
        while (size < useful && text[size] != 0)
            ++size;
        Text(c, text, size);
    }

    template <class T>
    void Text(const CConversion& c, const T* text, size_t size) {
        const size_t used = c.width > 0 ? std::min(c.width, UnitsOf(text, size)) : 0;
        const size_t padding = c.width - used;
        if (!c.left) Repeat(c.zero ? '0' : ' ', padding);
        if constexpr (std::is_same_v<T, C>) {
            size = Fitting(size);
            std::copy_n(text, size, m_to + m_length);
            m_length += size;
        } else {
            for (size_t i = 0; i < size && !m_cut;) {
                const posix::CDecoded decoded = Decode(text + i, size - i);
                PutCode(decoded.code);
                i += decoded.units;
            }
        }
        if (c.left) Repeat(' ', padding);
    }

    static posix::CDecoded Decode(const char* text, size_t size) {
        return posix::DecodeUtf8(text, size);
    }
    static posix::CDecoded Decode(const WCHAR* text, size_t size) {
        return posix::DecodeUtf16(text, size);
    }

    template <class T>
    static size_t UnitsOf(const T* text, size_t size) {
        if constexpr (std::is_same_v<T, C>) {
            return size;
        } else {
            size_t units = 0;
            for (size_t i = 0; i < size;) {
                const posix::CDecoded decoded = Decode(text + i, size - i);
                C out[4];
                if constexpr (std::is_same_v<C, char>)
                    units += posix::EncodeUtf8(decoded.code, out);
                else
                    units += posix::EncodeUtf16(decoded.code, out);
                i += decoded.units;
            }
            return units;
        }
    }

    void Float(const CConversion& c, char kind, double value) {
        char format[16] = "%";
        size_t at = 1;
        if (c.plus) format[at++] = '+';
        if (c.blank) format[at++] = ' ';
        if (c.alternate) format[at++] = '#';
        const bool zero_pad = c.zero && !c.left && c.width < 256;
        if (zero_pad) format[at++] = '0';
        std::memcpy(format + at, "*.*", 3);
        format[at + 3] = kind;
        // A hexadecimal float without a precision prints all its digits; the others print six.
        const size_t fallback = kind == 'a' || kind == 'A' ? 13 : 6;
        const size_t precision =
            std::min(c.has_precision ? c.precision : fallback, kFloatPrecisionLimit);
        char text[512];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int length =
            std::snprintf(text, sizeof(text), format, zero_pad ? static_cast<int>(c.width) : 0,
                          static_cast<int>(precision), value);
#pragma GCC diagnostic pop
        const auto used = static_cast<size_t>(length);
        const size_t padding = c.width > used ? c.width - used : 0;
        if (!c.left) Repeat(' ', padding);
        PutNarrow(text, used);
        if (c.left) Repeat(' ', padding);
    }

    C* m_to;
    size_t m_capacity;
    size_t m_length = 0;
    bool m_cut = false;
    bool m_refused = false;
};

template <class C>
int Fail(C* buffer, int error) {
    buffer[0] = 0;
    errno = error;
    return -1;
}

template <class C>
int Format(C* buffer, size_t size, size_t count, const C* format, va_list list) {
    if (!buffer || size == 0 || size > INT32_MAX || !format) {
        if (buffer && size > 0) buffer[0] = 0;
        errno = EINVAL;
        return -1;
    }
    const bool may_cut = count == _TRUNCATE || count < size;
    CArguments arguments;
    va_copy(arguments.list, list);
    CFormatter<C> formatter(buffer, std::min(size - 1, count));
    const Outcome outcome = formatter.Run(format, arguments);
    va_end(arguments.list);
    if (outcome == Outcome::Refused) return Fail(buffer, EINVAL);
    if (outcome == Outcome::Cut && !may_cut) return Fail(buffer, ERANGE);
    buffer[formatter.Length()] = 0;
    return outcome == Outcome::Cut ? -1 : static_cast<int>(formatter.Length());
}

}  // namespace

extern "C" {

int _vsnwprintf_s(WCHAR* buffer, size_t size, size_t count, const WCHAR* format, va_list args) {
    return Format(buffer, size, count, format, args);
}

int _snwprintf_s(WCHAR* buffer, size_t size, size_t count, const WCHAR* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Format(buffer, size, count, format, args);
    va_end(args);
    return result;
}

int _vsnprintf_s(char* buffer, size_t size, size_t count, const char* format, va_list args) {
    return Format(buffer, size, count, format, args);
}

int _snprintf_s(char* buffer, size_t size, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Format(buffer, size, count, format, args);
    va_end(args);
    return result;
}

// A count of the buffer's own size allows no cut.
int swprintf_s(WCHAR* buffer, size_t size, const WCHAR* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Format(buffer, size, size, format, args);
    va_end(args);
    return result;
}

int sprintf_s(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = Format(buffer, size, size, format, args);
    va_end(args);
    return result;
}

}  // extern "C"
