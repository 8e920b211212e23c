// Counted strings: the length is kept, so embedded NUL bytes survive, and a terminating NUL is
// always present so the text can be handed to C string functions directly.
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cxx_util.hpp"
#include "zarn_base.h"

// Header and bytes share one malloc block, so a string is one allocation and one free.
struct safestr {
    size_t len;
    char *text;
};

extern "C" safestr_t *safestr_create_len(const char *text, size_t len) {
    if (!text) return nullptr;
    if (len > static_cast<size_t>(-1) - sizeof(safestr) - 1) return nullptr;
    void *block = std::malloc(sizeof(safestr) + len + 1);
    if (!block) return nullptr;
    auto *s = static_cast<safestr *>(block);
    s->len = len;
    s->text = static_cast<char *>(block) + sizeof(safestr);
    if (len) std::memcpy(s->text, text, len);
    s->text[len] = '\0';
    return s;
}

extern "C" safestr_t *safestr_create(const char *text) {
    if (!text) return nullptr;
    return safestr_create_len(text, std::strlen(text));
}

extern "C" const char *safestr_cstr(const safestr_t *s) {
    return s ? s->text : nullptr;
}

extern "C" size_t safestr_length(const safestr_t *s) {
    return s ? s->len : 0;
}

extern "C" void safestr_free(safestr_t *s) {
    std::free(s);
}

extern "C" safestr_t *safestr_readline(FILE *fp) {
    if (!fp) return nullptr;
    char *raw = nullptr;
    size_t cap = 0;
    ssize_t n = getline(&raw, &cap, fp);
    qx::CStr buf(raw);
    if (n < 0) return nullptr;
    return safestr_create_len(buf.get(), static_cast<size_t>(n));
}
