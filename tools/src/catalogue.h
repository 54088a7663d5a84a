// The firewall service catalogue as the library builds it (KOVAFwServiceEnum), with where each
// record comes from. The tool makes the records itself from one pass over the .sc files, read
// with the library's reader, so that it learns every record's file without reading any file
// twice; tests/tools holds it to the library's catalogue, field by field.
#pragma once

#include <kovaserviceconf.h>

#include <array>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ports_text.h"

namespace kovasvc {

class Json;

enum class Origin : unsigned char { BuiltIn, System, Package };

const char *origin_name(Origin origin);

// A display string of a record: its texts and the parts of its localisation key.
class DisplayText {
public:
    std::string_view text() const { return part(0); }
    std::string_view extra_text() const { return part(1); }
    std::string_view prefix() const { return part(2); }
    std::string_view section() const { return part(3); }
    std::string_view key() const { return part(4); }

private:
    friend class Catalogue;

    std::string_view part(size_t i) const;

    // The sizes of the five texts (a byte each), then the texts one after the other.
    const unsigned char *parts_ = kNone;
    static constexpr unsigned char kNone[5] = {};
};

// One record of the catalogue, and its source.
struct CatalogueEntry {
    const char *name = "";  // cut to 63 characters, as the record holds it
    // The record's port items in their order, each as a run; empty when it has none.
    std::span<const PortRun> dst, src;
    DisplayText title, desc;
    std::string_view file;         // the .sc file; empty for built-in services
    std::string_view support_key;  // the built-in row's or the file's support key; may be empty
    unsigned int dst_protocol = 0;
    unsigned int src_protocol = 0;
    Origin origin = Origin::BuiltIn;
    bool supported = false;
    bool port_forward = false;
    bool shadowed = false;  // a record of the same name comes earlier: lookups find that one
};

class Catalogue {
public:
    Catalogue(Catalogue &&) = default;
    Catalogue &operator=(Catalogue &&) = default;

    enum class Detail {
        kRows,   // what the table of `list` shows: files, support keys, titles and descriptions left empty
        kPorts,  // the records' files and support keys kept, titles and descriptions left empty
        kTexts,  // and those kept too
    };

    // Builds the catalogue: the built-in rows (rgServices) and every service section of the .sc
    // files of both services.d directories, as the library would. Throws Failure when memory
    // runs out.
    static Catalogue load(Detail detail = Detail::kPorts);

    // In the library's order: .sc sections (system files, then package files, files by name,
    // sections in file order), then the built-in rows from the last one back.
    const std::vector<CatalogueEntry> &entries() const { return entries_; }

    // The record that the library's lookup (KOVAFWServiceFind) finds for `name`, or null.
    const CatalogueEntry *find(std::string_view name) const;

private:
    class Builder;

    Catalogue() = default;

    std::vector<CatalogueEntry> entries_;
    std::vector<std::unique_ptr<char[]>> text_;  // blocks of the texts and ports the entries view
};

// The directory of a location (1 system, 2 package), as the library resolves it.
std::string services_dir(unsigned int location);

// "prefix:section:key", "section:key", or the empty text when the string has no key.
std::string string_key(const DisplayText &s);

// One catalogue record as a JSON object (the fields are documented in the manual page).
void service_json(Json &json, const CatalogueEntry &entry);

}  // namespace kovasvc
