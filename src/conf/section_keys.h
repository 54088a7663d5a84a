// Building a service section record from the keys of one section, whoever read them: the
// section reader reads one section through the platform's sectioned-file reader, the file
// reader reads a whole file in one pass and hands each section over.
#pragma once

#include <kovaserviceconf.h>

namespace kova::conf {

// Read access to the keys of one section.
class SectionKeys {
public:
    virtual ~SectionKeys() = default;
    // The value of `key` (without surrounding quotes), or null when the section lacks it.
    virtual const char *value(const char *key) const = 0;
};

// Builds the service section `name` of the file `path` from `keys` and links it in front of
// *ppList. `records` is the number of keys read, as the sectioned-file reader returns it; below 1
// counts as a failed read. Returns 0 or -1; failures are logged as the section reader logs them.
int section_from_keys(const char *path, const char *name, int records, const SectionKeys &keys,
                      KOVA_SERVICE_CONF_SECTION **ppList);

}  // namespace kova::conf
