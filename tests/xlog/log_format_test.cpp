// The log call's own formatter against the C library's vsnprintf: every
// conversion, flag, width, precision and length modifier it handles must
// give the same bytes and the same result, whole or cut; the rest must reach
// vsnprintf unchanged.

#include "log_format.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

// The formats of this file are built at run time.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

struct Result {
    std::string text;
    int length;
    bool operator==(const Result&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Result& r) {
    return os << r.length << " \"" << r.text << "\"";
}

// Formats into a buffer of `size` bytes between guard bytes; the text is
// taken by the returned length, so that a NUL from "%c" does not hide what
// follows it, and `guards` is false if a byte outside the buffer changed.
Result formatWith(bool ours, size_t size, const char* format, va_list args, bool& guards) {
    std::vector<char> buffer(size + 16, '#');
    char* out = size == 0 ? nullptr : buffer.data() + 8;
    int n = ours ? devio::xlog::formatMessage(out, size, format, args)
                 : std::vsnprintf(out, size, format, args);
    for (size_t i = 0; i < buffer.size(); ++i)
        if ((i < 8 || i >= size + 8) && buffer[i] != '#') guards = false;
    if (size == 0 || n < 0) return {"", n};
    size_t kept = std::min(static_cast<size_t>(n), size - 1);
    if (out[kept] != '\0') guards = false;
    return {std::string(out, kept), n};
}

// Compares the two formatters on one format with its arguments, whole and
// cut at a few sizes, or at every size when `everySize`.
void expectSameAt(bool everySize, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    bool guards = true;
    Result expected = formatWith(false, 512, format, copy, guards);
    va_end(copy);
    size_t whole = static_cast<size_t>(expected.length > 0 ? expected.length : 0);
    std::vector<size_t> sizes{512, 0, 1, 6, whole, whole + 1};
    for (size_t size = 2; everySize && size < whole; ++size) sizes.push_back(size);
    for (size_t size : sizes) {
        va_list a, b;
        va_copy(a, args);
        va_copy(b, args);
        Result theirs = formatWith(false, size, format, a, guards);
        Result mine = formatWith(true, size, format, b, guards);
        va_end(a);
        va_end(b);
        if (mine != theirs || !guards) {
            ADD_FAILURE() << "format \"" << format << "\", buffer of " << size << ": got " << mine
                          << ", vsnprintf gives " << theirs << (guards ? "" : "; wrote outside");
            break;
        }
    }
}

void expectSame(const char* format, ...) {
    va_list args;
    va_start(args, format);
    expectSameAt(false, format, args);
    va_end(args);
}

void expectSameAtEverySize(const char* format, ...) {
    va_list args;
    va_start(args, format);
    expectSameAt(true, format, args);
    va_end(args);
}

// A readable page followed by one that is not: a text placed at the end of
// the first makes a formatter that reads past the page of its text fault.
class PageEnd {
public:
    PageEnd() {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* map =
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) throw std::runtime_error("mmap");
        base_ = static_cast<char*>(map);
        mprotect(base_ + page_, page_, PROT_NONE);
    }
    ~PageEnd() { munmap(base_, 2 * page_); }
    PageEnd(const PageEnd&) = delete;
    PageEnd& operator=(const PageEnd&) = delete;
    // The text with its NUL as the last readable byte.
    const char* place(const std::string& text) {
        char* at = base_ + page_ - text.size() - 1;
        std::memcpy(at, text.c_str(), text.size() + 1);
        return at;
    }

private:
    size_t page_ = 0;
    char* base_ = nullptr;
};

// Every combination of flags, width and precision for one conversion letter
// with one length modifier, over `values` given to `call`.
template <typename Call>
void everyDirective(const std::string& length, char conversion, Call call) {
    const char* flagSets[] = {"",   "-",  "+",  " ",  "#",  "0",    "-0",
                              "+0", " 0", "#0", "-#", "+ ", "-+ #0"};
    const char* widths[] = {"", "1", "5", "12", "*"};
    const char* precisions[] = {"", ".", ".0", ".1", ".3", ".12", ".*"};
    for (const char* flags : flagSets)
        for (const char* width : widths)
            for (const char* precision : precisions) {
                std::string directive =
                    std::string("[%") + flags + width + precision + length + conversion + "]";
                call(directive, std::string(width) == "*", std::string(precision) == ".*");
            }
}

