/*
 * A small host agent written in C11 against the installed dynamic module.
 *
 * The reference host (libkqhost) provides every KQ_ host operation, so this program only
 * loads the settings, restores dhcp.conf at start and then hands the module one request per
 * command. One process calls the module, one call at a time, as the module requires.
 *
 * Build:  cc -std=c11 kqexample.c $(pkg-config --cflags --libs kqhost) -o kqexample
 * Usage:  kqexample SETTINGS COMMAND...   (as root; SETTINGS: a kqagent.conf(5) file)
 *   load                                        restore every server and the relay
 *   add IFNAME FIRST COUNT NETMASK GATEWAY      an IPv4 server: pool FIRST..FIRST+COUNT-1
 *   del IFNAME                                  stop serving IFNAME
 * The commands run in the order given, e.g. "kqexample /etc/kqagent/kqhost.json load del lan1".
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <kqCtrlDynamic.h>
#include <kqHostLinux.h>

#if !KQ_DYNAMIC_VERSION_AT_LEAST(0, 1, 0)
#error "kqexample needs the dynamic module 0.1.0 or later"
#endif

/* Dotted IPv4 text as the messages carry it: host order, first octet most significant. */
static int ParseIpv4(const char *text, uint32_t *out)
{
    struct in_addr addr;
    if (inet_pton(AF_INET, text, &addr) != 1)
        return -EINVAL;
    *out = ntohl(addr.s_addr);
    return 0;
}

static int Report(const char *what, const char *ifname, KQ_ERR_T result)
{
    if (result < 0)
        fprintf(stderr, "kqexample: %s %s: %s (%d)\n", what, ifname, strerror(-result), (int)result);
    else
        printf("kqexample: %s %s: done\n", what, ifname);
    return result < 0 ? 1 : 0;
}

static int AddServer(char **args)
{
    uint32_t first = 0, netmask = 0, gateway = 0;
    char *end = NULL;
    unsigned long count = strtoul(args[2], &end, 10);
    if (ParseIpv4(args[1], &first) < 0 || ParseIpv4(args[3], &netmask) < 0 || ParseIpv4(args[4], &gateway) < 0 ||
        *end != '\0' || count == 0 || count > 65536) {
        fprintf(stderr, "kqexample: add %s: bad address or count\n", args[0]);
        return 2;
    }

    /* The message lives on the stack: the module reads it during the call and keeps nothing. */
    Range pool = RANGE__INIT;
    pool.begin = first;
    pool.has_len = 1;
    pool.len = (uint32_t)count;
    Range *pools[] = {&pool};
    uint32_t dns[] = {gateway};

    Ipv4DhcpServer server = IPV4_DHCP_SERVER__INIT;
    server.n_dhcpiprange = 1;
    server.dhcpiprange = pools;
    server.netmask = netmask;
    server.n_dns = 1;
    server.dns = dns;
    server.has_gateway = 1;
    server.gateway = gateway;
    server.leasetime = 3600;

    Ipv4DhcpItem ipv4 = IPV4_DHCP_ITEM__INIT;
    ipv4.mode = KQ_DHCP_SERVER;
    ipv4.dhcpserver = &server;

    DhcpItemV2 item = DHCP_ITEM_V2__INIT;
    item.ifname = args[0];
    item.ipv4dhcpitem = &ipv4;
    return Report("add", args[0], KQCtrl_ConfigDynamicAdd(&item));
}

static int DeleteServer(char *ifname)
{
    DhcpItemV2 item = DHCP_ITEM_V2__INIT;
    item.ifname = ifname;
    return Report("del", ifname, KQCtrl_ConfigDynamicDel(&item));
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: kqexample SETTINGS load | add IFNAME FIRST COUNT NETMASK GATEWAY | del IFNAME ...\n");
        return 2;
    }
    /* The reference host reads its settings from KQ_HOST_CONFIG. */
    if (setenv("KQ_HOST_CONFIG", argv[1], 1) != 0) {
        perror("kqexample: setenv");
        return 1;
    }
    KQ_HostReloadConfig();
    printf("kqexample: module %s, dhcp.conf %s\n", KQ_DYNAMIC_VERSION, KQ_AgentPathDhcpConf());

    for (int i = 2; i < argc;) {
        int status = 0;
        if (strcmp(argv[i], "load") == 0) {
            /* A missing dhcp.conf (the first start) gives -EINVAL: nothing to restore. */
            status = Report("load", KQ_AgentPathDhcpConf(), KQCtrl_LoadDynamicServiceConf(KQ_AgentPathDhcpConf()));
            i += 1;
        } else if (strcmp(argv[i], "add") == 0 && i + 5 < argc) {
            status = AddServer(&argv[i + 1]);
            i += 6;
        } else if (strcmp(argv[i], "del") == 0 && i + 1 < argc) {
            status = DeleteServer(argv[i + 1]);
            i += 2;
        } else {
            fprintf(stderr, "kqexample: bad command at \"%s\"\n", argv[i]);
            return 2;
        }
        if (status != 0)
            return status;
    }
    return 0;
}
