# Tests of the pmx command-line tool: each runs the real executable through run_pmx_tool.cmake.
set(pmx_records ${PROJECT_SOURCE_DIR}/examples/records)

function(pmx_tool_test name)
  cmake_parse_arguments(T "EXPECT_FAIL" "ARGS;STDIN;EXPECT_STDOUT;STDOUT_REGEX;STDERR_REGEX" "" ${ARGN})
  add_test(NAME pmx_tool_${name}
    COMMAND ${CMAKE_COMMAND} -DTOOL=${pmx_emulator}$<TARGET_FILE:pmx_tool> "-DARGS=${T_ARGS}" "-DSTDIN=${T_STDIN}"
            -DEXPECT_FAIL=${T_EXPECT_FAIL} "-DEXPECT_STDOUT=${T_EXPECT_STDOUT}"
            "-DSTDOUT_REGEX=${T_STDOUT_REGEX}" "-DSTDERR_REGEX=${T_STDERR_REGEX}"
            -P ${CMAKE_CURRENT_SOURCE_DIR}/run_pmx_tool.cmake)
endfunction()

# A sample file, as hex over several lines on standard input, in the indented form.
pmx_tool_test(decode_indented ARGS "decode|u_intf.pmx_ifx_tbl|-"
  STDIN ${pmx_records}/u_intf.pmx_ifx_tbl.ifx12.hex
  EXPECT_STDOUT ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_decode_ifx12.txt)

# Hex split over arguments, with a 0x prefix, in the compact form.
pmx_tool_test(decode_compact ARGS "decode|--compact|u_intf.pmx_card_address_id|0x2a04081a|1000|3003"
  STDOUT_REGEX "^UIntf__PmxCardAddressId-{index:UIntf__CardAddressIdIndex-{card_type:26,subcard_type:0},card_pmx_id:3,subcard_pmx_id:0}\n$")

# The file holds the four characters "0182": read raw, they are the tags and values of fields 6
# and 7 ('0' = 0x30, '1' = 49, '8' = 0x38, '2' = 50); read as hex, the bytes 01 82 do not unpack.
pmx_tool_test(decode_raw ARGS "decode|--raw|--compact|u_intf.pmx_card_address_id|-"
  STDIN ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_decode_raw.in
  STDOUT_REGEX "card_pmx_id:49,subcard_pmx_id:50}")
pmx_tool_test(decode_not_unpacking EXPECT_FAIL ARGS "decode|u_intf.pmx_card_address_id|-"
  STDIN ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_decode_raw.in
  STDERR_REGEX "^pmx: 2 bytes do not unpack as u_intf.pmx_card_address_id\n$")

pmx_tool_test(unknown_kind EXPECT_FAIL ARGS "decode|u_intf.nope|00"
  STDERR_REGEX "unknown record kind 'u_intf.nope'")
pmx_tool_test(unknown_kind_hint EXPECT_FAIL ARGS "decode|pmx_mod_tbl|00"
  STDERR_REGEX "did you mean 'u_intf.pmx_mod_tbl'")
pmx_tool_test(bad_hex EXPECT_FAIL ARGS "decode|u_intf.pmx_ifx_tbl|2a 0g"
  STDERR_REGEX "non-hex character 'g' at position 5")
pmx_tool_test(odd_hex EXPECT_FAIL ARGS "decode|u_intf.pmx_ifx_tbl|0x2a020"
  STDERR_REGEX "odd number of hex digits: the digit at position 7 has no pair")

pmx_tool_test(list_kinds ARGS "decode|--list"
  STDOUT_REGEX "(^|\n)p_dev.card_info\n(.*\n)?u_intf.pmx_ifx_tbl\n")

# pmx shell against a live server: ssat_test_server serves the module "demo" (commands echo, fail
# and pid) from a private directory while it runs the tool; its log shares standard error. With
# TWICE a second server of "demo" runs the tool beside the first.

