// The roff layer's names: strings and macros in one table, number registers
// with their formats and the predefined read-only registers, and the
// interpolation of \*, \n, \$, \w, \B and \A in a line.
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "driver/driver.h"
#include "interp/interp.h"
#include "roff/roff.h"
#include "roff/roffstate.h"

RoffState roff;

namespace {

// Basic units to the inch, as the argument decoding of the requests has them.
constexpr int64_t kUnitsPerInch = 300;

std::string toRoman(int64_t n, bool isUpper) {
    if (n <= 0 || n >= 40000) return std::to_string(n);
    static const struct { int value; const char* lower; const char* upper; } kRoman[] = {
        {1000, "m", "M"}, {900, "cm", "CM"}, {500, "d", "D"}, {400, "cd", "CD"},
        {100, "c", "C"},  {90, "xc", "XC"},  {50, "l", "L"},  {40, "xl", "XL"},
        {10, "x", "X"},   {9, "ix", "IX"},   {5, "v", "V"},   {4, "iv", "IV"},
        {1, "i", "I"},
    };
    std::string text;
    for (const auto& row : kRoman) {
        while (n >= row.value) {
            text += isUpper ? row.upper : row.lower;
            n -= row.value;
        }
    }
    return text;
}

// 1 is a, 26 z, 27 aa: a numbering without a zero digit.
std::string toAlphabetic(int64_t n, bool isUpper) {
    if (n <= 0) return std::to_string(n);
    std::string text;
    while (n > 0) {
        n--;
        text.insert(text.begin(), static_cast<char>((isUpper ? 'A' : 'a') + n % 26));
        n /= 26;
    }
    return text;
}

std::string formatted(const Register& r) {
    const std::string& f = r.format;
    if (f == "i" || f == "I") return toRoman(r.value, f == "I");
    if (f == "a" || f == "A") return toAlphabetic(r.value, f == "A");
    std::string digits = std::to_string(r.value < 0 ? -r.value : r.value);
    if (digits.size() < f.size()) digits.insert(0, f.size() - digits.size(), '0');
    return r.value < 0 ? "-" + digits : digits;
}

// The date registers: from SOURCE_DATE_EPOCH when set, so that a build can
// be reproduced, else today.
std::tm documentDate() {
    std::time_t when = std::time(nullptr);
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
        char* end = nullptr;
        long long value = std::strtoll(epoch, &end, 10);
        if (end != epoch && *end == '\0') when = static_cast<std::time_t>(value);
    }
    std::tm date{};
    gmtime_r(&when, &date);
    return date;
}

// The predefined registers real documents test, with values that fit a
// converter: groff's escapes are understood (.g), and the device is a
// low-resolution one, as the answer to the "n" condition says.
bool readOnlyRegister(std::string_view name, int64_t& value) {
    // Their names begin with a period, but for the date's four.
    if (name.size() != 2 && (name.empty() || name[0] != '.')) return false;
    if (name == ".g" || name == ".x") { value = 1; return true; }
    if (name == ".y") { value = 23; return true; }
    if (name == ".$" || name == ".Y" || name == ".A" || name == ".C" || name == ".T") {
        value = 0;
        return true;
    }
    if (name == ".H") { value = 24; return true; }
    if (name == ".V") { value = 40; return true; }
    if (name == ".l") { value = kUnitsPerInch * 13 / 2; return true; }
    if (name == ".p") { value = kUnitsPerInch * 11; return true; }
    if (name == ".o") { value = kUnitsPerInch; return true; }
    if (name == ".i") {
        value = static_cast<int64_t>(tv.TVPgf.PgfLIndent.value * kUnitsPerInch);
        return true;
    }
    if (name == ".u") { value = tv.TVIsFilling ? 1 : 0; return true; }
    if (name == ".j") { value = 1; return true; }
    if (name == ".s" || name == ".ps") { value = tv.TVSize; return true; }
    if (name == ".v") { value = int64_t{tv.TVVerticalSpacing} * kUnitsPerInch / 72; return true; }
    if (name == ".L") { value = tv.TVLineSpacing; return true; }
    if (name == ".f") {
        value = 1;
        for (int i = 0; i < kFontPositions; i++) {
            const FontPosition& p = tv.TVFontTable[i];
            if (!p.family || !(tv.TVFamilyStyle.mask & bit(FontBit::FFamily))) continue;
            bool isBold = tv.TVFamilyStyle.FBold == kYes, isItalic = tv.TVFamilyStyle.FItalic == kYes;
            char style = isBold && isItalic ? 'M' : isBold ? 'B' : isItalic ? 'I' : 'R';
            if (p.style == style) { value = i + 1; break; }
        }
        return true;
    }
    if (name == ".c") {
        // The line being read: a line whose end was just read (a control
        // line, whose arguments are read whole) is still the current one.
        value = driver.stdIn.line - (driver.stdIn.lastChar == '\n' ? 1 : 0);
        return true;
    }
    if (name == ".t") { value = kUnitsPerInch * 10; return true; }
    if (name == "yr" || name == "mo" || name == "dy" || name == "dw") {
        std::tm date = documentDate();
        value = name == "yr" ? date.tm_year : name == "mo" ? date.tm_mon + 1
              : name == "dy" ? date.tm_mday : date.tm_wday + 1;
        return true;
    }
    if (!name.empty() && name[0] == '.') { value = 0; return true; }
    return false;
}

