// The rule table and the dispatcher: rules by one- or two-character name in a
// two-level table indexed by character, the decoding of a control line's
// arguments by the rule's units, and the hand-back of lines no rule takes.
#include "requests/rb.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "driver/driver.h"

namespace {

// Rule names use the codes 32 to 127; entry c - 32 belongs to character c.
constexpr int kRuleFirst = 32;
constexpr int kRuleChars = 96;

struct TopRule {
    Rule rule;                           // the one-character name
    std::unique_ptr<Rule[]> secondLevel; // two-character names, made on demand
};

struct RbState {
    TopRule rules[kRuleChars];
};
RbState s;

// Arguments by position: entries 1 to 9 are TVArg1 to TVArg9.
ArgValue* const argv[10] = {nullptr,    &tv.TVArg1, &tv.TVArg2, &tv.TVArg3, &tv.TVArg4,
                            &tv.TVArg5, &tv.TVArg6, &tv.TVArg7, &tv.TVArg8, &tv.TVArg9};

bool isRuleChar(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return u >= kRuleFirst && u <= 127;
}

void warnUnprintable() {
    TVWarningPre();
    std::fputs("Can't define a rule for an unprintable character.\n", stderr);
}

void ruleNew(const char* name, Handler handler, const char* units, bool isSemiNumerical) {
    if (!name) name = "";
    char first = name[0];
    char second = first != 0 ? name[1] : 0;
    bool isValid = true;
    if (!isRuleChar(first)) {
        warnUnprintable();
        isValid = false;
    }
    Rule* slot = nullptr;
    if (second != 0) {
        if (isValid) {
            TopRule& top = s.rules[static_cast<unsigned char>(first) - kRuleFirst];
            if (!top.secondLevel) {
                top.secondLevel.reset(new (std::nothrow) Rule[kRuleChars]());
                if (!top.secondLevel) TVFatalVM();
            }
            if (isRuleChar(second)) slot = &top.secondLevel[static_cast<unsigned char>(second) - kRuleFirst];
        }
        if (!isRuleChar(second)) {
            warnUnprintable();
            isValid = false;
        }
    } else if (isValid) {
        slot = &s.rules[static_cast<unsigned char>(first) - kRuleFirst].rule;
    }
    if (!isValid || !slot) return;
    // The unit string is the caller's own constant; it is not copied.
    *slot = Rule{handler, units ? units : "", isSemiNumerical};
}

const Rule* ruleFind(const char* name) {
    char first = name[0];
    if (!isRuleChar(first)) return nullptr;
    const TopRule& top = s.rules[static_cast<unsigned char>(first) - kRuleFirst];
    const Rule* rule;
    if (name[1] == 0) {
        rule = &top.rule;
    } else {
        if (!isRuleChar(name[1]) || !top.secondLevel) return nullptr;
        rule = &top.secondLevel[static_cast<unsigned char>(name[1]) - kRuleFirst];
    }
    return rule->handler ? rule : nullptr;
}

bool takesAnyText(char defaultUnit) { return defaultUnit == '\0' || defaultUnit == ' '; }

// Values out of the float range keep their sign at the largest float.
float toFloat(double d) {
    constexpr double kMax = std::numeric_limits<float>::max();
    if (d > kMax) return std::numeric_limits<float>::max();
    if (d < -kMax) return -std::numeric_limits<float>::max();
    return static_cast<float>(d);
}

bool argsSet(const char* units, bool isSemiNumerical) {
#pragma GCC unroll 9
    for (int k = 1; k <= 9; k++) {
        char unit = *units;
        if (unit != '\0') units++;
        const Rope* rope = tv.TVArgs[k].get();
        if (!rope || rope->length == 0) {
            // Most arguments are absent: argSet's first case, without the call.
            argv[k]->text = "";
            argv[k]->isNumber = false;
            continue;
        }
        if (!argSet(*argv[k], rope, unit, isSemiNumerical)) return false;
    }
    return true;
}

// The number at the front of `text`, as atof reads it. Most are a few digits
// with perhaps a point, decoded here: a whole number of at most 15 digits is
// exact in a double, and so is a power of ten up to 10^15, so their quotient,
// rounded once, is the nearest double to the written value, which is what
// atof gives. The rest (an exponent, a hexadecimal number, long numbers)
// goes to atof.
double numberAt(const char* text) {
    constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6, 1e7,
                                       1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    constexpr int kMostDigits = 15;
    const char* p = text;
    bool isNegative = *p == '-';
    if (*p == '+' || *p == '-') p++;
    uint64_t whole = 0;
    int digits = 0;
    int fraction = -1;  // digits after the point; -1 before it
    for (;; p++) {
        if (*p >= '0' && *p <= '9') {
            whole = whole * 10 + static_cast<uint64_t>(*p - '0');
            digits++;
            if (fraction >= 0) fraction++;
        } else if (*p == '.' && fraction < 0) {
            fraction = 0;
        } else {
            break;
        }
    }
    const char stop = *p;
    if (digits == 0 || digits > kMostDigits || stop == 'e' || stop == 'E' || stop == 'x' || stop == 'X')
        return std::atof(text);
    double number = static_cast<double>(whole);
    if (fraction > 0) number /= kPowersOfTen[fraction];
    return isNegative ? -number : number;
}

// Hands the control line back to the input as visible text, set off by
// breaks: "\&" keeps its control character from starting a request again.
void handBack(char lastOut) {
    Rope* text = tv.TVReturn.text.get();
    if (lastOut != kHardReturn) RopeAppend(text, kHardReturn);
    RopeCatString(text, "\\&");
    RopeAppend(text, tv.TVIsNoBreak ? tv.TVNoBreakControlChar : tv.TVControlChar);
    RopeCat(text, tv.TVArgs[0].get());
    int last = 0;
    for (int k = 1; k <= 9; k++) {
        if (tv.TVArgs[k]->length != 0) last = k;
    }
    for (int k = 1; k <= last; k++) {
        RopeAppend(text, ' ');
        RopeAppend(text, '"');
        RopeCat(text, tv.TVArgs[k].get());
        RopeAppend(text, '"');
    }
    RopeAppend(text, kHardReturn);
}

}  // namespace