function(pmx_shell_test name)
  cmake_parse_arguments(T "EXPECT_FAIL;TWICE" "ARGS;STDIN;STDOUT_REGEX;STDERR_REGEX;EXPECT_STATUS" "" ${ARGN})
  set(run "${pmx_emulator}$<TARGET_FILE:pmx_tool>|shell")
  if(T_TWICE)
    set(run "${pmx_emulator}$<TARGET_FILE:ssat_test_server>|${run}")
  endif()
  add_test(NAME pmx_tool_shell_${name}
    COMMAND ${CMAKE_COMMAND} -DTOOL=${pmx_emulator}$<TARGET_FILE:ssat_test_server>
            "-DARGS=${run}|${T_ARGS}" "-DSTDIN=${T_STDIN}" "-DEXPECT_STATUS=${T_EXPECT_STATUS}"
            -DEXPECT_FAIL=${T_EXPECT_FAIL} "-DSTDOUT_REGEX=${T_STDOUT_REGEX}"
            "-DSTDERR_REGEX=${T_STDERR_REGEX}" -P ${CMAKE_CURRENT_SOURCE_DIR}/run_pmx_tool.cmake)
endfunction()

pmx_shell_test(run ARGS "demo|echo|a|dbg_level=4" STDOUT_REGEX "^a dbg_level=4\n$")
pmx_shell_test(failing EXPECT_FAIL ARGS "demo|fail|3"
  STDOUT_REGEX "^failing with 3\n$" STDERR_REGEX "(^|\n)pmx: 'fail' ended with code 3\n")
pmx_shell_test(list ARGS "demo|--list"
  STDOUT_REGEX "^help +list[^\n]*\necho +print the arguments\nfail +end with the code given")
pmx_shell_test(unknown EXPECT_FAIL ARGS "demo|nope|x"
  STDERR_REGEX "unknown command 'nope' in module demo; 'help' lists the commands")
pmx_shell_test(not_serving EXPECT_FAIL ARGS "absent|echo|x"
  STDERR_REGEX "(^|\n)pmx: module absent is not serving: no process answers on a socket of it in /")
pmx_shell_test(not_that_pid EXPECT_FAIL ARGS "demo|--pid|1|echo|x"
  STDERR_REGEX "(^|\n)pmx: module demo is not serving in process 1: cannot connect to /[^\n]*/demo.1.sock: ")
pmx_shell_test(bad_module EXPECT_FAIL ARGS "../x|echo" STDERR_REGEX "invalid module name '../x'")
# Lines from standard input: blanks trimmed, empty lines skipped, "quit" ends the session, and
# a failed command makes it fail.
pmx_shell_test(session EXPECT_FAIL ARGS "demo" STDIN ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_shell_session.in
  STDOUT_REGEX "^one\ntwo\nfailing with 2\n$" STDERR_REGEX "'fail' ended with code 2")
# Two processes serve "demo": both are listed, neither is picked without --pid, each by its pid.
set(pmx_demo_row "demo +[0-9]+  /[^\n]*/demo\\.[0-9]+\\.sock\n")
pmx_shell_test(list_modules TWICE ARGS "--list-modules" STDOUT_REGEX "^${pmx_demo_row}${pmx_demo_row}$")
pmx_shell_test(several TWICE EXPECT_STATUS 2 ARGS "demo|echo|x"
  STDERR_REGEX "(^|\n)pmx: module demo is served by several processes; pick one with --pid:\n  ${pmx_demo_row}  ${pmx_demo_row}")
add_test(NAME pmx_tool_shell_pick_pid
  COMMAND ${CMAKE_COMMAND} -DTOOL=${pmx_emulator}$<TARGET_FILE:ssat_test_server>
          "-DARGS=${pmx_emulator}$<TARGET_FILE:ssat_test_server>|sh|-c|out=$(\"$@\" shell demo --pid $SSAT_TEST_SERVER_PID pid) && test \"$out\" = $SSAT_TEST_SERVER_PID|sh|${pmx_emulator}$<TARGET_FILE:pmx_tool>"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/run_pmx_tool.cmake)

# Records from a JSON file in the embedded store, which lives as long as one pmx run: every
# command below loads the sample chassis itself.
set(pmx_chassis ${PROJECT_SOURCE_DIR}/examples/chassis/small.json)
function(pmx_db_test name)
  pmx_tool_test(${name} ${ARGN})
  # Each run starts the library's debug shell: a directory of its own, and no outside database.
  set_tests_properties(pmx_tool_${name} PROPERTIES
    ENVIRONMENT "PMX_DB=;PMX_RUN_DIR=${CMAKE_CURRENT_BINARY_DIR}/pmx_tool_run_${name}")