// Appends a register's text as roffRegisterText gives it; the commonest
// format, plain digits, without a string of its own.
void appendRegisterText(std::string_view name, int step, std::string& out) {
    auto found = roff.registers.find(name);
    int64_t value = 0;
    if (found != roff.registers.end()) {
        Register& r = found->second;
        r.value += step * r.step;
        if (r.format != "1") {
            out += formatted(r);
            return;
        }
        value = r.value;
    } else {
        readOnlyRegister(name, value);
    }
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// Appends, for \nx, \n(xx, \n[name], \n+x and \n-x at `p` (after the n),
// the register's text; an unknown register is 0.
void interpolateRegister(const char*& p, const char* end, std::string& out) {
    int step = 0;
    if (p < end && (*p == '+' || *p == '-')) {
        step = *p == '+' ? 1 : -1;
        p++;
    }
    std::string_view name;
    std::string resolved;  // used by a name that holds escapes alone
    if (!roffReadNameView(p, end, name, resolved)) return;
    appendRegisterText(name, step, out);
}

}  // namespace

void roffWarn(const std::string& message) {
    TVWarningPre();
    std::fputs(message.c_str(), stderr);
    std::fputc('\n', stderr);
}

void roffWarnOnce(const std::string& key, const std::string& message) {
    if (roff.warned.insert(key).second) roffWarn(message);
}

const std::string* roffStringFind(std::string_view name) {
    auto found = roff.strings.find(name);
    if (found != roff.strings.end()) return &found->second;
    return nullptr;
}

std::string& roffStringSlot(std::string_view name) {
    roff.stringNames.set(nameFilterKey(name));
    auto found = roff.strings.find(name);
    if (found != roff.strings.end()) return found->second;
    return roff.strings[std::string(name)];
}


std::string roffRegisterText(std::string_view name, int step) {
    std::string text;
    appendRegisterText(name, step, text);
    return text;
}

std::string roffRegisterFormat(std::string_view name) {
    auto found = roff.registers.find(name);
    if (found == roff.registers.end()) return "";
    std::string format = found->second.format;
    for (char& c : format) {
        if (c >= '0' && c <= '9') c = '0';
    }
    return format;
}

bool roffRegisterValue(std::string_view name, int64_t& value) {
    auto found = roff.registers.find(name);
    if (found != roff.registers.end()) {
        value = found->second.value;
        return true;
    }
    value = 0;
    return readOnlyRegister(name, value);
}

void roffSetRegister(std::string_view name, int64_t value) {
    roff.registers[std::string(name)].value = value;
}

