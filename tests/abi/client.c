/* A client of the installed library: built with pkg-config only, run on a sandbox root. */
#include <kovaserviceconf.h>
#include <stdio.h>
#include <string.h>

static int failures;

#define CHECK(cond)                                                                 \
    do {                                                                            \
        if (!(cond)) {                                                              \
            fprintf(stderr, "%s:%d check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                             \
        }                                                                           \
    } while (0)

/* The start of a file, as a text. */
static const char *read_start(const char *path) {
    static char text[4096];
    FILE *f = fopen(path, "rb");
    size_t n = f != NULL ? fread(text, 1, sizeof text - 1, f) : 0;
    if (f != NULL) fclose(f);
    text[n] = '\0';
    return text;
}

int main(int argc, char **argv) {
    KOVA_SERVICE_CONF_PORT *ports = NULL;
    KVLIB_SZLIST *list;
    char proto[] = " TCP ";
    const char *log;
    const char *logPath = argc > 1 ? argv[1] : NULL;

    /* Protocol helpers. */
    CHECK(IsLegalProtocol(65537) == 1);
    CHECK(HasUDP(3) == 2);
    CHECK(strcmp(KOVATCPStateToString(10), "TCP_LISTEN") == 0);
    CHECK(gProtoTypeMapping[1].type == KOVA_PROTO_UDP);

    /* Port lists come out in reverse text order. */
    CHECK(KOVAServiceConfPortsGet("80,443,8000:8010/tcp", 1, &ports) == 0);
    CHECK(ports != NULL && ports->type == 1 && ports->beginPort == 8000 && ports->endPort == 8010);
    CHECK(ports != NULL && ports->next != NULL && ports->next->beginPort == 443);
    CHECK(ports != NULL && ports->protocol == KOVA_PROTO_TCP && ports->direction == 1);
    KOVAServiceConfPortsFree(ports);
    ports = NULL;

    CHECK(KOVAServiceConfPortsGet("80/icmp", 0, &ports) == -1);
    CHECK(ports == NULL);
    CHECK(KVLIBCErrGet() == KOVA_ERR_BAD_PARAMETER);
    CHECK(KVLIBServiceConfProtocolParse(proto) == 1);
    CHECK(strcmp(proto, "tcp") == 0);

    /* Platform operations declared by the header. */
    list = KVLIBCSzListAlloc(128);
    CHECK(list != NULL);
    CHECK(KVLIBCSzListPush(&list, "a") >= 0);
    CHECK(list->nItem == 1);
    KVLIBCSzListFree(list);
    {
        int32_t ssh = 0, port = 0;
        int n = 1;
        KOVA_FTP_PASSIVE_PORT ftp;
        CHECK(KOVAServiceSSHPortGet(&ssh) == 0 && ssh == 22); /* no sshd_config in the root */
        CHECK(KOVAFTPDefaultPassivePortGet(&ftp) == 0 && KOVAPFRuleConfPathGet() != NULL);
        CHECK(KOVANetGetPortUsedInRange(&port, &n, 1, 1, 1) >= -1);
    }

    if (logPath != NULL) {
        log = read_start(logPath);
        CHECK(strstr(log, "service_conf_ports_get.cpp:") == log);
        CHECK(strstr(log, "protocol format error (icmp)!") != NULL);
    }
    return failures == 0 ? 0 : 1;
}
