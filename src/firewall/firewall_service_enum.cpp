// The firewall service catalogue: a record for every usable row of the built-in table, then
// one for every service section of every .sc file, each linked in front of the ones before.
#include "firewall/firewall_service_enum.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "conf/conf_internal.h"
#include "firewall/port_texts.h"
#include "firewall/settings_reads.h"
#include "foundation/ports.h"
#include "foundation/guard.h"
#include "foundation/log.h"
#include "foundation/raii.h"
#include "kova_root.h"

namespace kova::fw {

int ports_text_to_list(const char *text, KVLIB_SZLIST **ppList) {
    if (text == nullptr || *text == '\0' || ppList == nullptr) {
        KOVA_LOG("Bad parameters");
        return -1;
    }
    Texts texts;
    for (std::string_view item : kova::ports::words(text, ",")) {
        for (const char c : item) {
            if (c < '0' || c > '9') {
                KOVA_LOG("illegal ports number, port=%.*s", static_cast<int>(item.size()), item.data());
                return -1;
            }
        }
        texts.emplace_back(item);
    }
    KVLIB_SZLIST *list = to_list(texts);
    if (list == nullptr) {
        KOVA_LOG("Failed to allocate for ports number, errno=0x%X", ::kova::shown_error_code());
        return -1;
    }
    *ppList = list;
    return 0;
}

KVLIB_SZLIST *port_entries_to_list(const ports::PortList &list, int32_t &protocol) {
    SzListPtr texts(KVLIBCSzListAlloc(128));
    if (!texts) return nullptr;
    // The reader lists the entries backwards: so do their texts.
    for (auto e = list.entries.rbegin(); e != list.entries.rend(); ++e) {
        char text[32];
        char *end = std::to_chars(text, text + 12, static_cast<int32_t>(e->begin)).ptr;
        if (e->range) {
            *end++ = '-';
            end = std::to_chars(end, end + 12, static_cast<int32_t>(e->end)).ptr;
        }
        *end = '\0';
        KVLIB_SZLIST *raw = texts.release();
        const int ret = KVLIBCSzListPush(&raw, text);
        texts.reset(raw);
        if (ret < 0) return nullptr;
    }
    if (!list.entries.empty()) protocol = ports::firewall_protocol(static_cast<int>(list.protocol));
    return texts.release();
}

}  // namespace kova::fw

namespace {

using kova::fw::ports_text_to_list;

// The localisation key of a table string; its texts stay empty.
void copy_string_key(KOVA_SERVICE_STRING &dst, const KOVA_SERVICE_STRING &src) {
    kova::copy_field(dst.prefix, src.prefix);
    kova::copy_field(dst.section, src.section);
    kova::copy_field(dst.key, src.key);
}

// Builds the list front to back: every record added becomes the new head.
class Builder {
public:
    void add(kova::FwServicePtr record) {
        record->next = head_.release();
        head_.reset(record.release());
        ++count_;
    }
    int count() const { return count_; }
    KOVA_FW_SERVICE *release() { return head_.release(); }

private:
    kova::FwServicePtr head_;
    int count_ = 0;
};

// The ports of one direction of a table row; false when the row is to be left out.
bool row_ports(const KOVA_FW_SERVICE_ENTRY &row, const KOVA_FW_PORT_SPEC &spec, const char *direction,
               int32_t &protocol, KVLIB_SZLIST *&list) {
    protocol = spec.protocol;
    if (spec.ports != nullptr) {
        if (ports_text_to_list(spec.ports, &list) != 0) {
            KOVA_LOG("Failed to parse %s ports in firewall services: %s", direction, row.name);
            return false;
        }
        return true;
    }
    if (spec.getter == nullptr) {
        KOVA_LOG("No specified %s ports in firewall services: %s", direction, row.name);
        return false;
    }
    const int ret = spec.getter(&list);
    if (ret < 0) {
        KOVA_LOG("Failed to enum %s ports in firewall services: %s", direction, row.name);
        return false;
    }
    return ret > 0 || (list != nullptr && list->nItem > 0);
}

// The support test: whether the key's value in the defaults file is "yes", as
// KVLIBCFileCheckKeyValue answers it (flag 0 for a table row's own key, 1 for the support_key of
// a .sc file's [global] section); the file is read once per enumeration, through its settings
// scope, however many rows and files name a key. A file the scope could not read is asked of the
// platform.
class SupportKeys {
public:
    explicit SupportKeys(std::string defaults) : defaults_(std::move(defaults)) {}