endfunction()

# The identity and card attributes as the library computes them from the records.
pmx_db_test(whoami ARGS "whoami|--load|${pmx_chassis}"
  EXPECT_STDOUT ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_whoami_small.txt)
# Without the identity record nothing can be told, and the tool does not wait for the card
# attributes of an unknown card type.
pmx_db_test(whoami_empty EXPECT_FAIL ARGS "whoami|--wait-seconds|0"
  STDOUT_REGEX "  slot +unknown\n.*  max lport id +unknown\n"
  STDERR_REGEX "pmx: no local identity: p_dev.dp_lib_my_info is not readable from database 1 of embedded\n")

# A hash record keyed in hex (0x12d = 301), and a plain record with a two-field key.
pmx_db_test(get_hash ARGS "get|--load|${pmx_chassis}|--compact|u_intf.pmx_ifx_tbl|0x12d"
  STDOUT_REGEX "^UIntf__PmxIfxTbl-{index:UIntf__IfxIndex-{ifx:301},ifx:301,gphyid:0x0710190c,lphyid:0x0800000c,")
pmx_db_test(get_plain ARGS "get|--load|${pmx_chassis}|--compact|u_intf.pmx_card_address_id|12|0"
  STDOUT_REGEX "^UIntf__PmxCardAddressId-{index:UIntf__CardAddressIdIndex-{card_type:12,subcard_type:0},card_pmx_id:2,subcard_pmx_id:0}\n$")
pmx_db_test(get_missing EXPECT_FAIL ARGS "get|--load|${pmx_chassis}|p_dev.card_info|0|1|9|0"
  STDERR_REGEX "(^|\n)pmx: p_dev.card_info t_mod=0 devid=1 slotid=9 sslotid=0 is not in database 1\n")
pmx_db_test(get_other_form EXPECT_FAIL ARGS "get|--load|${pmx_chassis}|--form|plain|u_intf.pmx_ifx_tbl|301"
  STDERR_REGEX "reading u_intf.pmx_ifx_tbl ifx=301 as a plain record from database 26 failed")
# A kind the library does not read has no place of its own: the user names its database.
pmx_db_test(get_no_place EXPECT_FAIL ARGS "get|s_intf.ifx_name|1"
  STDERR_REGEX "^pmx: s_intf.ifx_name is not a record the library reads: give --dbnum\n$")
pmx_db_test(get_key_count EXPECT_FAIL ARGS "get|u_intf.pmx_mod_tbl|1|3"
  STDERR_REGEX "pmx: u_intf.pmx_mod_tbl is keyed by devid slotid sslotid: give 3 values\n")

# Edge values of each integer width, hex strings, an enum by number, bytes with blanks and 0x.
pmx_db_test(load_values ARGS "get|--load|${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_load_values.json|--compact|p_dev.dm_card_stattr_t|7"
  STDOUT_REGEX "mgmt_type:23-MGMT,cpu_name_array:\\[\"cpu\\|0\",\"\"\\],.*,lport:-2147483648,.*,intf_attr:-9223372036854775808,.*,cap_flag:9223372036854775807,.*,mac_attr:PDev__DmPortMacAttr-{use_card_mac:true,mac_offset:0,mac_addr:6-bytes-02504D000103},.*,phy_channel:4294967295,")
# An error deep in a record names the file, the line the record starts on, the record with its
# key, and the field path.
pmx_db_test(load_bad_field EXPECT_FAIL ARGS "load|${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_load_bad_field.json"
  STDERR_REGEX "pmx_load_bad_field.json:4: record 2 \\(p_dev.dm_card_stattr_t, key {\"type\":12}\\): value.chip_attr_array\\[0\\].port_attr\\[1\\].lport: 4294967296 is out of range for int32\n")

# One query of the library with its read mode; phyids decoded; each refusal named with its code.
pmx_db_test(query_phyid ARGS "query|--load|${pmx_chassis}|phyid|301|--mode|1"
  STDOUT_REGEX "^phyid 301 \\(mode 1\\)\n  ifx +301\n  gphyid +0x0710190c \\(global port: cid 2, modid 25, port 12\\)\n$")