TEST(LogFormatTest, IntegersMatchTheCLibraryInEveryFlagWidthPrecisionAndLength) {
    const long long values[] = {0, 1, -1, 42, 255, -65536, INT_MIN, LLONG_MAX, LLONG_MIN};
    const int stars[] = {-7, 0, 3, 20};
    for (char conversion : {'d', 'i', 'u', 'x', 'X', 'o'}) {
        for (const char* length : {"", "hh", "h", "l", "ll", "z", "j", "t"}) {
            everyDirective(length, conversion,
                           [&](const std::string& directive, bool starWidth, bool starPrecision) {
                               const char* f = directive.c_str();
                               for (long long v : values) {
                                   std::string l(length);
                                   // Each length takes its own type through the variable
                                   // arguments, as a caller's would.
                                   auto one = [&](auto value) {
                                       if (starWidth && starPrecision) {
                                           for (int w : stars)
                                               for (int p : stars) expectSame(f, w, p, value);
                                       } else if (starWidth || starPrecision) {
                                           for (int s : stars) expectSame(f, s, value);
                                       } else {
                                           expectSame(f, value);
                                       }
                                   };
                                   if (l == "" || l == "hh" || l == "h")
                                       one(static_cast<int>(v));
                                   else if (l == "l")
                                       one(static_cast<long>(v));
                                   else if (l == "ll")
                                       one(v);
                                   else if (l == "z")
                                       one(static_cast<size_t>(v));
                                   else if (l == "j")
                                       one(static_cast<intmax_t>(v));
                                   else
                                       one(static_cast<ptrdiff_t>(v));
                               }
                           });
        }
    }
}

TEST(LogFormatTest, TextCharactersPointersAndPercentMatchTheCLibrary) {
    int local = 0;
    const void* pointers[] = {nullptr, &local, reinterpret_cast<const void*>(uintptr_t{0x1}),
                              reinterpret_cast<const void*>(~uintptr_t{0})};
    const char* texts[] = {"", "a", "hid", "/dev/hidraw3 with some length to it"};
    for (char conversion : {'s', 'c', 'p'}) {
        everyDirective("", conversion,
                       [&](const std::string& directive, bool starWidth, bool starPrecision) {
                           const char* f = directive.c_str();
                           auto one = [&](auto value) {
                               if (starWidth && starPrecision)
                                   expectSame(f, -9, 2, value), expectSame(f, 9, -1, value);
                               else if (starWidth || starPrecision)
                                   expectSame(f, -9, value), expectSame(f, 4, value);
                               else
                                   expectSame(f, value);
                           };
                           if (conversion == 's')
                               for (const char* t : texts) one(t);
                           if (conversion == 'c')
                               for (int c : {int{'x'}, 0, 255, -1}) one(c);
                           if (conversion == 'p')
                               for (const void* p : pointers) one(p);
                       });
    }
    expectSame("100%% sure, %d%%, %-%, %5%", 3);
    expectSame("%s", static_cast<const char*>(nullptr));
    expectSame("%.3s|%-8s|%8.2s", static_cast<const char*>(nullptr), "ab", "xyz");
}

TEST(LogFormatTest, MessagesOfTheLibraryMatchTheCLibrary) {
    const unsigned char b[] = {0x10, 0xff, 0x05, 0x1a};
    expectSame("sendSynchronousCommand cmd starts with %02x %02x %02x %02x", b[0], b[1], b[2],
               b[3]);
    expectSame("%s(%d): ASSERT FAILURE! Expression: %s\n", "probe.cpp", 42, "1 + 1 == 3");
    expectSame("xLog enlarged buffer from %u/%u to %u/%u, currently using %u/%u", 30000u, 3000000u,
               90000u, 9000000u, 10000u, 1000000u);
    expectSame("device %s index %d feature 0x%04x returned %d", "/dev/hidraw3", 7, 0x1d4b, -1);
    expectSame("%-20.*s|%.*s|%0*x|%0*X|%08x|%05d|%03u", 3, "tagword", 4, "functions", 6, 0xbeef, 6,
               0xbeef, 0xc0ffee, -12, 7u);
    expectSame("-api- %s exit (%s, %p) %lu %zu %llx", "open", "false", &b, 5ul, size_t{9},
               0xfedcba9876543210ull);
    expectSame("no conversions at all");
    expectSame("");
    std::string big(2000, 'x');
    expectSame("%s and more", big.c_str());
    expectSame("%1500d|", 5);
}

