// C++ side of the cache layer for modules whose lookups carry their own read-through steps.
// Those lookups report the single cache operations they make as their own: the diagnostics
// name the lookup's module, function and line, not the cache layer's.
#pragma once

#include <stddef.h>

#include <string>

#include "zarn_cache.h"

namespace qx::cache {

// Where a diagnostic is reported from.
struct Site {
    const char *src;
    const char *func;
    int line;
};

// The same operations as rget_hash_str, rset_hash_str, cache_hset and cache_hmget of the C
// interface, on an already formatted key, with their diagnostics reported from site.
int rget_hash_str(const Site &site, int persistent, const char *field, const std::string &key,
                  char **value);
int rset_hash_str(const Site &site, int persistent, const char *field, const char *value,
                  const std::string &key);
int cache_hset(const Site &site, int persistent, const char *field, size_t field_len,
               const char *value, size_t value_len, const std::string &key);
int cache_hmget(const Site &site, int persistent, size_t n, const char **fields,
                const std::string &key, char ***values, size_t *entries);

}  // namespace qx::cache

// The calling line of the calling function of module src.
#define QX_CACHE_SITE(src) (qx::cache::Site{(src), __func__, __LINE__})
