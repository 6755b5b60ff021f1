#include "log_format.h"

#include <sys/types.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace devio::xlog {

namespace {

// A width or precision beyond this is left to vsnprintf, which knows what to
// do when the result no longer fits an int.
constexpr int maxField = 1 << 20;

// Appends to the caller's buffer, cutting at its end like vsnprintf, while
// still counting the full length.
class Output {
public:
    Output(char* out, size_t size) : out_(out), room_(size == 0 ? 0 : size - 1) {}

    void put(char c) {
        if (pos_ < room_) out_[pos_] = c;
        ++pos_;
    }
    // Log messages are made of short pieces: a plain loop beats a call of
    // memcpy or memset for them. The loops run on locals, since the stores
    // through a char pointer could otherwise change this object.
    void append(const char* text, size_t length) {
        char* to = nullptr;
        size_t n = claim(length, to);
        if (n > 16)
            std::memcpy(to, text, n);
        else
            for (size_t i = 0; i < n; ++i) to[i] = text[i];
    }
    void fill(char c, size_t count) {
        char* to = nullptr;
        size_t n = claim(count, to);
        if (n > 16)
            std::memset(to, c, n);
        else
            for (size_t i = 0; i < n; ++i) to[i] = c;
    }
    // Copies text up to the next '%' or the end of the format, and leaves
    // `p` there. The library's search finds long runs fast; short ones go
    // by the loop in append.
    void copyLiteral(const char*& p) {
        const char* end = strchrnul(p, '%');
        append(p, static_cast<size_t>(end - p));
        p = end;
    }
    void terminate(size_t size) {
        if (size != 0) out_[pos_ < room_ ? pos_ : room_] = '\0';
    }
    size_t length() const { return pos_; }

private:
    // Counts `length` more bytes; returns how many of them fit, and where.
    size_t claim(size_t length, char*& to) {
        size_t n = pos_ < room_ ? (room_ - pos_ < length ? room_ - pos_ : length) : 0;
        to = out_ + pos_;
        pos_ += length;
        return n;
    }

    char* out_;
    size_t room_;
    size_t pos_ = 0;
};

enum class Length { none, hh, h, l, ll, z, j, t };

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // none given
    Length length = Length::none;
};

// Reads a decimal field; false if it is too large for us.
bool readNumber(const char*& p, int& value) {
    long n = 0;
    while (*p >= '0' && *p <= '9') {
        n = n * 10 + (*p++ - '0');
        if (n > maxField) return false;
    }
    value = static_cast<int>(n);
    return true;
}

// Digits of `value` in `base`, written backwards ending at `end`; returns
// the first.
char* digitsOf(unsigned long long value, unsigned base, bool upper, char* end) {
    static const char pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char* p = end;
    if (base == 10) {
        while (value >= 100) {
            unsigned pair = static_cast<unsigned>(value % 100) * 2;
            value /= 100;
            *--p = pairs[pair + 1];
            *--p = pairs[pair];
        }
        if (value >= 10) {
            unsigned pair = static_cast<unsigned>(value) * 2;
            *--p = pairs[pair + 1];
            *--p = pairs[pair];
        } else {
            *--p = static_cast<char>('0' + value);
        }
    } else {
        const char* hex = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        unsigned shift = base == 16 ? 4 : 3;
        do {
            *--p = hex[value & (base - 1)];
            value >>= shift;
        } while (value != 0);
    }
    return p;
}

void putDigits(Output& out, unsigned long long value, unsigned base, bool upper) {
    char buffer[24];
    char* end = buffer + sizeof buffer;
    char* first = digitsOf(value, base, upper, end);
    out.append(first, static_cast<size_t>(end - first));
}

void putPadded(Output& out, const Conversion& c, const char* text, size_t length) {
    size_t pad = static_cast<size_t>(c.width) > length ? static_cast<size_t>(c.width) - length : 0;
    if (!c.left) out.fill(' ', pad);
    out.append(text, length);
    if (c.left) out.fill(' ', pad);
}

