// Traps, markers and string registers: routines handlers ask to run after some
// text lines or at word boundaries, index markers waiting for the next text
// character, and the named strings of ds and the macro packages.
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "driver/driver.h"
#include "interp/interp.h"
#include "writer/vifout.h"

namespace {

struct Trap {
    uint32_t lineCount = 0;  // text lines still to end; 0: no line trap pending
    void (*lineTrap)() = nullptr;
    void (*wordTrap)() = nullptr;
    bool isWordArmed = false;
    bool suppressSpace = false;
    Trap* next = nullptr;
};

struct PendingMarker {
    Marker marker;     // mask 0: the node is free
    std::string text;  // the node's own copy of MText
    PendingMarker* next = nullptr;
};

// String register names are two bytes; a one-character name has 0 as second.
uint16_t nameKey(const char* name) {
    unsigned char first = static_cast<unsigned char>(name[0]);
    unsigned char second = first != 0 ? static_cast<unsigned char>(name[1]) : 0;
    return static_cast<uint16_t>(first * 256u + second);
}

struct RegistersState {
    // Records are owned by the stores and linked newest first; none is freed
    // before the run ends (spent ones are reused).
    std::vector<std::unique_ptr<Trap>> trapStore;
    Trap* traps = nullptr;

    std::vector<std::unique_ptr<PendingMarker>> markerStore;
    PendingMarker* markers = nullptr;
    // A node is free when its marker's mask is empty; the me package queues
    // such markers too (xx before any (x), and they take a node like any
    // other. New nodes go to the head only when none is free, free nodes are
    // taken in list order, and writing frees every node. So the free nodes
    // are either the run that ends the list, or one free head in front of
    // pending nodes only (an empty marker queued when none was free): in both
    // shapes the free node after the first one, if any, is its successor, and
    // the first free node is remembered instead of searched for.
    PendingMarker* firstFree = nullptr;
    uint32_t pendingMarkers = 0;  // so that writing stops at the last one

    // By name. Each name has one register (a definition replaces the value in
    // place), so a lookup by name finds what a walk from the newest would.
    std::unordered_map<uint16_t, std::string> strings;
};
RegistersState s;

// How many records have an armed word trap or a pending line count, so
// that a text character with no trap in force costs one test.
void countTraps() {
    trapCounts.armedWordTraps = 0;
    trapCounts.pendingLineTraps = 0;
    for (const Trap* t = s.traps; t; t = t->next) {
        if (t->isWordArmed && t->wordTrap) trapCounts.armedWordTraps++;
        if (t->lineCount != 0) trapCounts.pendingLineTraps++;
    }
}

void noteMarkerHead() { trapCounts.isMarkerHeadPending = s.markers && s.markers->marker.mask != 0; }

}  // namespace

TrapCounts trapCounts;

void trapNew() {
    const TVReturnRecord& r = tv.TVReturn;
    Trap* trap = nullptr;
    for (Trap* t = s.traps; t; t = t->next) {
        bool isIdle = !t->isWordArmed && t->lineCount == 0;
        if (isIdle || (r.lineTrap && t->lineTrap == r.lineTrap) ||
            (r.wordTrap && t->wordTrap == r.wordTrap)) {
            trap = t;
            break;
        }
    }
    if (!trap) {
        s.trapStore.push_back(std::make_unique<Trap>());
        trap = s.trapStore.back().get();
        trap->next = s.traps;
        s.traps = trap;
    }
    trap->lineCount = r.lineCount;
    trap->suppressSpace = r.suppressSpace;
    trap->wordTrap = r.wordTrap;
    trap->isWordArmed = r.wordTrap != nullptr;
    trap->lineTrap = r.lineTrap;
    countTraps();
}