pmx_db_test(query_cid_json ARGS "query|--load|${pmx_chassis}|--json|cid|12|--mode|1"
  STDOUT_REGEX "^{\"query\":\"cid\",\"id\":\"12\",\"mode\":1,\"result\":0,\"card_type\":12,\"subcard_type\":0,\"cid\":2}\n$")
pmx_db_test(query_cache_only EXPECT_FAIL ARGS "query|--load|${pmx_chassis}|phyid|301|--mode|0"
  STDERR_REGEX "pmx: phyid 301 \\(mode 0\\): not in the caches of this process \\(mode 0 does not read the database\\) \\(-7 LIBPMX_E_NOT_FOUND\\)\n")
pmx_db_test(query_ifx_zero EXPECT_FAIL ARGS "query|phyid|0" STDERR_REGEX "ifx 0 is no interface \\(-4 LIBPMX_E_INVAL\\)")
pmx_db_test(query_wrong_type EXPECT_FAIL ARGS "query|sub-ap|0x13000005"
  STDERR_REGEX "not a sub-AP phyid: its type is 19, a sub-AP phyid has type 20 \\(-4 LIBPMX_E_INVAL\\)")
# A module id's card and cid (subcard port of slot 4 on the sample chassis), and the blocking
# lookup, which checks the port's card before it waits.
pmx_db_test(query_modid_subcard ARGS "query|--load|${pmx_chassis}|--json|modid|33|--port|20"
  STDOUT_REGEX "\"dev\":1,\"slot\":4,.*\"card_type\":12,\"subcard_type\":3,\"cid\":5,\"local\":false}")
pmx_db_test(query_ifx_block ARGS "query|--load|${pmx_chassis}|ifx-block|0x0710190c" STDOUT_REGEX "ifx +301\n")
pmx_db_test(query_ifx_block_wrong_cid EXPECT_FAIL ARGS "query|--load|${pmx_chassis}|ifx-block|0x0718190c"
  STDERR_REGEX "no present card whose cid is the phyid's cid field 3 .*\(-11 LIBPMX_E_FAIL\)")
# Module ids of a card's units, the local chip ports, split ports and system ports; bad tuples
# named with the rule they break.
pmx_db_test(query_chip ARGS "query|--load|${pmx_chassis}|--json|chip|1/3/1" STDOUT_REGEX "\"core\":0,\"modid\":26}")
pmx_db_test(query_chip_core EXPECT_FAIL ARGS "query|--load|${pmx_chassis}|chip|1/3/1/16"
  STDERR_REGEX "core 16: a dev is 1 to 16, a slot 0 to 31, a core 0 to 15, .*\\(LIBPMX_E_INVAL\\)")
pmx_db_test(query_unit_port ARGS "query|--load|${pmx_chassis}|--json|unit-port|1/4"
  STDOUT_REGEX "\"lport\":8,\"core\":0,\"virtual_unit\":false,\"subcard_type\":0,\"scid\":0}")
pmx_db_test(query_split ARGS "query|--load|${pmx_chassis}|split|16/16/2" STDOUT_REGEX "gphyid +0x07101010 ")
pmx_db_test(query_sysport ARGS "query|--load|${pmx_chassis}|sysport|772" STDOUT_REGEX "lport +4\n  gphyid +0x0710190f ")
pmx_db_test(query_convert ARGS "query|--load|${pmx_chassis}|--apply|--mode|0|convert|0x0800000c"
  STDOUT_REGEX "gphyid +0x0710190c [^\n]*\n  modid/port +\"25/12\"\n  unit/port +\"0/12\"\n")
pmx_db_test(query_convert_tunnel ARGS "query|--load|${pmx_chassis}|convert|0x20000005"
  STDOUT_REGEX "modid/port +\"result -4 LIBPMX_E_INVAL: a tunnel id is no physical port\"")
pmx_db_test(query_mod_port ARGS "query|--load|${pmx_chassis}|mod-port|81/1" STDOUT_REGEX "gphyid +0x19185101 \\(power-module")
pmx_db_test(query_bad_tuple EXPECT_FAIL ARGS "query|chip|1/3" STDERR_REGEX "'1/3' takes 3 to 4 numbers separated by '/'")
# pmx dump: the library's tables filled from the records as the change callbacks fill them.
pmx_db_test(dump_chipslot ARGS "dump|--load|${pmx_chassis}|chipslot"
  STDOUT_REGEX "0x000002  \t16 18 19 \t0xc\n.*0x000005  \t81 \t0x1a\n")
