/*
 * Extra operations of the reference host layer (libkqhost.so) for a host agent tool and
 * for tests. The KQ_ host operations themselves are declared in kqHost.h.
 *
 * Behaviour a caller can rely on, beyond kqHost.h:
 *
 * Settings: read once, on first use, from the JSON file named by KQ_HOST_CONFIG; with the
 *   variable unset every key takes its default. A file that cannot be read or parsed or a
 *   value of the wrong type gets one clear line on stderr ("kqhost: ...") and the default
 *   for that key; a bad entry of "lans" or "netns" is dropped on its own. An unknown key (at
 *   the top or in a "lans" entry) is an error, told by KQ_HostConfigError and not on stderr:
 *   a program should refuse to run on such settings.
 *   Interface and namespace names must be usable as Linux names that no command line or
 *   dnsmasq line reads as something else (1..15 characters, not "." or "..", no leading
 *   '-', none of / : * ? [ ] , " ' # = \, no white space or control characters).
 *
 * Logging: a normal line (Normal 1) is written when its level >= "logLevel". The flex-log
 *   dump (Normal 0) repeats an error line's text, so it is written only at "logLevel" 1.
 *   Level texts: 1 "DEBUG:", 2 "INFO:", 3 "WARN:", 4 "ERROR:", others "". Module 62 is
 *   "dynamic", any other "unknown"; the tag is "kqagent". On stderr a line reads
 *   "kqagent: <text>" (with "<N>" in front when stderr is the journal, below); with "logTo"
 *   "syslog" it goes to syslog (ident "kqagent", priority
 *   debug/info/warning/err for levels 1..4). The flex-log text is per thread.
 *
 * Files: KQ_WriteSyncWithFilePath, KQ_FileCopy and KQ_HostWriteFile create missing parent
 *   folders (0755), write an unnamed temporary file in the target's folder (O_TMPFILE;
 *   where the filesystem lacks it, "<folder>/.<name>.kqtmp.XXXXXX"), give it the mode of
 *   the file it replaces (0644 for a new one), link it as "<folder>/.<name>.kqtmp.XXXXXX"
 *   and rename that over the target. A durable write also fsyncs the file before the
 *   rename and the folder after it. KQ_WriteSyncWithFilePath and KQ_FileCopy are durable
 *   for the path of KQ_AgentPathDhcpConf, and for that of KQ_AgentPathDhcpConfbak, whose
 *   folder is left to the next write of dhcp.conf when both share one; other paths are
 *   not synced, and a write that would not change such a file (same bytes, a regular
 *   file, not empty) leaves it as it is. A failure
 *   removes the temporary file and leaves the target as it was. The first write into a
 *   folder removes the ".*.kqtmp.XXXXXX" files that a writer killed between link and
 *   rename left there. KQ_AllocAndGetConf refuses (null) anything but a regular file of at
 *   most 16 MiB.
 *
 * Commands (KQ_CmdExec, KQ_RTCSystem): the line is split at spaces, tabs and newlines
 *   into argv (no quoting, no shell) and started with posix_spawn; a program name without
 *   '/' is looked up in PATH, then in /usr/sbin:/sbin:/usr/bin:/bin. A line that starts
 *   with the namespace prefix "ip netns exec <name> " runs the rest as `ip netns exec`
 *   would, without starting `ip`: the child enters /run/netns/<name>, takes a mount
 *   namespace of its own with a fresh /sys and the entries of /etc/netns/<name> bound over
 *   those of /etc, then execs. The child gets /dev/null as stdin, default signal
 *   dispositions, an empty signal mask, no file descriptors above 2 and an environment of
 *   PATH alone (the agent's, else the list above). Results: 0 when it exits with status 0;
 *   -EINVAL for an empty line; -errno when it cannot be started (-ENOENT: no such program
 *   in PATH); -EIO when it exits non-zero or dies by a signal, or when a prefixed line's
 *   namespace cannot be entered or its program not executed (as from `ip`, which exits
 *   255 then; the reason is logged); -ECHILD when it cannot be waited for (SIGCHLD ignored).
 *   A daemonising dhclient ("dhclient ... -nw ... -pf FILE", also behind a prefix) counts
 *   as started once FILE is there and not empty: up to 2 s, then a warning and 0.
 *
 * KQ_KillPid: -EINVAL for pid <= 0 (never a process group), -ESRCH (-3) when there is no
 *   such process or when it is not one that a pid file of ours can name (a warning then):
 *   pid 1, the caller itself, above pid_max, or anything but dnsmasq or dhclient (base name
 *   of argv[0]) run with a pid file ("-pf F", "-x F", "--pid-file F" or "--pid-file=F").
 *   Otherwise SIGTERM, up to 2 s for it to go (reaped when it is our child),
 *   then SIGKILL and up to 1 s more; 0 once it is gone, -ETIMEDOUT if it still is not. The
 *   wait ends when the process exits (pidfd_open and poll; every 10 ms where the kernel
 *   has no pidfd_open).
 *
 * KQ_IsPIDCorrectInPIDFile (Pid, IfName, DynamicStr): TRUE only when /proc/<pid>/cmdline
 *   has argv[0] with basename "dhclient", an argument equal to IfName, and for DynamicStr
 *   "dhclient6" an argument "-6", for "dhclient" an argument "-4" or no "-6". Any other
 *   DynamicStr gives FALSE.
 *
 * Namespaces: VPN id 0 is the namespace the agent runs in: the prefix is "", and
 *   KQ_RtcNetNsSaveAndSwitch(0, ...) does nothing and returns 0. Another id maps to the
 *   "netns" setting or "vpn<id>", entered through /run/netns/<name>. The calling thread's
 *   namespace is what is saved (/proc/thread-self/ns/net). Save-and-switch with *SavedFd
 *   already holding a saved namespace returns -EBUSY and changes nothing.
 *
 * Interfaces: KQ_RtcNetioLanGetByName fills IfName and CommConf.VpnId from "lans" (Mtu
 *   is 0: this host does not track it); -ENODEV for a name not listed. The first IPv4 /
 *   IPv6 address is read with getifaddrs inside the namespace of the interface's LAN VPN
 *   id (the current namespace when the interface is not a listed LAN); the IPv6 one is
 *   the first global address, else the first link-local one. Outputs are zeroed first;
 *   -ENODEV when the interface does not exist there, -EADDRNOTAVAIL when it has no such
 *   address.
 *
 * Rules: KQ_RtcRuleConfAdd replaces a rule with the same Zone and Id (result 0);
 *   KQ_RtcRuleConfDel returns -ENOENT when there is none. The other arguments are not used.
 *   With a file named by KQ_HostRuleKeepIn, a change that cannot be written there returns
 *   the write's negative errno (the table in memory has the change).
 *
 * All operations are thread-safe except the flex-log buffer, which is per thread anyway.
 */
