#!/usr/bin/env bash
# pmx on a private Redis server: what one process loads, other processes read (the library's
# start-up and reads included), each record lands in the database and form the library reads,
# a record printed by get --json loads back as the same record, and a follower process keeps its
# caches current and serves them to another (its tables, and pmx map of them).
# Usage: pmx_tool_redis.sh <source dir> <pmx command...>   (an emulator's words may precede pmx)
set -euo pipefail

root=${1:?usage: $0 <source dir> <pmx command...>}
shift
pmx=("$@")
[[ ${#pmx[@]} -gt 0 ]] || { echo "usage: $0 <source dir> <pmx command...>" >&2; exit 2; }
chassis=$root/examples/chassis/small.json
dir=$(mktemp -d "${TMPDIR:-/tmp}/pmx-tool.XXXXXX")
trap '"$root/scripts/redis-private" stop "$dir" || true; rm -rf "$dir"' EXIT
url=$("$root/scripts/redis-private" start "$dir")
export PMX_RUN_DIR=$dir/run
unset PMX_DB

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

out=$("${pmx[@]}" load --db "$url" "$chassis")
[[ $out == "loaded 123 records into $url" ]] || fail "load printed '$out'"

out=$("${pmx[@]}" get --db "$url" --compact u_intf.pmx_mod_tbl 1 3 0)
[[ $out == *"index:UIntf__ModIndex-{devid:1,slotid:3,sslotid:0},status:1-MODID_VALID,gslot:3,"*"id:[25,26,27,28],"* ]] ||
  fail "get of the module table printed '$out'"

out=$(PMX_DB=$url "${pmx[@]}" whoami)
diff -u "$root/tests/data/pmx_whoami_small.txt" - <<<"$out" || fail "whoami differs"

# Database and form of a kind as the library's record catalogue gives them.
while read -r db key type; do
  got=$(redis-cli -s "$dir/redis.sock" -n "$db" type "$key")
  [[ $got == "$type" ]] || fail "$key in database $db is '$got', expected $type"
done <<'EOF'
26 u_intf.pmx_ifx_tbl|301 hash
26 u_intf.pmx_card_address_id|12|0 string
1 p_dev.dp_lib_my_info hash
1 p_dev.dm_card_stattr_t|12 string
EOF

# Enums, bytes, nested and repeated messages survive the way out as JSON and back.
for args in "p_dev.dm_card_stattr_t 12" "p_dev.dp_lib_my_info"; do
  # shellcheck disable=SC2086 # the record name and its key words
  "${pmx[@]}" get --db "$url" --json $args >"$dir/record.json"
  # shellcheck disable=SC2086
  stored=$("${pmx[@]}" get --db "$url" --compact $args)
  # shellcheck disable=SC2086
  reloaded=$("${pmx[@]}" get --db embedded --load "$dir/record.json" --compact $args)
  [[ $stored == "$reloaded" ]] || fail "$args changed through JSON: '$stored' became '$reloaded'"
done
# A follower loads what is there, reports each notify type once, follows a delete, and answers
# another process's dump through its debug shell.
"${pmx[@]}" follow --db "$url" --json >"$dir/follow.jsonl" 2>"$dir/follow.err" &
follower=$!
served() { [[ $("${pmx[@]}" dump --module libpmx_pmx ifx 2>/dev/null | tail -n 1) == "total: $1 interfaces" ]]; }
for _ in $(seq 300); do served 35 && break; sleep 0.1; done
served 35 || { cat "$dir/follow.err" >&2; fail "the follower did not load the 35 interfaces"; }
# pmx map of the follower's caches, read through its debug shell, is the map of the database.
map_data() { "${pmx[@]}" map "$@" -o "$dir/map.html" >/dev/null && sed 's/"source":"[^"]*"//' "$dir/map.html"; }
map_data --module libpmx_pmx >"$dir/map.module"
map_data --db "$url" >"$dir/map.db"
cmp -s "$dir/map.module" "$dir/map.db" || fail "the follower's map differs from the database's"
redis-cli -s "$dir/redis.sock" -n 26 del "u_intf.pmx_ifx_tbl|301" >/dev/null
for _ in $(seq 300); do served 34 && break; sleep 0.1; done
served 34 || fail "the follower did not follow the delete of interface 301"
[[ $(map_data --module libpmx_pmx | grep -o '"absent"' | wc -l) == 1 ]] ||
  fail "the follower's map does not show port 1/3/0/1 without its interface"
# Why did interface 301 change: the follower's history has its add and then its delete, newest first.
history=$("${pmx[@]}" history libpmx_pmx --key 'ifx:301}')
[[ $(grep -oE '^[-0-9]+ [0-9:.]+ #[0-9]+ (add|delete) +u_intf.pmx_ifx_tbl UIntf__IfxIndex-\{ifx:301\}' <<<"$history" |
  awk '{print $4}' | paste -sd,) == "delete,add" ]] || fail "the follower's history of ifx 301: '$history'"
[[ $("${pmx[@]}" history libpmx_pmx --json --count 1 --record pmx_ifx_tbl) == '{"table":"history","rows":[{"seq":'*'"op":"delete"'*'"total":1}' ]] ||
  fail "the follower's history as JSON"
# Its statistics count the lookups that the dumps above did not make, and the applied changes.
stats=$("${pmx[@]}" stats libpmx_pmx --json)
[[ $stats == *'{"record":"u_intf.pmx_ifx_tbl",'*'"applied_adds":35,"applied_deletes":1}'* ]] ||
  fail "the follower's statistics: '$stats'"
notify=$("${pmx[@]}" dump --module libpmx_pmx notify)
[[ $notify == *"LIBPMX_NOTIFY_LMODID_EVENT     has ready"* && $notify == *"LIBPMX_NOTIFY_MYCHSS_EVENT     has ready"* ]] ||
  fail "the follower's notify types: '$notify'"
kill -INT "$follower"
wait "$follower" || fail "the follower exited with $?"
grep -q '"op":"del","record":"u_intf.pmx_ifx_tbl","key":"UIntf__IfxIndex-{ifx:301}"' "$dir/follow.jsonl" ||
  fail "the follower did not print the delete"
for t in 1 2 3 4 5 6 7; do
  [[ $(grep -c "\"notify\":$t," "$dir/follow.jsonl") == 1 ]] || fail "notify type $t printed other than once"
done
echo "pmx on $url: load, get, whoami, JSON round trip and a follower (its map, history and statistics) passed"