void putInteger(Output& out, const Conversion& c, char conversion, unsigned long long magnitude,
                bool negative) {
    unsigned base = conversion == 'x' || conversion == 'X' ? 16 : conversion == 'o' ? 8 : 10;
    char buffer[24];
    char* end = buffer + sizeof buffer;
    // A precision of 0 prints no digits for the value 0.
    char* first = c.precision == 0 && magnitude == 0
                      ? end
                      : digitsOf(magnitude, base, conversion == 'X', end);
    size_t digits = static_cast<size_t>(end - first);
    size_t zeros =
        c.precision > 0 && static_cast<size_t>(c.precision) > digits ? c.precision - digits : 0;
    // "#o" makes sure that the text starts with a 0.
    if (conversion == 'o' && c.alternate && zeros == 0 && (digits == 0 || *first != '0')) zeros = 1;

    char prefix[2];
    size_t prefixLength = 0;
    if (conversion == 'd' || conversion == 'i') {
        if (negative)
            prefix[prefixLength++] = '-';
        else if (c.plus)
            prefix[prefixLength++] = '+';
        else if (c.space)
            prefix[prefixLength++] = ' ';
    } else if (base == 16 && c.alternate && magnitude != 0) {
        prefix[prefixLength++] = '0';
        prefix[prefixLength++] = conversion;
    }

    size_t total = prefixLength + zeros + digits;
    size_t pad = static_cast<size_t>(c.width) > total ? static_cast<size_t>(c.width) - total : 0;
    if (c.left) {
        out.append(prefix, prefixLength);
        out.fill('0', zeros);
        out.append(first, digits);
        out.fill(' ', pad);
    } else if (c.zero && c.precision < 0) {
        out.append(prefix, prefixLength);
        out.fill('0', zeros + pad);
        out.append(first, digits);
    } else {
        out.fill(' ', pad);
        out.append(prefix, prefixLength);
        out.fill('0', zeros);
        out.append(first, digits);
    }
}

long long signedArgument(Length length, va_list& args) {
    switch (length) {
        case Length::hh:
            return static_cast<signed char>(va_arg(args, int));
        case Length::h:
            return static_cast<short>(va_arg(args, int));
        case Length::l:
            return va_arg(args, long);
        case Length::ll:
            return va_arg(args, long long);
        case Length::z:
            return va_arg(args, ssize_t);
        case Length::j:
            return va_arg(args, intmax_t);
        case Length::t:
            return va_arg(args, ptrdiff_t);
        case Length::none:
            break;
    }
    return va_arg(args, int);
}

unsigned long long unsignedArgument(Length length, va_list& args) {
    switch (length) {
        case Length::hh:
            return static_cast<unsigned char>(va_arg(args, unsigned));
        case Length::h:
            return static_cast<unsigned short>(va_arg(args, unsigned));
        case Length::l:
            return va_arg(args, unsigned long);
        case Length::ll:
            return va_arg(args, unsigned long long);
        case Length::z:
            return va_arg(args, size_t);
        case Length::j:
            return va_arg(args, uintmax_t);
        case Length::t:
            return static_cast<std::make_unsigned_t<ptrdiff_t>>(va_arg(args, ptrdiff_t));
        case Length::none:
            break;
    }
    return va_arg(args, unsigned);
}