#ifndef KQ_HOST_LINUX_H
#define KQ_HOST_LINUX_H

#include <stddef.h>
#include <stdint.h>

#include "kqHost.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the settings again from KQ_HOST_CONFIG (defaults when unset). Path texts returned
 * earlier by KQ_AgentPathDhcpConf / KQ_AgentPathDhcpConfbak stay valid and show the new
 * values. */
void KQ_HostReloadConfig(void);

/* The agent's own files, stable texts like the dhcp.conf paths: the desired-state document
 * ("desiredState", default "desired.json" in dhcp.conf's folder) and the control socket
 * ("controlSocket", default "/run/kqagent/kqagent.sock"). */
const char *KQ_HostDesiredStatePath(void);
const char *KQ_HostControlSocketPath(void);

/* The settings file in use, "" when none. Valid until the next reload. */
const char *KQ_HostConfigPath(void);

/* "" when the settings file can be used; else its errors, one line each ("<file>: unknown
 * key \"lan\" (known keys: ...)\n"). Valid until the next reload. */
const char *KQ_HostConfigError(void);

/* "controlMemory": the bytes all connections of the agent's control socket may hold
 * together (requests being read, answers being written); default 128 MiB. */
size_t KQ_HostControlMemory(void);

/* The policy-rule table, in insertion order (a replaced rule keeps its place). The pointer
 * from KQ_HostRuleAt is null past the end and valid until the next add, delete or clear. */