void TVDefineRule(const char* name, Handler handler) { ruleNew(name, handler, "", false); }

bool TVHasRule(const char* name) { return name && ruleFind(name) != nullptr; }

const char* TVRuleUnits(const char* name) {
    const Rule* rule = name ? ruleFind(name) : nullptr;
    return rule ? rule->units : nullptr;
}

void TVDefineNumericalRule(const char* name, Handler handler, const char* units) {
    ruleNew(name, handler, units, false);
}

void TVDefineSemiNumericalRule(const char* name, Handler handler, const char* units) {
    ruleNew(name, handler, units, true);
}

bool argSet(ArgValue& value, const Rope* rope, char defaultUnit, bool isSemiNumerical) {
    if (!rope || rope->length == 0) {
        // An absent argument keeps the rest of what the record held.
        value.text = "";
        value.isNumber = false;
        return true;
    }
    const char* text = RopeText(rope);
    uint32_t length = rope->length;
    value.text = text;

    uint32_t digits = 0;
    if (text[0] == '+' || text[0] == '-') {
        value.isRelative = true;
        digits = 1;
    } else {
        value.isRelative = false;
    }
    // The unit is the last character, or the one before a tab-stop type.
    int64_t unitAt = int64_t{length} - 1;
    if (text[unitAt] == 'R' || text[unitAt] == 'C') unitAt--;

    bool isWellFormed = unitAt >= int64_t{digits};
    for (int64_t i = digits; isWellFormed && i < unitAt; i++) {
        if (!(text[i] >= '0' && text[i] <= '9') && text[i] != '.') isWellFormed = false;
    }
    if (!isWellFormed) {
        value.isNumber = false;
        value.isRelative = false;
        return isSemiNumerical || takesAnyText(defaultUnit);
    }

    value.isNumber = true;
    value.value = toFloat(numberAt(text));
    char unit = text[unitAt];
    if ((unit >= '0' && unit <= '9') || unit == '.') unit = defaultUnit;
    value.isVUnit = false;

    double number = value.value;
    switch (unit) {
        case 'i': break;
        case 'c': number /= 2.54; break;
        case 'P': number /= 6; break;
        case 'p': number /= 72; break;
        case 'u': number /= 300; break;
        case 'm': number *= tv.TVSize / 72.0 * 0.6; break;
        case 'n': number *= tv.TVSize / 72.0 * 0.6 / 2; break;
        case 'v': value.isVUnit = true; break;
        default:
            // Not a unit: the number read stays, but it is no number here.
            value.isNumber = false;
            value.isRelative = false;
            return isSemiNumerical || takesAnyText(defaultUnit);
    }
    value.value = toFloat(number);
    return true;
}

void TVFire(char lastOut) {
    const Rope* name = tv.TVArgs[0].get();
    if (!name || name->length == 0) return;  // a control line without a name is dropped
    tv.TVCommand = RopeText(name);
    const char* endCommand = tv.TVReturn.endCommand;
    // Inside a copy region only the request that ends it is carried out.
    if (!endCommand || std::strcmp(tv.TVCommand, endCommand) == 0) {
        const Rule* rule = ruleFind(tv.TVCommand);
        if (rule && argsSet(rule->units, rule->isSemiNumerical)) {
            rule->handler();
            return;
        }
        if (rule && driver.isFull) {
            // The full mode never shows a request as text: a line whose
            // arguments the rule refuses is dropped.
            TVWarningPre();
            std::fprintf(stderr, "Arguments of %s not understood; line dropped.\n", tv.TVCommand);
            return;
        }
    }
    handBack(lastOut);
}

void returnArgs(int first) {
    Rope* text = tv.TVReturn.text.get();
    if (first < 1) first = 1;
    for (int k = first; k <= 9; k++) {
        if (argv[k]->text && argv[k]->text[0] != '\0') {
            RopeCatString(text, argv[k]->text);
            RopeAppend(text, ' ');
        }
    }
    if (text->length != 0) {
        RopeDeleteLast(text);
        RopeAppend(text, kNewline);
    }
}

void rbReset() { s = RbState{}; }
