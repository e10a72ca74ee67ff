// Numeric expressions and conditions: troff's arithmetic, read left to right
// with no precedence, over numbers with scaling units; and the conditions of
// if, ie and while.
#include <cstdint>
#include <limits>
#include <string>

#include "interp/interp.h"
#include "roff/roff.h"
#include "roff/roffstate.h"

namespace {

// Parentheses nest at most this deep; a deeper expression is not one.
constexpr int kMaxParentheses = 64;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

double roffUnitFactor(char unit) {
    switch (unit) {
        case 'i': return 300;
        case 'c': return 300 / 2.54;
        case 'p': return 300.0 / 72;
        case 'P': return 50;
        case 'm': return tv.TVSize * 2.5;
        case 'n': return tv.TVSize * 1.25;
        case 'M': return tv.TVSize * 0.025;
        case 'v': return tv.TVVerticalSpacing * 300.0 / 72;
        case 'u': case 's': case 'z': return 1;
        case 'f': return 65536;
        default: return 0;
    }
}

namespace {

double unitFactor(char unit) { return roffUnitFactor(unit); }

int64_t clampToInt(double value) {
    constexpr double kMax = static_cast<double>(std::numeric_limits<int32_t>::max());
    if (value > kMax) return static_cast<int64_t>(kMax);
    if (value < -kMax) return static_cast<int64_t>(-kMax);
    return static_cast<int64_t>(value < 0 ? value - 0.5 : value + 0.5);
}

bool expression(const char*& p, const char* end, char defaultUnit, int64_t& value, int depth);

// One operand: a signed number with its unit, or a parenthesised expression.
bool term(const char*& p, const char* end, char defaultUnit, int64_t& value, int depth) {
    if (p >= end) return false;
    if (*p == '-' || *p == '+') {
        bool isNegative = *p == '-';
        const char* start = p++;
        if (!term(p, end, defaultUnit, value, depth)) {
            p = start;
            return false;
        }
        if (isNegative) value = -value;
        return true;
    }
    if (*p == '(') {
        if (depth >= kMaxParentheses) return false;
        const char* start = p++;
        if (!expression(p, end, defaultUnit, value, depth + 1) || p >= end || *p != ')') {
            p = start;
            return false;
        }
        p++;
        // A unit after the parenthesis rescales a bare number inside.
        if (p < end && unitFactor(*p) != 0) p++;
        return true;
    }
    if (*p == '|') p++;  // an absolute position is its distance
    if (p >= end || (!isDigit(*p) && *p != '.')) return false;
    double number = 0;
    bool hasDigit = false;
    while (p < end && isDigit(*p)) {
        number = number * 10 + (*p++ - '0');
        hasDigit = true;
    }
    if (p < end && *p == '.') {
        p++;
        double scale = 0.1;
        while (p < end && isDigit(*p)) {
            number += (*p++ - '0') * scale;
            scale /= 10;
            hasDigit = true;
        }
    }
    if (!hasDigit) return false;
    double factor = p < end ? unitFactor(*p) : 0;
    if (factor != 0) {
        p++;
    } else {
        factor = unitFactor(defaultUnit);
        if (factor == 0) factor = 1;
    }
    value = clampToInt(number * factor);
    return true;
}

// The operator at `p`, advanced past; 0 when there is none.
int readOperator(const char*& p, const char* end) {
    if (p >= end) return 0;
    char c = *p;
    char next = p + 1 < end ? p[1] : 0;
    auto two = [&](int code) { p += 2; return code; };
    switch (c) {
        case '+': case '-': case '*': case '/': case '%': case '&': case ':':
            p++;
            return c;
        case '<':
            if (next == '=') return two('l');
            if (next == '>') return two('!');
            if (next == '?') return two('m');
            p++;
            return '<';
        case '>':
            if (next == '=') return two('g');
            if (next == '?') return two('M');
            p++;
            return '>';
        case '=':
            if (next == '=') return two('=');
            p++;
            return '=';
        default:
            return 0;
    }
}

int64_t apply(int op, int64_t a, int64_t b) {
    switch (op) {
        case '+': return clampToInt(static_cast<double>(a) + static_cast<double>(b));
        case '-': return clampToInt(static_cast<double>(a) - static_cast<double>(b));
        case '*': return clampToInt(static_cast<double>(a) * static_cast<double>(b));
        case '/': return b == 0 ? a : a / b;  // troff refuses to divide by zero
        case '%': return b == 0 ? a : a % b;
        case '<': return a < b;
        case '>': return a > b;
        case 'l': return a <= b;
        case 'g': return a >= b;
        case '=': return a == b;
        case '!': return a != b;
        case '&': return a > 0 && b > 0;
        case ':': return a > 0 || b > 0;
        case 'm': return a < b ? a : b;
        case 'M': return a > b ? a : b;
        default: return a;
    }
}

bool expression(const char*& p, const char* end, char defaultUnit, int64_t& value, int depth) {
    if (!term(p, end, defaultUnit, value, depth)) return false;
    for (;;) {
        const char* before = p;
        int op = readOperator(p, end);
        if (op == 0) return true;
        int64_t right = 0;
        if (!term(p, end, defaultUnit, right, depth)) {
            p = before;
            return true;
        }
        value = apply(op, value, right);
    }
}

void skipBlanks(const char*& p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\t')) p++;
}

std::string readWord(const char*& p, const char* end) {
    skipBlanks(p, end);
    const char* start = p;
    while (p < end && *p != ' ' && *p != '\t') p++;
    return std::string(start, static_cast<size_t>(p - start));
}

// "c X": a character the converter can write.
bool characterCondition(const char*& p, const char* end) {
    skipBlanks(p, end);
    if (p >= end) return false;
    if (*p != '\\') {
        p++;
        return true;
    }
    p++;
    if (p >= end) return false;
    char letter = *p++;
    std::string name;
    if (letter == '(' || letter == '[') {
        p--;
        if (!roffReadName(p, end, name)) return false;
    } else if (letter == 'C') {
        if (!roffReadDelimited(p, end, name)) return false;
    } else {
        return true;
    }
    return roffGlyphKnown(name);
}

// 'one'two': the texts between three equal delimiters are the same.
bool stringComparison(const char*& p, const char* end) {
    char delimiter = *p++;
    const char* first = p;
    while (p < end && *p != delimiter) p++;
    std::string_view a(first, static_cast<size_t>(p - first));
    if (p < end) p++;
    const char* second = p;
    while (p < end && *p != delimiter) p++;
    std::string_view b(second, static_cast<size_t>(p - second));
    if (p < end) p++;
    return a == b;
}

}  // namespace

bool roffExpression(const char*& p, const char* end, char defaultUnit, int64_t& value) {
    value = 0;
    return expression(p, end, defaultUnit, value, 0);
}

bool roffCondition(const char*& p, const char* end) {
    skipBlanks(p, end);
    bool isNegated = false;
    while (p < end && *p == '!') {
        isNegated = !isNegated;
        p++;
    }
    if (p >= end) return isNegated;
    bool result = false;
    char c = *p;
    switch (c) {
        // The converter answers as a formatter for terminals would: nroff,
        // not troff, and never vroff.
        case 'n': p++; result = true; break;
        // The first page is odd: mandoc and groff's terminal output agree.
        case 'o': p++; result = true; break;
        case 't': case 'e': case 'v': p++; result = false; break;
        case 'c': p++; result = characterCondition(p, end); break;
        case 'd': p++; result = roffIsDefined(readWord(p, end)); break;
        case 'r': {
            p++;
            int64_t value = 0;
            result = roffRegisterValue(readWord(p, end), value);
            break;
        }
        case 'm': {
            p++;
            static const char* const kColours[] = {"black", "red", "green", "blue", "yellow",
                                                   "magenta", "cyan", "white", "default"};
            std::string name = readWord(p, end);
            for (const char* colour : kColours) result = result || name == colour;
            break;
        }
        case 'F': case 'S': p++; readWord(p, end); result = true; break;
        default: {
            if (isDigit(c) || c == '(' || c == '+' || c == '-' || c == '.' || c == '|') {
                int64_t value = 0;
                result = roffExpression(p, end, 'u', value) && value > 0;
                // The rest of a malformed expression is not the body.
                while (p < end && *p != ' ' && *p != '\t') p++;
            } else {
                result = stringComparison(p, end);
            }
            break;
        }
    }
    return isNegated ? !result : result;
}