pmx_db_test(dump_split_port ARGS "dump|--load|${pmx_chassis}|split-port"
  STDOUT_REGEX "\\|  1\\|   2\\|    0\\|   0\\|  16\\|    4\\|\n.*total 2\n")
pmx_db_test(dump_port_table ARGS "dump|--load|${pmx_chassis}|port-table" STDOUT_REGEX "    8 \\|    1 \\|    4 \\|.*total 8 ports, lport_num 8")
pmx_db_test(dump_json_chipslot ARGS "dump|--load|${pmx_chassis}|--json|chipslot|gslot=5"
  STDOUT_REGEX "^{\"table\":\"chipslot\",\"rows\":\\[{\"gslot\":\"0x00000005\",\"status\":\"alloc\",\"card_type\":26,\"fuid_num\":1,\"modids\":\"81\"}\\],\"total\":1}\n$")
pmx_db_test(dump_json_sysport ARGS "dump|--load|${pmx_chassis}|--json|sysport"
  STDOUT_REGEX "{\"sysport\":772,\"dev\":1,\"slot\":3,\"sslot\":0,\"lport\":4,\"gphyid\":\"0x0710190f\"}.*\"total\":28}\n$")
pmx_db_test(dump_json_none EXPECT_FAIL ARGS "dump|--json|cap" STDERR_REGEX "table 'cap' has no JSON form")
pmx_db_test(dump_bad_argument EXPECT_FAIL ARGS "dump|--load|${pmx_chassis}|chipslot|slot=3" STDOUT_REGEX "usage: dump_chipslot")
pmx_db_test(dump_unknown_table EXPECT_FAIL ARGS "dump|nope" STDERR_REGEX "no table 'nope'")
pmx_db_test(query_bad_id EXPECT_FAIL ARGS "query|ifx|0x1g" STDERR_REGEX "^pmx: '0x1g' is not a 32-bit id \\(decimal, or hex with 0x\\)\n$")

# A number beyond a double is a JSON error of the file, not a crash.
pmx_db_test(load_huge_number EXPECT_FAIL ARGS "load|${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_load_huge_number.json"
  STDERR_REGEX "pmx_load_huge_number.json: [^\n]*number overflow")

# Several processes on one Redis server.
add_test(NAME pmx_tool_redis
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/pmx_tool_redis.sh ${PROJECT_SOURCE_DIR} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:pmx_tool>)
set_tests_properties(pmx_tool_redis PROPERTIES TIMEOUT ${pmx_test_timeout})

# pmx gen: the sample chassis from its topology is the committed small.json, which pmx load reads
# back; the sub-AP of port 1/3/0/5 is there with its evlan, trunk and parent port.
set(pmx_chassis_dir ${PROJECT_SOURCE_DIR}/examples/chassis)
add_test(NAME pmx_tool_gen_small
  COMMAND ${CMAKE_COMMAND} -DTOOL=sh
          "-DARGS=-c|\"$@\" gen ${pmx_chassis_dir}/small.topo.json -o gen_small.json --truth gen_small.truth >/dev/null && cmp gen_small.json ${pmx_chassis_dir}/small.json && \"$@\" get --load gen_small.json --compact u_intf.pmx_sub_ap_intf 1005|sh|${pmx_emulator}$<TARGET_FILE:pmx_tool>"
          "-DSTDOUT_REGEX=^UIntf__PmxSubApIntf-{index:UIntf__IfxIndex-{ifx:1005},phyid:0x140003ed,evlan:200,trunk:1,master_phyid:0x07101a01}\n$"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/run_pmx_tool.cmake)
set_tests_properties(pmx_tool_gen_small PROPERTIES
  ENVIRONMENT "PMX_DB=;PMX_CAP_FILE=;PMX_RUN_DIR=${CMAKE_CURRENT_BINARY_DIR}/pmx_tool_run_gen_small")