void roffResolveName(std::string& name) {
    const char escape = tv.TVEscapeChar != 0 ? tv.TVEscapeChar : '\\';
    if (name.find(escape) == std::string::npos) return;
    std::string inner;
    roffInterpolate(name, inner, false, kMaxInterpolationDepth - 1);
    name = std::move(inner);
}

bool roffReadNameView(const char*& p, const char* end, std::string_view& name, std::string& resolved,
                      std::string* rest) {
    name = {};
    if (p >= end) return false;
    char c = *p++;
    if (c == '(') {
        if (end - p < 2) {
            p = end;
            return false;
        }
        name = std::string_view(p, 2);
        p += 2;
        return true;
    }
    if (c != '[') {
        name = std::string_view(p - 1, 1);
        return true;
    }
    const char* start = p;
    // A name may hold escapes of its own (\n[a\n[b]]): brackets nest, and
    // the name is what they interpolate to.
    // The bytes that may end the name or change its depth, without and with
    // arguments after the name: the others are passed over in one loop.
    static constexpr auto kStops = [] {
        std::array<std::array<bool, 256>, 2> stops{};
        for (auto& table : stops) table[']'] = table['['] = table['\\'] = true;
        stops[1][' '] = stops[1]['\t'] = true;
        return stops;
    }();
    const bool* stops = kStops[rest != nullptr].data();
    int depth = 0;
    bool hasEscape = false;
    for (; p < end; p++) {
        while (p < end && !stops[static_cast<unsigned char>(*p)]) p++;
        if (p == end) break;
        const char c = *p;
        if (c == ']') {
            if (depth == 0) break;
            depth--;
        } else if (c == '[') {
            depth++;
        } else if (c == '\\') {
            hasEscape = true;
        } else if (depth == 0) {
            break;  // a blank: the arguments follow
        }
    }
    name = std::string_view(start, static_cast<size_t>(p - start));
    if (hasEscape) {
        // Resolved straight from the text, as roffResolveName would.
        const char escape = tv.TVEscapeChar != 0 ? tv.TVEscapeChar : '\\';
        if (name.find(escape) != std::string_view::npos) {
            resolved.clear();
            roffInterpolate(name, resolved, false, kMaxInterpolationDepth - 1);
            name = resolved;
        }
    }
    if (rest && p < end && *p != ']') {
        // Arguments of a string call: up to the closing bracket, escapes
        // and nested brackets included.
        const char* argStart = ++p;
        int depth = 0;
        while (p < end && (*p != ']' || depth > 0)) {
            if (*p == '\\' && p + 1 < end) {
                p += 2;
                continue;
            }
            if (*p == '[') depth++;
            if (*p == ']') depth--;
            p++;
        }
        rest->assign(argStart, static_cast<size_t>(p - argStart));
    }
    if (p >= end) return false;
    p++;  // the closing bracket
    return true;
}

bool roffReadName(const char*& p, const char* end, std::string& name, std::string* rest) {
    std::string_view view;
    name.clear();
    bool isRead = roffReadNameView(p, end, view, name, rest);
    if (name.empty()) name.assign(view);  // a resolved name is there already
    return isRead;
}

bool roffReadDelimited(const char*& p, const char* end, std::string& content) {
    content.clear();
    if (p >= end) return false;
    char delimiter = *p++;
    const char* start = p;
    while (p < end && *p != delimiter) {
        if (*p != '\\' || p + 1 >= end) {
            p++;
            continue;
        }
        char letter = p[1];
        p += 2;
        switch (letter) {
            // Escapes with a delimited argument of their own.
            case 'w': case 'h': case 'v': case 'l': case 'L': case 'o': case 'D': case 'X':
            case 'Z': case 'b': case 'x': case 'H': case 'S': case 'N': case 'C': case 'B':
            case 'A': case 'R': {
                std::string inner;
                if (p < end && *p != delimiter) roffReadDelimited(p, end, inner);
                break;
            }
            case '(':
                p += end - p < 2 ? end - p : 2;
                break;
            case '[':
                while (p < end && *p != ']') p++;
                if (p < end) p++;
                break;
            default:
                break;
        }
    }
    content.assign(start, static_cast<size_t>(p - start));
    if (p >= end) return false;
    p++;
    return true;
}

