#include "log_format.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace devio::xlog {

namespace {

// A width or precision beyond this is left to vsnprintf, which knows what to
// do when the result no longer fits an int.
constexpr int maxField = 1 << 20;

// Bytes looked at, and stored, in one step of a run copy.
constexpr size_t block = 16;

// Whether a block read at `p` stays within p's page, and so cannot fault
// even when the text ends earlier.
bool blockInPage(const char* p) {
    constexpr uintptr_t page = 4096;
    return (reinterpret_cast<uintptr_t>(p) & (page - 1)) <= page - block;
}

// Appends to the caller's buffer, cutting at its end like vsnprintf, while
// still counting the full length.
class Output {
public:
    Output(char* out, size_t size) : out_(out), room_(size == 0 ? 0 : size - 1) {}

    void put(char c) {
        if (pos_ < room_) out_[pos_] = c;
        ++pos_;
    }
    void append(const char* text, size_t length) {
        char* to = nullptr;
        // A cut output may have no buffer at all.
        if (size_t n = claim(length, to); n != 0) std::memcpy(to, text, n);
    }
    void fill(char c, size_t count) {
        char* to = nullptr;
        if (size_t n = claim(count, to); n != 0) std::memset(to, c, n);
    }
    // Copies text up to the next '%' or the end of the format, and leaves
    // `p` there.
    void copyLiteral(const char*& p) { copyRun<true>(p); }
    // Copies a whole NUL-terminated string.
    void copyString(const char* text) { copyRun<false>(text); }

    // Writes the digits of `value` straight into the output when they fit.
    void putNumber(unsigned long long value, unsigned base, bool upper);

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
    bool roomFor(size_t n) const { return pos_ < room_ && room_ - pos_ >= n; }

    // Log messages are made of runs of a few to a few dozen bytes, which a
    // search followed by a copy would each pass over, at the cost of two
    // calls. Here one pass looks at a block of the text and stores it whole,
    // then counts how much of it belonged to the run; the output has room
    // for the block, and reading past the run's end within its page is
    // harmless, though the sanitizers would count it as a fault.
    template <bool stopAtPercent>
    __attribute__((no_sanitize("address", "thread"))) void copyRun(const char*& p) {
#if defined(__SSE2__)
        const __m128i nul = _mm_setzero_si128();
        const __m128i percent = _mm_set1_epi8('%');
#endif
        for (;;) {
#if defined(__SSE2__)
            if (roomFor(block) && blockInPage(p)) {
                __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
                __m128i ends = _mm_cmpeq_epi8(bytes, nul);
                if constexpr (stopAtPercent)
                    ends = _mm_or_si128(ends, _mm_cmpeq_epi8(bytes, percent));
                unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(ends));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out_ + pos_), bytes);
                size_t taken = mask != 0 ? static_cast<size_t>(__builtin_ctz(mask)) : block;
                pos_ += taken;
                p += taken;
                if (mask != 0) return;
                continue;
            }
#endif
            // Near the end of the output, or of a page: byte by byte, until
            // the output is full; from there on the rest is only counted.
            char c = *p;
            if (c == '\0' || (stopAtPercent && c == '%')) return;
            if (pos_ >= room_) {
                const char* end = stopAtPercent ? strchrnul(p, '%') : p + std::strlen(p);
                pos_ += static_cast<size_t>(end - p);
                p = end;
                return;
            }
            out_[pos_++] = c;
            ++p;
        }
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

// The number of digits of `value` in `base`.
unsigned digitCount(unsigned long long value, unsigned base) {
    unsigned bits = 64 - static_cast<unsigned>(__builtin_clzll(value | 1));
    if (base == 16) return (bits + 3) / 4;
    if (base == 8) return (bits + 2) / 3;
    static constexpr unsigned long long powers[] = {1ULL,
                                                    10ULL,
                                                    100ULL,
                                                    1000ULL,
                                                    10000ULL,
                                                    100000ULL,
                                                    1000000ULL,
                                                    10000000ULL,
                                                    100000000ULL,
                                                    1000000000ULL,
                                                    10000000000ULL,
                                                    100000000000ULL,
                                                    1000000000000ULL,
                                                    10000000000000ULL,
                                                    100000000000000ULL,
                                                    1000000000000000ULL,
                                                    10000000000000000ULL,
                                                    100000000000000000ULL,
                                                    1000000000000000000ULL,
                                                    10000000000000000000ULL};
    // bits * log10(2), rounded down: the count, or one more than it.
    unsigned guess = (bits * 1233) >> 12;
    unsigned count = guess + (value >= powers[guess] ? 1 : 0);
    return count == 0 ? 1 : count;
}

void Output::putNumber(unsigned long long value, unsigned base, bool upper) {
    unsigned count = digitCount(value, base);
    if (roomFor(count)) {
        digitsOf(value, base, upper, out_ + pos_ + count);
        pos_ += count;
        return;
    }
    char buffer[24];
    char* end = buffer + sizeof buffer;
    char* first = digitsOf(value, base, upper, end);
    append(first, static_cast<size_t>(end - first));
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
            return va_arg(args, std::make_signed_t<size_t>);
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
    // A copy is read conversion by conversion; `args` itself stays whole for
    // vsnprintf, should a conversion turn out to be one of its own.
    va_list each;
    va_copy(each, args);
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
            output.putNumber(magnitude, 10, false);
            continue;
        }
        if (*p == 'u' || *p == 'x') {
            output.putNumber(va_arg(each, unsigned), *p == 'u' ? 10 : 16, false);
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
            output.copyString(text);
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
        va_list whole;
        va_copy(whole, args);
        result = std::vsnprintf(out, size, format, whole);
        va_end(whole);
    }
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
