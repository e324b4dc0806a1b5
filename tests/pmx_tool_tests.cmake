# Tests of the pmx command-line tool: each runs the real executable through run_pmx_tool.cmake.
set(pmx_records ${PROJECT_SOURCE_DIR}/examples/records)

function(pmx_tool_test name)
  cmake_parse_arguments(T "EXPECT_FAIL" "ARGS;STDIN;EXPECT_STDOUT;STDOUT_REGEX;STDERR_REGEX" "" ${ARGN})
  add_test(NAME pmx_tool_${name}
    COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:pmx_tool> "-DARGS=${T_ARGS}" "-DSTDIN=${T_STDIN}"
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

# pmx shell against a live server: ssat_test_server serves the module "demo" (commands echo and
# fail) from a private directory while it runs the tool; its log shares standard error.
add_executable(ssat_test_server ${CMAKE_CURRENT_SOURCE_DIR}/ssat_test_server.cpp)
target_link_libraries(ssat_test_server PRIVATE pmxhost)
pmx_strict_warnings(ssat_test_server)

function(pmx_shell_test name)
  cmake_parse_arguments(T "EXPECT_FAIL" "ARGS;STDIN;STDOUT_REGEX;STDERR_REGEX" "" ${ARGN})
  add_test(NAME pmx_tool_shell_${name}
    COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:ssat_test_server>
            "-DARGS=$<TARGET_FILE:pmx_tool>|shell|${T_ARGS}" "-DSTDIN=${T_STDIN}"
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
  STDERR_REGEX "(^|\n)pmx: module absent is not serving: cannot connect to /[^\n]*/absent.sock: ")
pmx_shell_test(bad_module EXPECT_FAIL ARGS "../x|echo" STDERR_REGEX "invalid module name '../x'")
# Lines from standard input: blanks trimmed, empty lines skipped, "quit" ends the session, and
# a failed command makes it fail.
pmx_shell_test(session EXPECT_FAIL ARGS "demo" STDIN ${CMAKE_CURRENT_SOURCE_DIR}/data/pmx_shell_session.in
  STDOUT_REGEX "^one\ntwo\nfailing with 2\n$" STDERR_REGEX "'fail' ended with code 2")