# Each error names the file, the path in it and the bad value.
# pmx verify: every conversion from every card's point of view against the truth table, on the
# sample chassis and on a second one with cores, subcards in two sub-slots, split ports, sub-routes
# and power modules.
pmx_tool_test(verify_small ARGS "verify|--no-progress|${pmx_chassis_dir}/small.topo.json"
  STDOUT_REGEX "^verified [^\n]*small.topo.json: 5 cards, 29 ports, [0-9]+ answers checked, 0 mismatches\n$")
pmx_tool_test(verify_mixed ARGS "verify|--no-progress|${pmx_chassis_dir}/mixed.topo.json"
  STDOUT_REGEX "^verified [^\n]*mixed.topo.json: 12 cards, 178 ports, [0-9]+ answers checked, 0 mismatches\n$")

set(pmx_gen_data ${CMAKE_CURRENT_SOURCE_DIR}/data/gen)
pmx_tool_test(gen_dup_slot EXPECT_FAIL ARGS "gen|${pmx_gen_data}/dup_slot.topo.json|-o|gen_bad.json"
  STDERR_REGEX "^pmx: [^\n]*/dup_slot.topo.json: devices\\[0\\].slots\\[1\\].slot: slot 3 of device 1 is given twice \\(also devices\\[0\\].slots\\[0\\]\\)\n$")
pmx_tool_test(gen_unknown_card EXPECT_FAIL ARGS "gen|${pmx_gen_data}/unknown_card.topo.json|-o|gen_bad.json"
  STDERR_REGEX "^pmx: [^\n]*/unknown_card.topo.json: devices\\[0\\].slots\\[0\\].card: unknown card type 'LC-9' \\(card_types has LC-8XS\\)\n$")
pmx_tool_test(gen_port_beyond EXPECT_FAIL ARGS "gen|${pmx_gen_data}/port_beyond.topo.json|-o|gen_bad.json"
  STDERR_REGEX "^pmx: [^\n]*/port_beyond.topo.json: sub_interfaces\\[0\\].ports: \"1/2/0/9\": lport 9 is beyond the ports of LC-8XS in 1/2/0 \\(8 panel ports from 1\\)\n$")
pmx_tool_test(gen_modid_exhausted EXPECT_FAIL ARGS "gen|${pmx_gen_data}/modid_exhausted.topo.json|-o|gen_bad.json"
  STDERR_REGEX "^pmx: [^\n]*/modid_exhausted.topo.json: devices\\[0\\].slots\\[0\\].card: module id range exhausted: card type LC-8XS in 1/3/0 would take module id 24, outside 0..20 \\(modid-info/12 of [^\n]*/narrow.caps.json\\)\n$")
pmx_tool_test(gen_backplane_front EXPECT_FAIL ARGS "gen|${pmx_gen_data}/backplane_front.topo.json|-o|gen_bad.json"
  STDERR_REGEX "card_types\\[0\\].backplane.ports\\[0\\].ports: unit 0 chip port 8 is a front-panel port of the card\n$")
pmx_tool_test(gen_ifx_collision EXPECT_FAIL ARGS "gen|${pmx_gen_data}/ifx_collision.topo.json|-o|gen_bad.json"
  STDERR_REGEX "^pmx: [^\n]*/ifx_collision.topo.json: sub_interfaces\\[0\\].ifx: ifx collision: ifx 3 of sub-route 1/2/0/1 evlan 100 is already taken by port 1/2/0/3\n$")

# pmx churn: the changes depend on the seed alone, not on the rate; every change is journaled.
add_test(NAME pmx_tool_churn_seeded
  COMMAND ${CMAKE_COMMAND} -DTOOL=sh
          "-DARGS=-c|t=${pmx_chassis_dir}/small.topo.json && \"$@\" churn $t --db embedded --changes 400 --rate 100000 --seed 3 --journal churn_a.jsonl >/dev/null && \"$@\" churn $t --db embedded --changes 400 --rate 20000 --seed 3 --journal churn_b.jsonl && \"$@\" churn $t --db embedded --changes 400 --rate 100000 --seed 4 --journal churn_c.jsonl >/dev/null && cut -d, -f2- churn_a.jsonl >churn_a && cut -d, -f2- churn_b.jsonl >churn_b && cut -d, -f2- churn_c.jsonl >churn_c && cmp churn_a churn_b && ! cmp -s churn_a churn_c && test $(grep -c '\"op\":\"del\"' churn_a) -gt 40 && test $(wc -l <churn_a) = 400|sh|${pmx_emulator}$<TARGET_FILE:pmx_tool>"
          "-DSTDOUT_REGEX=^wrote 123 records of the chassis into embedded\nchurning 25 interfaces, 4 module tables and 6 sub-interfaces \\(8 more come and go\\) at 20000 changes/s, seed 3\n400 changes in [0-9.]+ s: [0-9]+ changes/s \\(asked 20000/s\\); [0-9]+ interface, [0-9]+ module-table and [0-9]+ sub-interface changes\n$"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/run_pmx_tool.cmake)
