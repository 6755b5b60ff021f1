#include "event_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace qv {

namespace {

// Deeper lines go the general way, which has a limit of its own.
constexpr int maxDepth = 32;

// An integer of at most this many digits fits nlohmann json's signed and
// unsigned integers alike and is printed back exactly as written; longer ones
// may turn into floating point numbers there.
constexpr std::size_t maxIntegerDigits = 18;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Length of the well-formed UTF-8 sequence of two to four bytes at `p`, or 0.
// The same table as nlohmann json's lexer: no overlong forms, no surrogates,
// nothing above U+10FFFF.
std::size_t utf8Sequence(const char* p, const char* end) {
    auto in = [&](std::size_t i, unsigned lo, unsigned hi) {
        if (p + i >= end) return false;
        auto c = static_cast<unsigned char>(p[i]);
        return c >= lo && c <= hi;
    };
    auto tail = [&](std::size_t i) { return in(i, 0x80, 0xBF); };
    auto lead = static_cast<unsigned char>(*p);
    if (lead >= 0xC2 && lead <= 0xDF) return tail(1) ? 2 : 0;
    if (lead == 0xE0) return in(1, 0xA0, 0xBF) && tail(2) ? 3 : 0;
    if ((lead >= 0xE1 && lead <= 0xEC) || lead == 0xEE || lead == 0xEF) {
        return tail(1) && tail(2) ? 3 : 0;
    }
    if (lead == 0xED) return in(1, 0x80, 0x9F) && tail(2) ? 3 : 0;
    if (lead == 0xF0) return in(1, 0x90, 0xBF) && tail(2) && tail(3) ? 4 : 0;
    if (lead >= 0xF1 && lead <= 0xF3) return tail(1) && tail(2) && tail(3) ? 4 : 0;
    if (lead == 0xF4) return in(1, 0x80, 0x8F) && tail(2) && tail(3) ? 4 : 0;
    return 0;
}

bool byKey(const EventScan::Member& a, const EventScan::Member& b) {
    int c = a.key.compare(b.key);
    return c < 0 || (c == 0 && a.order < b.order);
}

// True for a member that a later one of the same key replaces; `members` is
// sorted by byKey.
bool replaced(const std::vector<EventScan::Member>& members, std::size_t i) {
    return i + 1 < members.size() && members[i + 1].key == members[i].key;
}

// A recursive descent over one line. Values are written in their final form
// into `out`, which is always scan.values: members of nested objects are
// collected after those of the enclosing ones and given back once the
// nested object's text is made.
class Scanner {
public:
    Scanner(std::string_view line, EventScan& scan)
        : p_(line.data()), end_(line.data() + line.size()), scan_(scan) {}

    bool event() {
        scan_.members.clear();
        scan_.values.clear();
        skipSpace();
        if (p_ == end_ || *p_ != '{' || !members(1)) return false;
        skipSpace();
        return p_ == end_;
    }

private:
    void skipSpace() {
        while (p_ != end_ && isSpace(*p_)) ++p_;
    }

    bool at(char c) const { return p_ != end_ && *p_ == c; }

    // A string without escapes whose bytes are printable UTF-8: its bytes
    // are already those that the general path prints.
    bool plainString(std::string_view& text) {
        const char* begin = ++p_;
        while (p_ != end_) {
            auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                text = std::string_view(begin, static_cast<std::size_t>(p_ - begin));
                ++p_;
                return true;
            }
            if (c < 0x20 || c == '\\') return false;
            if (c < 0x80) {
                ++p_;
                continue;
            }
            std::size_t n = utf8Sequence(p_, end_);
            if (n == 0) return false;
            p_ += n;
        }
        return false;
    }

    // "-0", leading zeros, fractions and exponents are declined: the first
    // is printed as "0", the second is no JSON, the others are printed in a
    // form of their own. A fraction or an exponent fails at the caller's
    // next expected character.
    bool integer(std::string& out) {
        const char* begin = p_;
        if (at('-')) ++p_;
        const char* digits = p_;
        while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
        auto count = static_cast<std::size_t>(p_ - digits);
        if (count == 0 || count > maxIntegerDigits) return false;
        if (*digits == '0' && (count > 1 || digits != begin)) return false;
        out.append(begin, p_);
        return true;
    }

    bool literal(std::string& out, std::string_view word) {
        if (static_cast<std::size_t>(end_ - p_) < word.size()) return false;
        if (std::string_view(p_, word.size()) != word) return false;
        p_ += word.size();
        out += word;
        return true;
    }

