// Owners for what the library hands out, so that every way out of a command frees it.
#pragma once

#include <kovaserviceconf.h>

#include <cstdlib>
#include <memory>

namespace kovasvc {

template <auto FreeFn>
struct Release {
    template <class T>
    void operator()(T *p) const noexcept {
        if (p != nullptr) FreeFn(p);
    }
};

using FwServicesPtr = std::unique_ptr<KOVA_FW_SERVICE, Release<KOVAFwServiceFree>>;
using ConfsPtr = std::unique_ptr<KOVA_SERVICE_CONF, Release<KOVAServiceConfFree>>;
using SectionsPtr = std::unique_ptr<KOVA_SERVICE_CONF_SECTION, Release<KOVAServiceConfSectionFree>>;
using PortsPtr = std::unique_ptr<KOVA_SERVICE_CONF_PORT, Release<KOVAServiceConfPortsFree>>;
using SzListPtr = std::unique_ptr<KVLIB_SZLIST, Release<KVLIBCSzListFree>>;
using SzHashPtr = std::unique_ptr<KVLIB_SZHASH, Release<KVLIBCSzHashFree>>;
using ConfResultsPtr = std::unique_ptr<KVLIB_DLIST, Release<KOVAConfPortConflictResultListFree>>;
using RuntimeResultsPtr = std::unique_ptr<KVLIB_DLIST, Release<KOVARuntimePortConflictResultListFree>>;
using DListPtr = std::unique_ptr<KVLIB_DLIST, Release<KVLIBCDListFree>>;
using TextPtr = std::unique_ptr<char, Release<free>>;

// Conflict lists are filled through an out-pointer that must hold null on entry; this keeps the
// raw head for the call and owns whatever the call left in it.
class ConflictList {
public:
    ConflictList() = default;
    ConflictList(const ConflictList &) = delete;
    ConflictList &operator=(const ConflictList &) = delete;
    ~ConflictList() { KOVAServiceConfPortsFree(head_); }

    KOVA_SERVICE_CONF_PORT **out() { return &head_; }
    const KOVA_SERVICE_CONF_PORT *head() const { return head_; }

private:
    KOVA_SERVICE_CONF_PORT *head_ = nullptr;
};

// The records of a result list, in list order.
template <class T>
class DListRecords {
public:
    explicit DListRecords(const KVLIB_DLIST *list) : list_(list) {}

    class iterator {
    public:
        explicit iterator(const KVLIB_DLIST_NODE *n) : n_(n) { skip_empty(); }
        const T &operator*() const { return *static_cast<const T *>(n_->pData); }
        iterator &operator++() {
            n_ = n_->pNext;
            skip_empty();
            return *this;
        }
        bool operator!=(const iterator &o) const { return n_ != o.n_; }

    private:
        // A node whose copy could not be made holds no record.
        void skip_empty() {
            while (n_ != nullptr && n_->pData == nullptr) n_ = n_->pNext;
        }
        const KVLIB_DLIST_NODE *n_;
    };

    iterator begin() const { return iterator(list_ != nullptr ? list_->pHead : nullptr); }
    iterator end() const { return iterator(nullptr); }

private:
    const KVLIB_DLIST *list_;
};

}  // namespace kovasvc
