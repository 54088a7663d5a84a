// String hash: owned text keys and values, insertion order kept, constant-time lookup.
// Keys and values live in heap blocks of their own, so a pointer handed out stays valid until
// that key's value is replaced or the hash is freed, whatever else is added meanwhile.
#include <kovacore.h>

#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/plat_log.h"

namespace {

using Text = std::unique_ptr<char[]>;

Text copy_text(const char *sz) {
    size_t n = std::strlen(sz) + 1;
    Text t(new char[n]);
    std::memcpy(t.get(), sz, n);
    return t;
}

struct Entry {
    Text key;
    Text value;
};

}  // namespace

struct KVLIB_SZHASH {
    std::vector<Entry> entries;
    std::unordered_map<std::string_view, size_t> index;  // views into entries[i].key
};

namespace {

const Entry *entry_at(const KVLIB_SZHASH *hash, int index) {
    if (hash == nullptr || index < 0 || static_cast<size_t>(index) >= hash->entries.size()) return nullptr;
    return &hash->entries[static_cast<size_t>(index)];
}

}  // namespace

extern "C" {

KVLIB_SZHASH *KVLIBCSzHashAlloc(int capacity) {
    try {
        auto hash = std::make_unique<KVLIB_SZHASH>();
        if (capacity > 0 && capacity <= (1 << 20)) {
            hash->entries.reserve(static_cast<size_t>(capacity));
            hash->index.reserve(static_cast<size_t>(capacity));
        }
        return hash.release();
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

void KVLIBCSzHashFree(KVLIB_SZHASH *pHash) {
    delete pHash;
}

const char *KVLIBCSzHashGetValue(const KVLIB_SZHASH *pHash, const char *szKey) {
    if (pHash == nullptr || szKey == nullptr) return nullptr;
    auto it = pHash->index.find(std::string_view(szKey));
    return it == pHash->index.end() ? nullptr : pHash->entries[it->second].value.get();
}

int KVLIBCSzHashSetValue(KVLIB_SZHASH **ppHash, const char *szKey, const char *szValue) {
    if (ppHash == nullptr || szKey == nullptr || szValue == nullptr) {
        PLAT_SET_ERR(KOVA_ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        if (*ppHash == nullptr && (*ppHash = KVLIBCSzHashAlloc(0)) == nullptr) return -1;
        KVLIB_SZHASH *hash = *ppHash;
        Text value = copy_text(szValue);
        auto it = hash->index.find(std::string_view(szKey));
        if (it != hash->index.end()) {
            hash->entries[it->second].value = std::move(value);
            return 0;
        }
        Entry entry{copy_text(szKey), std::move(value)};
        std::string_view key(entry.key.get());
        hash->entries.push_back(std::move(entry));
        try {
            hash->index.emplace(key, hash->entries.size() - 1);
        } catch (...) {
            hash->entries.pop_back();
            throw;
        }
        return 0;
    } catch (const std::bad_alloc &) {
        PLAT_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

int KVLIBCSzHashCount(const KVLIB_SZHASH *pHash) {
    return pHash == nullptr ? 0 : static_cast<int>(pHash->entries.size());
}

const char *KVLIBCSzHashKeyAt(const KVLIB_SZHASH *pHash, int index) {
    const Entry *e = entry_at(pHash, index);
    return e == nullptr ? nullptr : e->key.get();
}

const char *KVLIBCSzHashValueAt(const KVLIB_SZHASH *pHash, int index) {
    const Entry *e = entry_at(pHash, index);
    return e == nullptr ? nullptr : e->value.get();
}

}  // extern "C"