    int yes(const char *key, int flag) const {
        const kova::conf::KeyValueFile *file = kova::fw::settings_file(defaults_);
        if (file == nullptr) return KVLIBCFileCheckKeyValue(defaults_.c_str(), key, "yes", flag);
        const std::string_view *value = file->value(key);
        return value != nullptr && *value == "yes" ? 1 : 0;
    }
    // A .sc file without a key of its own is supported.
    int supported(const char *key) const { return *key == '\0' ? 1 : yes(key, 1); }

private:
    const std::string defaults_;
};

void add_table_rows(Builder &catalogue, const SupportKeys &support) {
    for (const KOVA_FW_SERVICE_ENTRY *row = rgServices; row->name != nullptr; ++row) {
        kova::FwServicePtr record(kova::calloc_record<KOVA_FW_SERVICE>());
        if (!record) {
            KOVA_LOG("Failed to allocate for service, errno=0x%X", ::kova::shown_error_code());
            continue;
        }
        kova::copy_field(record->name, row->name);
        record->supported = row->supportKey == nullptr ? row->defaultSupported : support.yes(row->supportKey, 0);
        record->portForward = row->portForward;
        copy_string_key(record->title, row->title);
        copy_string_key(record->desc, row->desc);
        if (row->src.enabled != 0 && !row_ports(*row, row->src, "src", record->srcProtocol, record->srcPorts)) {
            continue;
        }
        if (row->dst.enabled != 0 && !row_ports(*row, row->dst, "dst", record->dstProtocol, record->dstPorts)) {
            continue;
        }
        catalogue.add(std::move(record));
    }
}

// The records of the .sc sections, made as each file is read, in the order the catalogue lists
// them: system files before package files, files by name, sections in file order.
class ScRecords final : kova::conf::FileVisitor, kova::conf::SectionVisitor {
public:
    ScRecords(const SupportKeys &support, kova::fw::RecordSink *sink) : support_(support), sink_(sink) {}
    ScRecords(const ScRecords &) = delete;
    ScRecords &operator=(const ScRecords &) = delete;
    ~ScRecords() { kova::FwServicePtr owned(head_); }

    void read_all() { kova::conf::each_conf_file(KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE, *this); }
    int count() const { return count_; }
    // With a sink: hands it the records made so far (their files are read: nothing changes them).
    void flush() {
        if (sink_ == nullptr) return;
        while (head_ != nullptr) {
            kova::FwServicePtr record(head_);
            head_ = head_->next;
            record->next = nullptr;
            sink_->take(std::move(record));
        }
        tail_ = &head_;
    }
    // The records, ahead of `rest`.
    KOVA_FW_SERVICE *release(KOVA_FW_SERVICE *rest) {
        *tail_ = rest;
        KOVA_FW_SERVICE *head = head_;
        head_ = nullptr;
        tail_ = &head_;
        return head;
    }

private:
    bool file(const kova::conf::FileRef &where, int) override {
        flush();
        KOVA_FW_SERVICE **first = tail_;
        KOVA_SERVICE_CONF global{};
        if (!kova::conf::walk_conf(where, scratch_, global, *this)) return false;
        if (*first == nullptr) return true;
        // The support key is known once the whole file is read.
        const int supported = support_.supported(global.supportKey);
        for (KOVA_FW_SERVICE *s = *first; s != nullptr; s = s->next) s->supported = supported;
        return true;
    }