// Formats one conversion starting after its '%'; moves `p` past it. False
// for a conversion that is left to vsnprintf.
bool convert(Output& out, const char*& p, va_list& args) {
    Conversion c;
    for (;; ++p) {
        if (*p == '-')
            c.left = true;
        else if (*p == '+')
            c.plus = true;
        else if (*p == ' ')
            c.space = true;
        else if (*p == '#')
            c.alternate = true;
        else if (*p == '0')
            c.zero = true;
        else
            break;
    }
    if (*p == '*') {
        ++p;
        int width = va_arg(args, int);
        if (width < -maxField || width > maxField) return false;
        if (width < 0) {
            c.left = true;
            width = -width;
        }
        c.width = width;
    } else if (!readNumber(p, c.width) || *p == '$') {
        return false;
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            ++p;
            int precision = va_arg(args, int);
            if (precision > maxField) return false;
            c.precision = precision < 0 ? -1 : precision;
        } else if (!readNumber(p, c.precision)) {
            return false;
        }
    }
    switch (*p) {
        case 'h':
            ++p;
            c.length = *p == 'h' ? (++p, Length::hh) : Length::h;
            break;
        case 'l':
            ++p;
            c.length = *p == 'l' ? (++p, Length::ll) : Length::l;
            break;
        case 'z':
            ++p, c.length = Length::z;
            break;
        case 'j':
            ++p, c.length = Length::j;
            break;
        case 't':
            ++p, c.length = Length::t;
            break;
        default:
            break;
    }
    const char conversion = *p++;
    const bool onlyLeftFlag = !c.plus && !c.space && !c.alternate && !c.zero;
    switch (conversion) {
        case 'd':
        case 'i': {
            long long value = signedArgument(c.length, args);
            bool negative = value < 0;
            unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(value)
                                                    : static_cast<unsigned long long>(value);
            putInteger(out, c, conversion, magnitude, negative);
            return true;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            putInteger(out, c, conversion, unsignedArgument(c.length, args), false);
            return true;
        case 'c': {
            if (c.length != Length::none || !onlyLeftFlag || c.precision >= 0) return false;
            char ch = static_cast<char>(va_arg(args, int));
            putPadded(out, c, &ch, 1);
            return true;
        }
        case 's': {
            if (c.length != Length::none || !onlyLeftFlag) return false;
            const char* text = va_arg(args, const char*);
            if (text == nullptr) return false;
            size_t length = c.precision >= 0 ? strnlen(text, static_cast<size_t>(c.precision))
                                             : std::strlen(text);
            putPadded(out, c, text, length);
            return true;
        }
        case 'p': {
            if (c.length != Length::none || !onlyLeftFlag || c.precision >= 0) return false;
            const void* pointer = va_arg(args, const void*);
            if (pointer == nullptr) {
                putPadded(out, c, "(nil)", 5);
                return true;
            }
            char buffer[24];
            char* end = buffer + sizeof buffer;
            char* first = digitsOf(reinterpret_cast<uintptr_t>(pointer), 16, false, end);
            *--first = 'x';
            *--first = '0';
            putPadded(out, c, first, static_cast<size_t>(end - first));
            return true;
        }
        case '%':
            // Only a bare "%%"; anything between is vsnprintf's business.
            if (p[-2] != '%') return false;
            out.append("%", 1);
            return true;
        default:
            return false;
    }
}

}  // namespace

int formatMessage(char* out, size_t size, const char* format, va_list args) {
    // One copy is read conversion by conversion; the other stays whole for
    // vsnprintf, should a conversion turn out to be one of its own.
    va_list each, whole;
    va_copy(each, args);
    va_copy(whole, args);
    Output output(out, size);
    const char* p = format;
    bool handled = true;
    for (;;) {
        output.copyLiteral(p);
        if (*p == '\0') break;
        ++p;
        // The plain conversions that make up most messages go straight to
        // their digits or bytes.
        if (*p == 'd') {
            ++p;
            int value = va_arg(each, int);
            unsigned long long magnitude = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                                     : static_cast<unsigned long long>(value);
            if (value < 0) output.put('-');
            putDigits(output, magnitude, 10, false);
            continue;
        }
        if (*p == 'u' || *p == 'x') {
            putDigits(output, va_arg(each, unsigned), *p == 'u' ? 10 : 16, false);
            ++p;
            continue;
        }
        // "%02x" and the like: zero-padded to a one-digit width.
        if (*p == '0' && p[1] >= '1' && p[1] <= '9' &&
            (p[2] == 'x' || p[2] == 'X' || p[2] == 'u')) {
            char buffer[24];
            char* end = buffer + sizeof buffer;
            char* first = digitsOf(va_arg(each, unsigned), p[2] == 'u' ? 10 : 16, p[2] == 'X', end);
            size_t digits = static_cast<size_t>(end - first);
            size_t width = static_cast<size_t>(p[1] - '0');
            if (width > digits) output.fill('0', width - digits);
            output.append(first, digits);
            p += 3;
            continue;
        }
        if (*p == 's') {
            ++p;
            const char* text = va_arg(each, const char*);
            if (text == nullptr) {
                handled = false;
                break;
            }
            output.append(text, std::strlen(text));
            continue;
        }
        if (!convert(output, p, each)) {
            handled = false;
            break;
        }
    }
    int result;
    if (handled && output.length() <= static_cast<size_t>(INT_MAX)) {
        output.terminate(size);
        result = static_cast<int>(output.length());
    } else {
        result = std::vsnprintf(out, size, format, whole);
    }
    va_end(whole);
    va_end(each);
    return result;
}

int formatText(char* out, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = formatMessage(out, size, format, args);
    va_end(args);
    return n;
}

}  // namespace devio::xlog
