#!/usr/bin/env bash
# The installed manual pages cannot drift from the program: every command that the built
# `kqagent help` lists has its entry in kqagent(8), every settings key that the reference
# host's parser reads has its entry in kqagent.conf(5), the help names installed documents
# only, and mandoc finds nothing to say. The check also proves itself: a page with one
# command or one key taken out must fail it.
# usage: man_sync.sh KQAGENT MANDIR SETTINGS_SOURCE
set -u
agent=$1 mandir=$2 settings=$3
status=0
fail() { echo "man_sync: $*" >&2; status=1; }

# The lines of one section (.SH NAME up to the next .SH) of a page.
section() { awk -v name="$2" '/^\.SH /{on = ($0 == ".SH " name); next} on' "$1"; }

# Commands as the usage lists them: "  NAME ..." lines under "commands:".
commands=$("$agent" help | awk '/^commands:/{on=1; next} on && /^$/{exit} on && /^  [a-z]/{print $1}')
# Keys as the parser compares them: k == "key".
keys=$(grep -o 'k == "[A-Za-z0-9]*"' "$settings" | sed 's/.*"\(.*\)"/\1/')
[ -n "$commands" ] || fail "no commands found in 'kqagent help'"
[ -n "$keys" ] || fail "no settings keys found in $settings (k == \"key\")"

# Each command starts a tagged paragraph of COMMANDS (".TP", then ".B name", ".BI \"name ...");
# each key one of KEYS (".TP", then ".B \(dqkey\(dq").
missing() {  # PAGE8 PAGE5: prints what either page lacks
  local cmd key
  for cmd in $commands; do
    section "$1" COMMANDS | grep -A1 '^\.TP' | grep -Eq "^\.B[IR]? \"?$cmd( |\"|\$)" || echo "kqagent.8: command $cmd"
  done
  for key in $keys; do
    section "$2" KEYS | grep -A1 '^\.TP' | grep -Fxq ".B \\(dq$key\\(dq" || echo "kqagent.conf.5: key \"$key\""
  done
}
gaps=$(missing "$mandir/kqagent.8" "$mandir/kqagent.conf.5")
[ -z "$gaps" ] || fail "missing from the manual pages:"$'\n'"$gaps"

# The help points at what is installed, never at the source tree.
for cmd in "" $commands; do
  if "$agent" help $cmd | grep -En 'README|tools/|\.md\b|\.cpp\b'; then
    fail "'kqagent help $cmd' names a file that is not installed"
  fi
done

if command -v mandoc >/dev/null; then
  lint=$(mandoc -Tlint "$mandir/kqagent.8" "$mandir/kqagent.conf.5" 2>&1)
  [ -z "$lint" ] || fail "mandoc -Tlint:"$'\n'"$lint"
elif [ "${CI:-}" = true ]; then
  fail "mandoc is missing under CI"
fi

# The check itself: the first command's and the last key's entries taken out are caught.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
first=$(head -1 <<<"$commands") last=$(tail -1 <<<"$keys")
awk -v cmd="$first" 'prev == ".TP" && $0 ~ "^\\.B[IR]? \"?" cmd "( |\"|$)" {drop=1} /^\.TP/{drop=0} {if (!drop) print; prev=$0}' \
  "$mandir/kqagent.8" >"$scratch/kqagent.8"
grep -v -F "(dq$last\\(dq" "$mandir/kqagent.conf.5" >"$scratch/kqagent.conf.5"
caught=$(missing "$scratch/kqagent.8" "$scratch/kqagent.conf.5")
[ "$caught" = "kqagent.8: command $first"$'\n'"kqagent.conf.5: key \"$last\"" ] ||
  fail "pages without command $first and key \"$last\" were judged: ${caught:-complete}"
exit $status
