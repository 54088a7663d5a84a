// The firewall service catalogue as the library builds it, with where each record comes from.
#pragma once

#include <kovaserviceconf.h>

#include <string>
#include <vector>

#include "owners.h"

namespace kovasvc {

class Json;

enum class Origin { BuiltIn, System, Package, Unknown };

const char *origin_name(Origin origin);

struct ServiceSource {
    Origin origin = Origin::Unknown;
    std::string file;         // the .sc file; empty for built-in services
    std::string support_key;  // the built-in row's or the file's support key; may be empty
};

struct CatalogueEntry {
    const KOVA_FW_SERVICE *service = nullptr;
    ServiceSource source;
    bool shadowed = false;  // a record of the same name comes earlier: lookups find that one
};

class Catalogue {
public:
    // Builds the catalogue (KOVAFwServiceEnum) and attributes every record to its built-in row
    // or its .sc file. Throws Failure when the catalogue cannot be built.
    static Catalogue load();

    // In the library's order.
    const std::vector<CatalogueEntry> &entries() const { return entries_; }

    // The record that the library's lookup finds for `name`, or null.
    const CatalogueEntry *find(const std::string &name) const;

private:
    FwServicesPtr list_;
    std::vector<CatalogueEntry> entries_;
};

// The directory of a location (1 system, 2 package), as the library resolves it.
std::string services_dir(unsigned int location);

// "prefix:section:key", "section:key", or the empty text when the string has no key.
std::string string_key(const KOVA_SERVICE_STRING &s);

// One catalogue record as a JSON object (the fields are documented in the manual page).
void service_json(Json &json, const CatalogueEntry &entry);

}  // namespace kovasvc