int64_t roffWidth(std::string_view text) {
    int64_t count = 0;
    const char* p = text.data();
    const char* end = p + text.size();
    while (p < end) {
        if (*p != '\\') {
            count++;
            p++;
            continue;
        }
        if (++p >= end) break;
        char letter = *p++;
        std::string name;
        switch (letter) {
            case '(': case '[':
                p--;
                roffReadName(p, end, name);
                count++;
                break;
            case 'f': case 's': case 'k': case 'm': case 'M': case 'F':
                roffReadName(p, end, name);
                break;
            case '&': case '%': case '|': case '^': case ':': case '/': case ',': case ')':
                break;
            default:
                count++;
                break;
        }
    }
    // 0.6 em a character at the current size, in basic units.
    return count * tv.TVSize * 5 / 2;
}

void roffInterpolate(std::string_view in, std::string& out, bool isCopyMode, int depth) {
    const char* p = in.data();
    const char* end = p + in.size();
    const char escape = tv.TVEscapeChar != 0 ? tv.TVEscapeChar : '\\';
    std::string name, args;  // kept from escape to escape, for their room
    while (p < end) {
        if (out.size() > kMaxLineLength) {
            roffWarnOnce("line-length", "Expansion too long; rest dropped.");
            return;
        }
        const char* next = static_cast<const char*>(std::memchr(p, escape, static_cast<size_t>(end - p)));
        if (!next) {
            out.append(p, static_cast<size_t>(end - p));
            return;
        }
        out.append(p, static_cast<size_t>(next - p));
        p = next + 1;
        if (p >= end) {
            out += escape;
            return;
        }
        char letter = *p++;
        name.clear();
        args.clear();
        switch (letter) {
            case '*': {
                if (!roffReadName(p, end, name, &args)) break;
                const std::string* value = roffStringGet(name);
                std::string classic;
                if (!value && name.size() <= 2) {
                    if (const char* v = TVStringGet(name.c_str())) {
                        classic = v;
                        value = &classic;
                    }
                }
                if (!value) break;
                if (depth >= kMaxInterpolationDepth) {
                    roffWarnOnce("depth", "Strings nested too deep; rest dropped.");
                    break;
                }
                if (!args.empty()) {
                    std::vector<std::string> list;
                    roffSplitArgs(args, list);
                    std::string body = roffSubstituteArgs(*value, name, list.data(), list.size());
                    roffInterpolate(body, out, false, depth + 1);
                } else {
                    roffInterpolate(*value, out, false, depth + 1);
                }
                break;
            }
            case 'n':
                interpolateRegister(p, end, out);
                break;
            case '$':
                // Outside a macro there are no arguments; inside one they
                // were substituted when it was called.
                if (p < end && (*p == '*' || *p == '@' || *p == '^')) {
                    p++;
                } else {
                    roffReadName(p, end, name);
                }
                break;
            case 'w':
                if (roffReadDelimited(p, end, args)) out += std::to_string(roffWidth(args));
                break;
            case 'B': {
                if (!roffReadDelimited(p, end, args)) break;
                const char* q = args.data();
                int64_t value = 0;
                bool isValid = roffExpression(q, q + args.size(), 'u', value) && q == args.data() + args.size();
                out += isValid ? '1' : '0';
                break;
            }
            case 'A':
                if (roffReadDelimited(p, end, args)) out += '1';
                break;
            case 'E':
                out += escape;
                if (!isCopyMode) out += 'E';
                break;
            default:
                if (letter == escape && isCopyMode) {
                    out += escape;
                } else {
                    out += escape;
                    out += letter;
                }
                break;
        }
    }
}

