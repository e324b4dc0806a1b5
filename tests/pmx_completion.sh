#!/usr/bin/env bash
# The bash completion of pmx, called as bash calls it (COMP_WORDS, COMP_CWORD): subcommands and
# options read from the real tool's help, option values (choices, files), positionals (choices,
# topologies, record kinds), and a stand-in pmx whose help has a subcommand the real one lacks,
# which must complete with no change to the script.
# Usage: pmx_completion.sh <pmx executable> <source dir>
set -euo pipefail

pmx=$(realpath "${1:?usage: pmx_completion.sh <pmx> <source dir>}")
src=$(cd "${2:?}" && pwd)
export LC_ALL=C
work=$(mktemp -d "${TMPDIR:-/tmp}/pmx-completion.XXXXXX")
trap 'rm -rf "$work"' EXIT
# shellcheck source=../tools/pmx/completion/pmx.bash
source "$src/tools/pmx/completion/pmx.bash"
status=0

# complete WORD... : the candidates for the last word, sorted, one line.
complete_words() {
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _pmx 2>/dev/null
  printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//'
}
# is "<expected>" WORD... : exactly these candidates. has "<some>" WORD... : at least these.
is() {
  local want=$1 got
  shift
  got=$(complete_words "$@")
  [[ $got == "$want" ]] || { echo "completion of '${*:2}': got '$got', expected '$want'" >&2; status=1; }
}
has() {
  local want=$1 got w
  shift
  got=" $(complete_words "$@") "
  for w in $want; do
    [[ $got == *" $w "* ]] || { echo "completion of '${*:2}': '$w' missing from '$got'" >&2; status=1; }
  done
}

cd "$src"
# Subcommands, and nothing of their descriptions.
has "gen query decode load verify" "$pmx" ""
names_only='^[a-z][a-z ]*$'
[[ $(complete_words "$pmx" "") =~ $names_only ]] || { echo "subcommand list holds more than names" >&2; status=1; }
is "gen get" "$pmx" g
is "--help --version" "$pmx" --
# Options of a subcommand, and of no other.
is "--truth" "$pmx" gen --t
has "-o --output --truth --caps --progress --help" "$pmx" gen -
is "" "$pmx" gen --apply
is "--no-progress" "$pmx" verify --no
# Values: choices of an option, choices of a positional after an option and its value; none past
# the last positional.
is "hash plain" "$pmx" get --form ""
is "chip cid convert" "$pmx" query --mode 1 c
is "" "$pmx" query phyid 301 ""
is "u_intf.pmx_ifx_tbl" "$pmx" get u_intf.pmx_ifx
# Topologies: only *.topo.json files here, the checkout's samples from anywhere else.
is "examples/chassis/small.topo.json" "$pmx" gen examples/chassis/s
mkdir "$work/elsewhere"
touch "$work/elsewhere/records.json" "$work/elsewhere/mine.topo.json"
cd "$work/elsewhere"
has "mine.topo.json $src/examples/chassis/small.topo.json" "$pmx" verify ""
[[ $(complete_words "$pmx" verify "") != *records.json* ]] || { echo "a record file offered as a topology" >&2; status=1; }
# Files for options of type FILE and for record-file positionals.
is "records.json" "$pmx" gen --truth r
is "records.json" "$pmx" load --db embedded r

# A pmx with a subcommand the real one does not have yet.
cat >"$work/pmx" <<'EOF'
#!/bin/sh
case "$1" in
--help) printf 'Usage: pmx [OPTIONS] SUBCOMMAND\n\nOptions:\n  -h,--help                   Print this help message and exit\n\nSubcommands:\n  gen                         Generate\n  stats                       Count what the store holds\n' ;;
stats) printf 'Usage: pmx stats [OPTIONS] topology\n\nPositionals:\n  topology TEXT REQUIRED      The topology file\n\nOptions:\n  -h,--help                   Print this help message and exit\n  --since FILE                Compare with an earlier count\n  --top INT:POSITIVE Excludes: --all\n                              The largest tables only\n  --all                       Every table\n' ;;
esac
EOF
chmod +x "$work/pmx"
is "stats" "$work/pmx" st
is "--all --help --since --top -h" "$work/pmx" stats -
is "records.json" "$work/pmx" stats --since r
is "mine.topo.json" "$work/pmx" stats --top 3 m
exit $status