bool fireArmedWordTraps(bool isNewline) {
    bool isSwallowed = false;
    // Records a trap routine adds go to the head, behind this walk.
    for (Trap* t = s.traps; t; t = t->next) {
        if (!t->isWordArmed || !t->wordTrap) continue;
        TVReturnReset();
        TVArgsEmpty();
        t->wordTrap();
        fire();
        if (isNewline) {
            t->isWordArmed = false;
        } else if (t->suppressSpace) {
            isSwallowed = true;
        }
    }
    countTraps();
    return isSwallowed;
}

void firePendingLineTraps() {
    for (Trap* t = s.traps; t; t = t->next) {
        if (t->lineCount == 0) continue;
        if (t->lineCount == 1 && t->lineTrap) {
            TVReturnReset();
            TVArgsEmpty();
            t->lineTrap();
            fire();
        }
        // A routine that asked for its own trap again sees its new count
        // lowered by one; one that cleared the count keeps 0 (never wraps).
        if (t->lineCount != 0) t->lineCount--;
    }
    countTraps();
}

void TVMarkerOut(const Marker& marker) {
    PendingMarker* node = s.firstFree;
    if (!node) {
        s.markerStore.push_back(std::make_unique<PendingMarker>());
        node = s.markerStore.back().get();
        node->next = s.markers;
        s.markers = node;
    }
    node->marker = marker;
    node->marker.MText = nullptr;
    if ((marker.mask & bit(MarkerBit::MText)) && marker.MText) {
        // Without memory for the copy the marker still goes out, without text.
        try {
            node->text.assign(marker.MText);
            node->marker.MText = node->text.c_str();
        } catch (const std::bad_alloc&) {
            node->marker.mask &= ~bit(MarkerBit::MText);
        }
    }
    if (node->marker.mask == 0) {
        s.firstFree = node;  // an empty marker leaves its node free
        noteMarkerHead();
        return;
    }
    s.pendingMarkers++;
    PendingMarker* next = node->next;
    s.firstFree = (next && next->marker.mask == 0) ? next : nullptr;
    noteMarkerHead();
}

// In list order, passing over free nodes: a free head does not hide the
// pending nodes behind it.
void markersNew() {
    for (PendingMarker* node = s.markers; node && s.pendingMarkers != 0; node = node->next) {
        if (node->marker.mask == 0) continue;
        if (!VifMarkerOut(node->marker, driver.bodyStream)) fatalStdio();
        std::string().swap(node->text);
        node->marker = Marker{};
        s.pendingMarkers--;
    }
    s.firstFree = s.markers;
    noteMarkerHead();
}

std::string ParseDefineString(const char* definition) {
    std::string value;
    if (!definition) return value;
    const char* p = definition;
    while (*p) {
        // A reference is always written with a backslash, whatever the escape
        // character is.
        if (p[0] != '\\' || p[1] != '*') {
            value += *p++;
            continue;
        }
        const char* q = p + 2;
        if (*q == ' ') {  // not a reference: copied as it stands
            value += "\\*";
            p = q;
            continue;
        }
        // A definition that ends inside a reference loses the unfinished
        // reference; nothing past its end is read.
        char name[3] = {0, 0, 0};
        if (*q == '\0') break;
        if (*q == '(') {
            if (q[1] == '\0' || q[2] == '\0') break;
            name[0] = q[1];
            name[1] = q[2];
            p = q + 3;
        } else {
            name[0] = *q;
            p = q + 1;
        }
        if (const char* found = TVStringGet(name)) value += found;
    }
    return value;
}

void TVDefineString(const char* name, const char* definition) {
    if (!name) return;
    // The new value is made while the old one is in place, so that a
    // reference to the register itself expands to its old value.
    std::string value = ParseDefineString(definition);
    s.strings[nameKey(name)] = std::move(value);
}

const char* TVStringGet(const char* name) {
    if (!name) return nullptr;
    auto found = s.strings.find(nameKey(name));
    return found != s.strings.end() ? found->second.c_str() : nullptr;
}

void registersReset() {
    s = RegistersState{};
    trapCounts = TrapCounts{};
}
