# SPDX-License-Identifier: GPL-3.0-or-later
# Fails unless MODULE defines exactly its two dynamic symbols: create_instance and morvel_command_declaration.
execute_process(COMMAND nm -D --defined-only ${MODULE}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "nm failed on ${MODULE}: ${errors}")
endif()
string(STRIP "${symbols}" symbols)
string(REPLACE "\n" ";" lines "${symbols}")
list(LENGTH lines count)
if(NOT count EQUAL 2 OR NOT "${lines}" MATCHES "^[0-9a-f]+ T create_instance;[0-9a-f]+ T morvel_command_declaration$")
  message(FATAL_ERROR "expected only 'T create_instance' and 'T morvel_command_declaration', nm -D --defined-only says:\n${symbols}")
endif()
message(STATUS "exports: ${symbols}")