TEST(LogFormatTest, ConversionsLeftToTheCLibraryGiveItsTextAndKeepTheArguments) {
    // After a conversion that only vsnprintf knows, the later ones still
    // read the right arguments.
    expectSame("%d %f %s", 1, 2.5, "three");
    expectSame("%s %e %g %a %d", "x", 1e300, -0.0, 0.5, 9);
    expectSame("%5.1Lf %d", 2.25L, 4);
    expectSame("%ls %d", L"wide", 5);
    expectSame("%lc %d", static_cast<wint_t>(L'w'), 6);
    expectSame("%2$s %1$s", "first", "second");
    expectSame("%'d %d", 1234567, 8);
    expectSame("%d %*1$d", 4, 9);
    expectSame("%10s %d", static_cast<const char*>(nullptr), 3);
    expectSame("%q %d", 3);
    expectSame("trailing %");
    int written = 0;
    char out[64];
    int n = [&](const char* f, ...) {
        va_list args;
        va_start(args, f);
        int r = devio::xlog::formatMessage(out, sizeof out, f, args);
        va_end(args);
        return r;
    }("abc%n%d", &written, 12);
    EXPECT_EQ(n, 5);
    EXPECT_EQ(written, 3);
    EXPECT_STREQ(out, "abc12");
}

TEST(LogFormatTest, RandomValuesAndDirectivesMatchTheCLibrary) {
    std::mt19937_64 random(20240601);
    const char* flags = "-+ #0";
    const char conversions[] = {'d', 'i', 'u', 'x', 'X', 'o', 's', 'c', 'p'};
    for (int round = 0; round < 20000; ++round) {
        std::string directive = "<%";
        for (int i = 0; i < 5; ++i)
            if (random() % 3 == 0) directive += flags[random() % 5];
        if (random() % 2) directive += std::to_string(random() % 40);
        if (random() % 2) directive += "." + std::to_string(random() % 30);
        char conversion = conversions[random() % sizeof conversions];
        uint64_t bits = random();
        if (conversion == 's') {
            std::string text(random() % 50, static_cast<char>('a' + random() % 26));
            expectSame((directive + "s>").c_str(), text.c_str());
        } else if (conversion == 'c' || conversion == 'p') {
            std::string f = directive + conversion + ">";
            if (conversion == 'c')
                expectSame(f.c_str(), static_cast<int>(bits & 0xff));
            else
                expectSame(f.c_str(), reinterpret_cast<void*>(bits));
        } else {
            // Values of every magnitude, not only huge ones.
            uint64_t value = bits >> (random() % 64);
            expectSame((directive + "ll" + conversion + ">").c_str(), value);
            expectSame((directive + conversion + ">").c_str(), static_cast<int>(value));
        }
        if (HasFailure()) break;
    }
}

// Messages as the library writes them, runs of text between the common
// conversions, with the format and the strings ending where the readable
// memory ends, cut at every size.
TEST(LogFormatTest, TextRunsAndCommonConversionsMatchTheCLibraryAtEveryCutAndPageEnd) {
    std::mt19937_64 random(20241123);
    PageEnd formatPage, firstPage, secondPage;
    const char* numbers[] = {"%d", "%i", "%5d", "%-3d", "%+d"};
    const char* hex[] = {"%x", "%u", "%02x", "%08X", "%#x"};
    const char* texts[] = {"%s", "%.3s", "%-6s", "%s"};
    auto run = [&] {
        std::string text(random() % 40, ' ');
        for (char& c : text) c = static_cast<char>(' ' + 1 + random() % 94);
        std::replace(text.begin(), text.end(), '%', '=');
        return text;
    };
    for (int round = 0; round < 400; ++round) {
        std::string format = run() + texts[random() % 4] + run() + numbers[random() % 5] + run() +
                             hex[random() % 5] + run() + texts[random() % 4] + run();
        int number = static_cast<int>(random() >> (random() % 64));
        unsigned bits = static_cast<unsigned>(random() >> (random() % 64));
        expectSameAtEverySize(formatPage.place(format), firstPage.place(run()), number, bits,
                              secondPage.place(run() + run()));
        if (HasFailure()) break;
    }
}

}  // namespace
