#!/usr/bin/env bash
# pmx check: the generated chassis are clean; each fault planted in them (a record changed or
# added) is found under its rule, naming its record and key, with exit status 1; values that do
# not unpack are planted with redis-cli on a private Redis; a bad command line, capability file
# or database gives 2.
# Usage: pmx_tool_check.sh <source dir> <pmx command...>   (an emulator's words may precede pmx)
set -euo pipefail

root=${1:?usage: $0 <source dir> <pmx command...>}
shift
pmx=("$@")
[[ ${#pmx[@]} -gt 0 ]] || { echo "usage: $0 <source dir> <pmx command...>" >&2; exit 2; }
dir=$(mktemp -d "${TMPDIR:-/tmp}/pmx-check.XXXXXX")
trap '"$root/scripts/redis-private" stop "$dir/redis" >/dev/null 2>&1 || true; rm -rf "$dir"' EXIT
export PMX_RUN_DIR=$dir/run
unset PMX_DB PMX_CAP_FILE
small=$root/examples/chassis/small.json
mixed=$dir/mixed.json
"${pmx[@]}" gen "$root/examples/chassis/mixed.topo.json" -o "$mixed" >/dev/null

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# check WANT_STATUS ARGS...: runs pmx check, its output in $out (standard error in $err).
check() {
  local want=$1 status=0
  shift
  out=$("${pmx[@]}" check "$@" 2>"$dir/err") || status=$?
  err=$(cat "$dir/err")
  [[ $status == "$want" ]] || fail "pmx check $*: exit status $status, expected $want; output:
$out
$err"
}

# A count line of the table: "<rule> <n>".
has_count() { grep -Eq "^$1 +$2( |$)" <<<"$out" || fail "expected $2 '$1' findings in:
$out"; }
has_line() { grep -Fxq -- "$1" <<<"$out" || fail "expected the line '$1' in:
$out"; }

for chassis in "$small" "$mixed"; do
  check 0 --load "$chassis"
  has_count total 0
  [[ $(head -n 1 <<<"$out") =~ ^checked\ [0-9]+\ records\ of\ 16\ kinds\ in\ embedded$ ]] || fail "summary: $out"
done

# plant NAME RECORD...: a record file of the records given, one JSON object each.
plant() {
  local name=$1
  shift
  { echo '{"records": ['; local IFS=,; echo "$*"; echo ']}'; } >"$dir/$name.json"
}
ifx301='"ifx":301,"lphyid":134217740,"modid":25,"mport":12,"port":12,"dev":1,"slot":3,"lport":1,"is_valid":1'
member205='"ifx":205,"gphyid":118493200,"lphyid":134217744,"modid":16,"mport":16,"port":16,"dev":1,"slot":2,"lport":4,"is_valid":1'
table3='"status":"MODID_VALID","gslot":3,"card_type":12,"idnum_per_unit":1,"id_num":4'
units3='"fuid_info":[{"id":[25]},{"unit":1,"id":[26]},{"unit":2,"id":[27],"fuid_type":"PMX_LOGICAL"}]'
ifx_key='u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:301}'
phy_key='u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x0710190c}'
mod3='u_intf.pmx_mod_tbl UIntf__ModIndex-{devid:1,slotid:3,sslotid:0}'
mod4='u_intf.pmx_mod_tbl UIntf__ModIndex-{devid:1,slotid:4,sslotid:0}'

# Interface 301 moved to a gphyid without a physical port: found from both sides.
plant ifx_no_phy "{\"record\":\"u_intf.pmx_ifx_tbl\",\"key\":{\"ifx\":301},\"value\":{$ifx301,\"gphyid\":\"0x0710197f\",\"count\":1}}"
check 1 --load "$small" --load "$dir/ifx_no_phy.json"
has_count interface-phy 2
has_count total 2
has_line "  $ifx_key: gphyid 0x0710197f has no physical-port record (u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x0710197f} is absent)"
has_line "  $phy_key: names ifx 301, whose interface record $ifx_key has gphyid 0x0710197f"

# Its physical port at another position, and a physical port added for an ifx that has none.
plant phy_moved "{\"record\":\"u_intf.pmx_phy_tbl\",\"key\":{\"phyid\":118495500},\"value\":{$ifx301,\"gphyid\":118495500,\"slot\":4,\"lport\":2,\"count\":1}}" \
  '{"record":"u_intf.pmx_phy_tbl","key":{"phyid":"0x0710197f"},"value":{"ifx":999,"gphyid":"0x0710197f"}}'
check 1 --load "$small" --load "$dir/phy_moved.json"
has_count interface-phy 2
has_count total 2
has_line "  $ifx_key: disagrees with $phy_key: slot 3 here, 4 there; lport 1 here, 2 there"
has_line "  u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x0710197f}: names ifx 999, which has no interface record (u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:999} is absent)"

# Slot 4 lists module id 25 of slot 3; a table taken back (MODID_NONE) claims nothing.
plant modid_twice '{"record":"u_intf.pmx_mod_tbl","key":{"devid":1,"slotid":4,"sslotid":0},"value":{"status":"MODID_VALID","gslot":4,"card_type":12,"idnum_per_unit":1,"id_num":4,"id":[25,34,35,36],"fuid_info":[{"id":[25]},{"unit":1,"id":[34]},{"unit":2,"id":[35]}]}}'
check 1 --load "$small" --load "$dir/modid_twice.json"
has_count modid-shared 1
has_line "  $mod3: module id 25 is also listed by $mod4"
# ... which is not where static allocation puts slot 4's ids.
has_line "  $mod4: module ids 25 34 35 36, but static allocation gives card type 12 (node type 3) in this slot 33 34 35 36"
has_count total 2
sed 's/MODID_VALID/MODID_NONE/' "$dir/modid_twice.json" >"$dir/modid_taken_back.json"
check 1 --load "$small" --load "$dir/modid_taken_back.json"
has_count modid-shared 0

# Module ids against the card type's range, the invalid ids, the unit lists and the card record.
plant modid_range "{\"record\":\"u_intf.pmx_mod_tbl\",\"key\":{\"devid\":1,\"slotid\":3,\"sslotid\":0},\"value\":{$table3,\"id\":[25,26,17,600],$units3}}"
check 1 --load "$small" --load "$dir/modid_range.json"
has_count modid-range 4
has_line "  $mod3: module id 600 lies outside 0..511, the range of card type 12 (modid-info/12) of p_dev.card_info PDev__CardInfoIndex-{t_mod:0,devid:1,slotid:3,sslotid:0}"
has_line "  $mod3: module id 17 is declared invalid in the capability data (invalid-modids)"
has_line "  $mod3: unit 2 has module id 27 not among the table's ids (25 26 17 600)"
has_line "  $mod3: module ids 25 26 17 600, but static allocation gives card type 12 (node type 3) in this slot 25 26 27 28"
plant card_type "{\"record\":\"u_intf.pmx_mod_tbl\",\"key\":{\"devid\":1,\"slotid\":3,\"sslotid\":0},\"value\":{$table3,\"card_type\":26,\"id\":[25,26,27,28],$units3}}"
sed -i 's/"card_type":12,\("idnum\)/\1/' "$dir/card_type.json"
check 1 --load "$small" --load "$dir/card_type.json"
has_line "  $mod3: card type 26 here, 12 in p_dev.card_info PDev__CardInfoIndex-{t_mod:0,devid:1,slotid:3,sslotid:0}"
has_count total 1
# A capability file without the card type's range.
echo '{"modid-info": {"26": {"min": 0, "max": 1023, "num-per-slot": 16}}, "node-type-cap-id-num": {"3": 4, "7": 8}, "invalid-modids": [17]}' >"$dir/caps.json"
check 1 --load "$small" --caps "$dir/caps.json"
has_count modid-range 3
grep -Fq "  $mod3: card type 12 of p_dev.card_info PDev__CardInfoIndex-{t_mod:0,devid:1,slotid:3,sslotid:0} has no module-id range in the capability data (modid-info/12)" <<<"$out" ||
  fail "no finding of the missing range: $out"

# The power module's card type takes the line cards' card id 2.
plant cid_twice '{"record":"u_intf.pmx_card_address_id","key":{"card_type":26,"subcard_type":0},"value":{"card_pmx_id":2}}'
check 1 --load "$small" --load "$dir/cid_twice.json"
has_count cid-shared 1
has_count total 1
has_line "  u_intf.pmx_card_address_id UIntf__CardAddressIdIndex-{card_type:26,subcard_type:0}: card id 2 of type 26 is also the card id of type 12 in u_intf.pmx_card_address_id UIntf__CardAddressIdIndex-{card_type:12,subcard_type:0}"

# A split member whose physical port is no longer one, and the other way round.
plant split_phy "{\"record\":\"u_intf.pmx_phy_tbl\",\"key\":{\"phyid\":118493200},\"value\":{$member205,\"count\":1}}"
check 1 --load "$small" --load "$dir/split_phy.json"
has_count split-one-way 1
has_count total 1
has_line "  u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:205}: split member in the interface table only (the split maps, filled from the physical-port table, miss it): count 2 here, 1 in u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x07101010}"
plant split_ifx "{\"record\":\"u_intf.pmx_ifx_tbl\",\"key\":{\"ifx\":205},\"value\":{$member205,\"count\":1}}"
check 1 --load "$small" --load "$dir/split_ifx.json"
has_line "  u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x07101010}: split member in the physical-port table only: count 2 here, 1 in u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:205}"

# On the mixed chassis, as one JSON object: subcard type 5 takes subcard type 3's card id, and a
# member of a split port of four says two.
plant mixed_faults '{"record":"u_intf.pmx_card_address_id","key":{"card_type":12,"subcard_type":5},"value":{"card_pmx_id":11,"subcard_pmx_id":2}}' \
  '{"record":"u_intf.pmx_ifx_tbl","key":{"ifx":320},"value":{"ifx":320,"gphyid":121117852,"lphyid":134218140,"modid":28,"mport":156,"unit":1,"port":156,"dev":1,"slot":3,"lport":20,"is_valid":1,"count":2,"core":1}}'
check 1 --load "$mixed" --load "$dir/mixed_faults.json" --json
[[ $out == '{"db":"embedded","records":'*'"counts":{"interface-phy":0,"modid-shared":0,"modid-range":0,"cid-shared":1,"split-one-way":1,"unpackable":0},"total":2,"findings":[{'* ]] ||
  fail "JSON: $out"
[[ $out == *'"key":"UIntf__IfxIndex-{ifx:320}","db_key":"u_intf.pmx_ifx_tbl|320","finding":"split-one-way","what":"split port of another size: count 2 here, 4 in u_intf.pmx_phy_tbl UIntf__PhyIndex-{phyid:0x07381c9c}"'* ]] ||
  fail "JSON split finding: $out"
[[ $out == *'"key":"UIntf__CardAddressIdIndex-{card_type:12,subcard_type:5}","db_key":"u_intf.pmx_card_address_id|12|5","finding":"cid-shared","what":"card id 11 of type 5 is also the card id of type 3 in u_intf.pmx_card_address_id UIntf__CardAddressIdIndex-{card_type:12,subcard_type:3}"'* ]] ||
  fail "JSON card id finding: $out"

# What stops the check before it starts.
check 2 --nope
check 2 --caps "$dir/absent.json"
[[ $err == "pmx: cannot read the capability file $dir/absent.json" ]] || fail "missing caps: $err"
check 2 --db "unix://$dir/none/redis.sock"
[[ $err == *"pmx: cannot read p_dev.dp_lib_my_info from database 1 of unix://$dir/none/redis.sock: no connection to the server" ]] ||
  fail "unreachable database: $err"
check 0
[[ $err == "pmx: note: embedded holds no record of the kinds the library follows" ]] || fail "empty database: $err"
check 0 --help
[[ $out == *"pmx check --db unix:///tmp/pmxdb/redis.sock"* ]] || fail "no example in --help: $out"

# Values that are not records: a plain record's bytes and a hash record's field, raw.
url=$("$root/scripts/redis-private" start "$dir/redis")
"${pmx[@]}" gen "$root/examples/chassis/mixed.topo.json" --db "$url" >/dev/null
check 0 --db "$url"
redis=(redis-cli -s "$dir/redis/redis.sock" -n 26)
"${redis[@]}" set 'u_intf.pmx_card_address_id|12|0' $'\x0a\xff' >/dev/null
"${redis[@]}" hset 'u_intf.pmx_ifx_tbl|301' gphyid $'\xff' >/dev/null
check 1 --db "$url"
has_count unpackable 2
has_line "  u_intf.pmx_card_address_id UIntf__CardAddressIdIndex-{card_type:12,subcard_type:0}: the value stored in database 26 does not unpack as u_intf.pmx_card_address_id"
has_line "  u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:301}: the value stored in database 26 does not unpack as u_intf.pmx_ifx_tbl"
# Its physical port now names an interface that cannot be read.
has_count interface-phy 1
has_count total 3
echo "pmx check: clean chassis, every planted fault, JSON, exit statuses and unpackable values passed"
