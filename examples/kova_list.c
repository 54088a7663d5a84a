/*
 * kova_list: lists every service section of the .sc files under KOVA_ROOT (system and package
 * services.d directories) with its ports, then parses each command-line argument as a port list
 * and prints its entries.
 *
 *   KOVA_ROOT=examples/root kova_list "80,443,8000:8010/tcp" "5000:5010/udp"
 *
 * Exit status: 0, or 1 when an argument is not a valid port list, 2 when the directories
 * cannot be read at all.
 */
#include <kovaserviceconf.h>
#include <stdio.h>
#include <stdlib.h>

/* Reading links each entry at the head, so a list holds the text's entries backwards. */
static KOVA_SERVICE_CONF_PORT *reverse(KOVA_SERVICE_CONF_PORT *list) {
    KOVA_SERVICE_CONF_PORT *reversed = NULL;
    while (list != NULL) {
        KOVA_SERVICE_CONF_PORT *next = list->next;
        list->next = reversed;
        reversed = list;
        list = next;
    }
    return reversed;
}

static const char *protocol_name(unsigned int protocol) {
    switch (protocol) {
        case KOVA_PROTO_TCP:
            return "tcp";
        case KOVA_PROTO_UDP:
            return "udp";
        case KOVA_PROTO_BOTH:
            return "tcp,udp";
        default:
            return "?";
    }
}

static void print_ports(const char *label, KOVA_SERVICE_CONF_PORT **ppPorts) {
    char ports[4096];
    char protocol[64];
    if (*ppPorts == NULL) return;
    *ppPorts = reverse(*ppPorts); /* back to the order of the file */
    if (KVLIBServiceConfPortsToStr(*ppPorts, ports, (int)sizeof ports, protocol, (int)sizeof protocol) == 0) {
        printf("      %s ports: %s/%s\n", label, ports, protocol);
    } else {
        printf("      %s ports: (cannot be shown, error 0x%04X)\n", label, KVLIBCErrGet());
    }
}

static void print_section(KOVA_SERVICE_CONF_SECTION *section) {
    printf("    [%s] %s%s\n", section->name, section->title.text, section->portForward ? " (may be forwarded)" : "");
    printf("      %s\n", section->desc.text);
    if (section->desc.extraText[0] != '\0') printf("      %s\n", section->desc.extraText);
    print_ports("destination", &section->dstPort);
    print_ports("source", &section->srcPort);
}

static int list_services(void) {
    KOVA_SERVICE_CONF *confs = NULL;
    KOVA_SERVICE_CONF *conf;
    int files = KOVAServiceConfEnum(&confs, KOVA_CONF_LOCATION_SYSTEM | KOVA_CONF_LOCATION_PACKAGE);
    const char *root = getenv("KOVA_ROOT");

    printf("Service files under %s: %d\n", root != NULL && root[0] != '\0' ? root : "/", files < 0 ? 0 : files);
    if (files < 0) {
        printf("  cannot enumerate, error 0x%04X\n", KVLIBCErrGet());
        return 2;
    }
    /* Package files come first, then system files, each in reverse name order. */
    for (conf = confs; conf != NULL; conf = conf->next) {
        KOVA_SERVICE_CONF_SECTION *section;
        printf("  file format %d", conf->version);
        if (conf->supportKey[0] != '\0') printf(", supported when \"%s\" is yes", conf->supportKey);
        printf("\n");
        for (section = conf->sections; section != NULL; section = section->next) print_section(section);
    }
    KOVAServiceConfFree(confs);
    return 0;
}

static int show_port_list(const char *text) {
    KOVA_SERVICE_CONF_PORT *ports = NULL;
    const KOVA_SERVICE_CONF_PORT *p;
    int n = 0;

    if (KOVAServiceConfPortsGet(text, 1, &ports) != 0) {
        printf("\"%s\": not a port list (error 0x%04X)\n", text, KVLIBCErrGet());
        return 1;
    }
    ports = reverse(ports);
    for (p = ports; p != NULL; p = p->next) ++n;
    printf("\"%s\": %d %s, protocol %s\n", text, n, n == 1 ? "entry" : "entries", protocol_name(ports->protocol));
    for (p = ports; p != NULL; p = p->next) {
        if (p->type == 1) {
            printf("  range %u to %u\n", (unsigned)p->beginPort, (unsigned)p->endPort);
        } else {
            printf("  port %u\n", (unsigned)p->beginPort);
        }
    }
    KOVAServiceConfPortsFree(ports);
    return 0;
}

int main(int argc, char **argv) {
    int status = list_services();
    int i;
    for (i = 1; i < argc; ++i) {
        printf("\n");
        if (show_port_list(argv[i]) != 0 && status == 0) status = 1;
    }
    return status;
}