    bool section(const char *path, const char *name, const kova::conf::ScSection *keys) override {
        kova::FwServicePtr record =
            spare_ ? std::move(spare_) : kova::FwServicePtr(kova::calloc_record<KOVA_FW_SERVICE>());
        if (!record) {
            KOVA_SET_ERR(KOVA_ERR_OUT_OF_MEMORY);
            KOVA_LOG("Failed to allocate for service, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
            return false;
        }
        fields_.title = &record->title;
        fields_.desc = &record->desc;
        if (!kova::conf::check_section(path, name, keys != nullptr ? keys->key_count() : 0, keys, fields_)) {
            std::memset(record.get(), 0, sizeof *record);
            spare_ = std::move(record);
            return false;
        }
        kova::copy_field(record->name, name);
        record->portForward = fields_.portForward;
        if (fields_.has_src &&
            (record->srcPorts = kova::fw::port_entries_to_list(fields_.src, record->srcProtocol)) == nullptr) {
            log_ports_failure(name, "src");
            return true;
        }
        if ((record->dstPorts = kova::fw::port_entries_to_list(fields_.dst, record->dstProtocol)) == nullptr) {
            log_ports_failure(name, "dst");
            return true;
        }
        *tail_ = record.release();
        tail_ = &(*tail_)->next;
        ++count_;
        return true;
    }

    static void log_ports_failure(const char *name, const char *direction) {
        KOVA_LOG("Failed to allocate for ports number, kovaerr=" KOVA_ERRFMT, KOVA_ERRARGS);
        KOVA_LOG("Failed to parse section [%s] %s ports for firewall services, kovaerr=" KOVA_ERRFMT, name, direction,
                 KOVA_ERRARGS);
    }

    const SupportKeys &support_;
    kova::fw::RecordSink *sink_;
    kova::conf::ScFile scratch_;
    kova::conf::SectionFields fields_;
    // The record of a section that failed its check, zeroed again for the next one. It is freed
    // with the builder, once every record is made: freed in the middle of the build, next to the
    // free memory the last catalogue left, it would let the C library hand that memory back to
    // the system, only for the records that follow to fault it in again.
    kova::FwServicePtr spare_;
    KOVA_FW_SERVICE *head_ = nullptr;
    KOVA_FW_SERVICE **tail_ = &head_;
    int count_ = 0;
};

}  // namespace

namespace kova::fw {

Result<Catalogue> build_catalogue(RecordSink *sink) noexcept {
    try {
        // The getters of the rows and the support keys read each settings file once.
        const SettingsScope settings;
        const SupportKeys support(kova::resolve(kova::paths::kInfoConfDefaults));
        Builder builtin;
        add_table_rows(builtin, support);
        ScRecords sc(support, sink);
        sc.read_all();
        const int count = builtin.count() + sc.count();
        if (sink != nullptr) {
            sc.flush();
            for (FwServicePtr rows(builtin.release()); rows;) {
                FwServicePtr next(rows->next);
                rows->next = nullptr;
                sink->take(std::move(rows));
                rows = std::move(next);
            }
            return Catalogue{nullptr, count};
        }
        return Catalogue{FwServicePtr(sc.release(builtin.release())), count};
    } catch (const std::bad_alloc &) {
        return KOVA_FAILURE(KOVA_ERR_OUT_OF_MEMORY);
    }
}

}  // namespace kova::fw

extern "C" {

int KOVAFwServiceEnum(KOVA_FW_SERVICE **ppServiceList) {
    if (ppServiceList == nullptr) {
        KOVA_LOG("Bad parameters");
        return -1;
    }
    kova::Result<kova::fw::Catalogue> catalogue = kova::fw::build_catalogue();
    if (!catalogue) {
        kova::set_error(catalogue.failure());
        return -1;
    }
    *ppServiceList = catalogue->head.release();
    return catalogue->count;
}

void KOVAFwServiceFree(KOVA_FW_SERVICE *pServiceList) {
    while (pServiceList != nullptr) {
        KOVA_FW_SERVICE *next = pServiceList->next;
        // The next record's links are fetched while this one is freed (a long list is no longer
        // in the cache when it is freed).
        if (next != nullptr) __builtin_prefetch(&next->next);
        if (pServiceList->srcPorts != nullptr) KVLIBCSzListFree(pServiceList->srcPorts);
        if (pServiceList->dstPorts != nullptr) KVLIBCSzListFree(pServiceList->dstPorts);
        std::free(pServiceList);
        pServiceList = next;
    }
}

}  // extern "C"
