// Locking hash table with binary keys, and the key arrays it hands out.
//
// Keys are listed in insertion order: callers walk the table while printing reports, and a
// stable, predictable order keeps those reports reproducible from one run to the next.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "cxx_util.hpp"
#include "zarn_base.h"

namespace {

// A value copy in its own malloc block: malloc's alignment suits any type, so callers may
// store structs holding pointers or 64-bit fields and use the copy in place.
struct Slot {
    qx::CStr data;
    size_t len = 0;
};

std::string key_of(const void *key, size_t len) {
    return key ? std::string(static_cast<const char *>(key), len) : std::string();
}

void *copy_bytes(const void *src, size_t len) {
    void *p = std::malloc(len ? len : 1);
    if (p && len) std::memcpy(p, src, len);
    return p;
}

}  // namespace

struct fr_hash {
    // Recursive: a caller holding fr_hash_lock still calls find, add and getkeys.
    std::recursive_mutex mutex;
    fr_hash_value_destroy_fn destroy = nullptr;
    std::unordered_map<std::string, Slot> slots;
    std::vector<std::string> keys;  // insertion order
};

struct fr_array {
    std::vector<std::string> items;
};

extern "C" fr_hash_t *fr_hash_init_api(int key_kind, fr_hash_value_destroy_fn destroy) {
    if (key_kind != FR_HASH_KEY_BINARY) return nullptr;
    try {
        auto h = std::make_unique<fr_hash>();
        h->destroy = destroy;
        return h.release();
    } catch (...) {
        return nullptr;
    }
}

extern "C" int fr_hash_force_add(fr_hash_t *h, const void *key, size_t key_len, const void *value,
                                 size_t value_len) {
    if (!h || (!key && key_len) || (!value && value_len)) return -1;
    try {
        std::lock_guard<std::recursive_mutex> lock(h->mutex);
        std::string k = key_of(key, key_len);
        auto it = h->slots.find(k);
        if (it != h->slots.end()) {
            // Same size: overwrite in place, so pointers from fr_hash_find stay valid. The old
            // copy is not passed to the destructor: the destructor belongs to the table's end,
            // and a replacing value commonly shares the pointers the old copy held.
            Slot &slot = it->second;
            if (slot.len == value_len) {
                if (value_len) std::memmove(slot.data.get(), value, value_len);
                return 0;
            }
            qx::CStr fresh(static_cast<char *>(copy_bytes(value, value_len)));
            if (!fresh) return -1;
            slot.data = std::move(fresh);
            slot.len = value_len;
            return 0;
        }
        Slot slot;
        slot.data.reset(static_cast<char *>(copy_bytes(value, value_len)));
        if (!slot.data) return -1;
        slot.len = value_len;
        h->keys.push_back(k);
        try {
            h->slots.emplace(std::move(k), std::move(slot));
        } catch (...) {
            h->keys.pop_back();
            throw;
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

extern "C" void *fr_hash_find(fr_hash_t *h, const void *key, size_t key_len) {
    if (!h || (!key && key_len)) return nullptr;
    try {
        std::lock_guard<std::recursive_mutex> lock(h->mutex);
        auto it = h->slots.find(key_of(key, key_len));
        return it == h->slots.end() ? nullptr : it->second.data.get();
    } catch (...) {
        return nullptr;
    }
}

extern "C" int fr_hash_empty(fr_hash_t *h) {
    return fr_hash_count(h) == 0 ? 1 : 0;
}

extern "C" size_t fr_hash_count(fr_hash_t *h) {
    if (!h) return 0;
    std::lock_guard<std::recursive_mutex> lock(h->mutex);
    return h->slots.size();
}

extern "C" fr_array_t *fr_hash_getkeys(fr_hash_t *h) {
    if (!h) return nullptr;
    try {
        std::lock_guard<std::recursive_mutex> lock(h->mutex);
        auto a = std::make_unique<fr_array>();
        a->items = h->keys;
        return a.release();
    } catch (...) {
        return nullptr;
    }
}

extern "C" void fr_hash_lock(fr_hash_t *h) {
    if (h) h->mutex.lock();
}

extern "C" void fr_hash_unlock(fr_hash_t *h) {
    if (h) h->mutex.unlock();
}

extern "C" void fr__hash_destroy(fr_hash_t *h) {
    if (!h) return;
    std::unique_ptr<fr_hash> owner(h);
    {
        // Waits for any thread still inside the table before tearing it down.
        std::lock_guard<std::recursive_mutex> lock(h->mutex);
        if (h->destroy) {
            for (const std::string &k : h->keys) {
                auto it = h->slots.find(k);
                if (it != h->slots.end()) h->destroy(it->second.data.get());
            }
        }
    }
}

extern "C" size_t fr_array_length(const fr_array_t *a) {
    return a ? a->items.size() : 0;
}

extern "C" const void *fr_array_get(const fr_array_t *a, size_t i, size_t *len) {
    if (!a || i >= a->items.size()) {
        if (len) *len = 0;
        return nullptr;
    }
    if (len) *len = a->items[i].size();
    return a->items[i].data();
}

extern "C" void fr_array_free(fr_array_t *a) {
    std::unique_ptr<fr_array> owner(a);
}
