// kova-svc audit: what listens against what is declared, shared by the text, JSON and page.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "catalogue.h"
#include "holders.h"

namespace kovasvc {

// Whether every listening socket of a port and protocol is bound to a loopback address, read
// from the same socket tables as the library's inventory.
class LocalAddresses {
public:
    LocalAddresses();
    // null: not known (the socket is not in the tables any more).
    const bool *loopback_only(unsigned int port, unsigned int protocol) const;

private:
    void read(const char *table, unsigned int protocol, const char *state);
    std::map<std::pair<unsigned int, unsigned int>, bool> only_;
};

struct Double {
    PortRun run;
    unsigned int protocol;
    std::vector<std::string> services;
};

struct Shared {
    const Holder *listener;
    std::string service;
};

struct Audit {
    std::vector<Holder> declared;  // services, reserved ports, forwarding rules
    HolderReport listening;
    std::vector<const Holder *> undeclared;
    std::vector<const CatalogueEntry *> silent;
    std::vector<Double> doubles;
    std::vector<Shared> shared;
};

// One catalogue build and one runtime inventory, joined.
Audit run_audit(const Catalogue &cat);

// "(not visible to this user)", the program, or "-".
std::string program_text(const Holder &h);

// The audit as one self-contained HTML page: summary, a map of the port space, the tables.
void write_audit_html(std::ostream &out, const Audit &audit, const LocalAddresses &addresses);

}  // namespace kovasvc