set_tests_properties(pmx_tool_churn_seeded PROPERTIES
  ENVIRONMENT "PMX_DB=;PMX_CAP_FILE=;PMX_RUN_DIR=${CMAKE_CURRENT_BINARY_DIR}/pmx_tool_run_churn")
pmx_db_test(churn_bad_rate EXPECT_FAIL ARGS "churn|${pmx_chassis_dir}/small.topo.json|--rate|0/s"
  STDERR_REGEX "^pmx: --rate 0/s: give the changes per second, a number above 0")

# pmx map: the summary of the sample chassis, and refusals named.
pmx_db_test(map_small ARGS "map|--load|${pmx_chassis}|-o|map_small.html"
  STDOUT_REGEX "^wrote map_small.html\n1 device, 6 cards, 29 ports and 2 back-plane ports, 35 interfaces \\(6 sub-interfaces\\)\n$")
pmx_db_test(map_module_and_load EXPECT_FAIL ARGS "map|--module|libpmx_pmx|--load|${pmx_chassis}"
  STDERR_REGEX "--module reads the tables of a running process: no --db or --load with it")
pmx_db_test(map_unwritable EXPECT_FAIL ARGS "map|--load|${pmx_chassis}|-o|no-such-dir/map.html"
  STDERR_REGEX "^pmx: cannot write no-such-dir/map.html\n$")
pmx_db_test(map_not_serving EXPECT_FAIL ARGS "map|--module|absent"
  STDERR_REGEX "module absent is not serving.*'dump_card_info json=1' failed in module absent\n$")

# pmx map's page in headless Chromium, driven through chromedriver: the sample chassis against its
# truth table, and a screenshot under test-artifacts/. Native builds without sanitizers only: the
# browser is the host's own program.
if(NOT CMAKE_CROSSCOMPILING AND NOT PMX_SANITIZE)
  find_program(PMX_CHROMIUM chromium)
  find_program(PMX_CHROMEDRIVER chromedriver)
  find_package(Python3 COMPONENTS Interpreter)
  if(PMX_CHROMIUM AND PMX_CHROMEDRIVER AND Python3_Interpreter_FOUND)
    add_test(NAME pmx_tool_map_browser
      COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/map_browser_test.py --pmx $<TARGET_FILE:pmx_tool>
              --topology ${pmx_chassis_dir}/small.topo.json --artifacts ${PROJECT_BINARY_DIR}/test-artifacts
              --chromium ${PMX_CHROMIUM} --chromedriver ${PMX_CHROMEDRIVER})
    set_tests_properties(pmx_tool_map_browser PROPERTIES TIMEOUT 60 ENVIRONMENT "PMX_CAP_FILE=")
  else()
    # Registered all the same, so that a machine without the browser fails the test command.
    message(WARNING "pmx map's browser test cannot run: it needs chromium, chromedriver and python3 "
                    "(scripts/install-deps installs them)")
    add_test(NAME pmx_tool_map_browser COMMAND ${CMAKE_COMMAND} -E echo
             "pmx_tool_map_browser: chromium, chromedriver or python3 missing: run scripts/install-deps")
    set_tests_properties(pmx_tool_map_browser PROPERTIES WILL_FAIL TRUE)
  endif()
endif()

# pmx check: nothing on the generated small and mixed chassis; each planted fault found under its
# rule with its record and key; raw values that do not unpack, written into a private Redis.
add_test(NAME pmx_tool_check
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/pmx_tool_check.sh ${PROJECT_SOURCE_DIR} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:pmx_tool>)
set_tests_properties(pmx_tool_check PROPERTIES TIMEOUT ${pmx_test_timeout})
