// A stream into memory whose text can be read back, for the writer's tests.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

struct MemOut {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    ~MemOut() {
        fclose(f);
        free(buf);
    }
    std::string text() {
        fflush(f);
        return std::string(buf, len);
    }
};