void roffSplitArgs(std::string_view rest, std::vector<std::string>& args) {
    args.clear();
    size_t i = 0, n = rest.size();
    while (i < n) {
        while (i < n && (rest[i] == ' ' || rest[i] == '\t')) i++;
        if (i >= n) break;
        std::string arg;
        if (rest[i] == '"') {
            i++;
            while (i < n) {
                if (rest[i] == '"') {
                    if (i + 1 < n && rest[i + 1] == '"') {
                        arg += '"';
                        i += 2;
                        continue;
                    }
                    i++;
                    break;
                }
                if (rest[i] == '\\' && i + 1 < n) arg += rest[i++];
                arg += rest[i++];
            }
        } else {
            while (i < n && rest[i] != ' ' && rest[i] != '\t') {
                if (rest[i] == '\\' && i + 1 < n) arg += rest[i++];
                arg += rest[i++];
            }
        }
        args.push_back(std::move(arg));
    }
}

std::string roffSubstituteArgs(std::string_view body, std::string_view name, const std::string* args,
                               size_t count) {
    std::string out;
    out.reserve(body.size());
    const char* p = body.data();
    const char* end = p + body.size();
    while (p < end) {
        const char* next = static_cast<const char*>(std::memchr(p, '\\', static_cast<size_t>(end - p)));
        if (!next) {
            out.append(p, static_cast<size_t>(end - p));
            break;
        }
        out.append(p, static_cast<size_t>(next - p));
        p = next;
        if (p + 1 >= end) {
            out += *p++;
            break;
        }
        char letter = p[1];
        if (letter == '\\') {  // an escaped escape is left for a later reading
            out.append(p, 2);
            p += 2;
            continue;
        }
        if (letter == 'n' && p + 2 < end) {
            // The count of arguments, \n(.$ or \n[.$].
            std::string_view tail(p + 2, static_cast<size_t>(end - p - 2));
            if (tail.substr(0, 3) == "(.$" || tail.substr(0, 4) == "[.$]") {
                out += std::to_string(count);
                p += 2 + (tail[0] == '(' ? 3 : 4);
                continue;
            }
        }
        if (letter != '$') {
            out.append(p, 2);
            p += 2;
            continue;
        }
        p += 2;
        if (p >= end) break;
        char c = *p;
        if (c == '*' || c == '@') {
            p++;
            for (size_t i = 0; i < count; i++) {
                if (i) out += ' ';
                if (c == '@') out += '"';
                out += args[i];
                if (c == '@') out += '"';
            }
            continue;
        }
        if (c == '^') {
            p++;
            for (size_t i = 0; i < count; i++) {
                if (i) out += ' ';
                out += '"' + args[i] + '"';
            }
            continue;
        }
        // A name of one digit, the commonest, or the digits a register
        // gives: \$\n(.$ is the last argument. The name is the first digit;
        // any others follow it as text.
        auto appendArgument = [&](char digit) {
            const auto index = static_cast<size_t>(digit - '0');
            if (index == 0) {
                out += name;
            } else if (index <= count) {
                out += args[index - 1];
            }
        };
        if (c >= '0' && c <= '9') {
            p++;
            appendArgument(c);
            continue;
        }
        if (c == '\\' && p + 2 < end && p[1] == 'n' && p[2] != '+' && p[2] != '-') {
            const char* q = p + 2;
            std::string_view registerName;
            std::string resolved;
            if (!roffReadNameView(q, end, registerName, resolved)) break;
            p = q;
            std::string digits = registerName == ".$" ? std::to_string(count) : roffRegisterText(registerName, 0);
            if (digits[0] >= '0' && digits[0] <= '9') appendArgument(digits[0]);
            out.append(digits, 1);
            continue;
        }
        std::string number;
        if (!roffReadName(p, end, number)) break;
        if (number == "0") {
            out += name;
            continue;
        }
        size_t index = 0;
        bool isNumber = !number.empty();
        for (char d : number) {
            if (d < '0' || d > '9') isNumber = false;
            else index = index * 10 + static_cast<size_t>(d - '0');
            if (index > count) break;
        }
        if (isNumber && index >= 1 && index <= count) out += args[index - 1];
    }
    return out;
}