size_t KQ_HostRuleCount(void);
const KQ_CONF_RULE *KQ_HostRuleAt(size_t Index);
void KQ_HostRuleClear(void);

/* Keeps the rule table in Path from now on: the rules it holds (written by an earlier
 * process) are read in, and every add and delete rewrites it. A file of another layout is
 * not read. 0, or a negative errno when it exists but cannot be read. KQ_HostRuleClear
 * forgets the file. */
KQ_ERR_T KQ_HostRuleKeepIn(const char *Path);

/* The LAN table of the settings: count, and a copy of entry Index (-ERANGE past the end). */
size_t KQ_HostLanCount(void);
KQ_ERR_T KQ_HostLanAt(size_t Index, KQ_CONF_LAN *Lan);

/* The network-namespace name of a VPN id into Buf: returns its length, -EOVERFLOW when it
 * does not fit (Buf then ""), -EINVAL for VPN id 0 (the agent's own namespace). */
KQ_ERR_T KQ_HostNetnsName(uint32_t VpnId, char *Buf, size_t Size);

/* Replaces Path with Len bytes of Data as KQ_WriteSyncWithFilePath does; Durable non-zero:
 * synced with its folder before this returns (for a file a power cut must not take, such as
 * the agent's own state), zero: atomic, not synced. */
KQ_ERR_T KQ_HostWriteFile(const char *Path, const char *Data, size_t Len, int Durable);

/* Appends Len bytes of Data to the existing regular file Path (-ENOENT when there is none)
 * in one write; Durable non-zero: synced (fdatasync) before this returns. A failed append
 * cuts the file back to where it ended. For a journal that a reader takes up to its last
 * whole line. */
KQ_ERR_T KQ_HostAppendFile(const char *Path, const char *Data, size_t Len, int Durable);

/* Dry run: from now on this process changes nothing on the machine. Every host operation
 * that would is handed to Sink instead and reported as done, as it would be on success;
 * reads still read. Op and Subject: "write" or "append" and the path (Data the bytes), "copy" and the
 * source (Data the target), "exec" or "system" and the command line, "kill" and the pid,
 * "send" and "" (Data the packet), "log" and the level "1".."4" (Data the line). For a
 * forked child that shows what the module would do; there is no way back. */
typedef void (*KQ_HOST_DRY_RUN_SINK)(void *Context, const char *Op, const char *Subject, const char *Data,
                                     size_t Len);
void KQ_HostDryRun(KQ_HOST_DRY_RUN_SINK Sink, void *Context);

/* A durable batch: one command's durable writes made durable together. Between Begin and
 * End, KQ_WriteSyncWithFilePath and KQ_FileCopy keep the texts of dhcp.conf and its backup
 * in memory (KQ_FileCopy and KQ_AllocAndGetConf read them from there) and the files on disk
 * stay as they were; other durable writes (KQ_HostWriteFile with Durable) sync their text
 * before the rename but leave the folder sync. End writes each kept text once, synced
 * before its rename, in the order first written, then syncs every folder concerned once;
 * it returns 0 when all of it is on disk, else the first failure (the files it could not
 * write keep their old text, whole). Begin: -EBUSY when a batch is open; End: -EINVAL when
 * none is. Without a batch every durable write is synced when it returns. */
KQ_ERR_T KQ_HostDurableBatchBegin(void);
KQ_ERR_T KQ_HostDurableBatchEnd(void);

/* 1 when descriptor Fd is the journal stream that systemd named in JOURNAL_STREAM, else 0.
 * On such a stderr every line of this host carries its syslog priority ("<3>" for an error,
 * as sd-daemon.h's SD_ERR): level 4 <3>, 3 <4>, 2 <6>, 1 <7>, the "kqhost:" settings lines
 * <4>; so `journalctl -p err` shows exactly the error lines. */
int KQ_HostIsJournalStream(int Fd);

/* The lowest level written (1..4), and a way to change it until the next reload (values
 * outside 1..4 are ignored). */
uint32_t KQ_HostLogLevel(void);
void KQ_HostSetLogLevel(uint32_t Level);

#ifdef __cplusplus
}
#endif

#endif /* KQ_HOST_LINUX_H */