    bool value(std::string& out, int depth) {
        if (p_ == end_) return false;
        switch (*p_) {
            case '"': {
                std::string_view text;
                if (!plainString(text)) return false;
                out += '"';
                out += text;
                out += '"';
                return true;
            }
            case '{':
                return object(out, depth + 1);
            case '[':
                return array(out, depth + 1);
            case 't':
                return literal(out, "true");
            case 'f':
                return literal(out, "false");
            case 'n':
                return literal(out, "null");
            default:
                return integer(out);
        }
    }

    // The object at p_, its members appended to scan_.members and sorted
    // there by key.
    bool members(int depth) {
        if (depth > maxDepth) return false;
        std::size_t first = scan_.members.size();
        ++p_;
        skipSpace();
        if (at('}')) {
            ++p_;
            return true;
        }
        for (std::size_t order = 0;; ++order) {
            std::string_view key;
            if (!at('"') || !plainString(key)) return false;
            skipSpace();
            if (!at(':')) return false;
            ++p_;
            skipSpace();
            std::size_t start = scan_.values.size();
            if (!value(scan_.values, depth)) return false;
            scan_.members.push_back({key, start, scan_.values.size() - start, order});
            skipSpace();
            if (at('}')) {
                ++p_;
                break;
            }
            if (!at(',')) return false;
            ++p_;
            skipSpace();
        }
        std::sort(scan_.members.begin() + static_cast<std::ptrdiff_t>(first), scan_.members.end(),
                  byKey);
        return true;
    }

    bool object(std::string& out, int depth) {
        std::size_t firstMember = scan_.members.size();
        std::size_t firstValue = scan_.values.size();
        if (!members(depth)) return false;
        std::string text = "{";
        for (std::size_t i = firstMember; i < scan_.members.size(); ++i) {
            if (replaced(scan_.members, i)) continue;
            const EventScan::Member& m = scan_.members[i];
            if (text.size() > 1) text += ',';
            text += '"';
            text += m.key;
            text += "\":";
            text.append(scan_.values, m.at, m.length);
        }
        text += '}';
        scan_.members.resize(firstMember);
        scan_.values.resize(firstValue);
        out += text;
        return true;
    }

    bool array(std::string& out, int depth) {
        if (depth > maxDepth) return false;
        ++p_;
        out += '[';
        skipSpace();
        if (!at(']')) {
            for (;;) {
                if (!value(out, depth)) return false;
                skipSpace();
                if (at(']')) break;
                if (!at(',')) return false;
                ++p_;
                out += ',';
                skipSpace();
            }
        }
        ++p_;
        out += ']';
        return true;
    }

    const char* p_;
    const char* end_;
    EventScan& scan_;
};

bool plainText(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char ch) {
        auto c = static_cast<unsigned char>(ch);
        return c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
    });
}

void appendString(std::string& out, std::string_view text) {
    if (plainText(text)) {
        out += '"';
        out += text;
        out += '"';
    } else {
        // Ids from a hand-edited store may need escapes; the general
        // serialiser has the last word on them, errors included.
        out += nlohmann::json(std::string(text)).dump();
    }
}

}  // namespace

bool scanEvent(std::string_view line, EventScan& scan) {
    return Scanner(line, scan).event();
}

std::string writeStamped(const EventScan& scan, const Stamps& stamps) {
    // In byte order, as they fall among the event's own keys.
    const std::pair<std::string_view, std::string_view> stamped[] = {
        {"client", stamps.client},
        {"timestamp", stamps.timestamp},
        {"upload", stamps.upload},
        {"user", stamps.user},
    };
    constexpr std::size_t stampCount = std::size(stamped);

    std::size_t size = 2 + scan.values.size();
    for (const auto& m : scan.members) size += m.key.size() + 4;
    for (const auto& [key, value] : stamped) size += key.size() + value.size() + 6;
    std::string out;
    out.reserve(size);
    out += '{';

    std::size_t next = 0;
    auto appendKey = [&](std::string_view key) {
        if (out.size() > 1) out += ',';
        out += '"';
        out += key;
        out += "\":";
    };
    auto appendStamp = [&](std::size_t k) {
        appendKey(stamped[k].first);
        appendString(out, stamped[k].second);
    };
    const auto& members = scan.members;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (replaced(members, i)) continue;
        const EventScan::Member& m = members[i];
        while (next < stampCount && stamped[next].first < m.key) appendStamp(next++);
        // The stamp of the same name takes the member's place.
        if (next < stampCount && stamped[next].first == m.key) continue;
        appendKey(m.key);
        out.append(scan.values, m.at, m.length);
    }
    while (next < stampCount) appendStamp(next++);
    out += '}';
    return out;
}

}  // namespace qv
